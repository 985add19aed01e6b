#include "convert/bytes.h"

#include <cstdint>

#include "convert/budget.h"
#include "pyutil/buffer.h"

namespace PythonVeltraDataArray::detail {

namespace {

// A 1-by-N UINT8 row of a copy of the bytes, so later changes to a bytearray do not reach it.
std::optional<Array> uint8Row(ArrayFactory& f, const char* data, Py_ssize_t size, CallBudget* budget) {
    const std::uint64_t n = static_cast<std::uint64_t>(size);
    if (budget && !budget->chargeBytes(n)) return failed();
    return f.createArrayWithData(ArrayType::UINT8, {1, n}, data, static_cast<std::size_t>(n));
}

// What claims a byte sequence's name without being one is read through the buffer protocol, as bytes.
std::optional<Array> fromBuffer(ArrayFactory& f, PyObject* obj, CallBudget* budget) {
    pyutil::BufferView view;
    if (!view.acquire(obj, PyBUF_SIMPLE)) return failProtocol(obj);
    return uint8Row(f, static_cast<const char*>(view->buf), view->len, budget);
}

}  // namespace

std::optional<Array> PyBytesToUint8::doConvert(PyObject* obj, const ConversionState& state) {
    if (!PyBytes_Check(obj)) return fromBuffer(factory(), obj, state.budget);
    return uint8Row(factory(), PyBytes_AsString(obj), PyBytes_Size(obj), state.budget);
}

std::optional<Array> PyByteArrayToUint8::doConvert(PyObject* obj, const ConversionState& state) {
    if (!PyByteArray_Check(obj)) return fromBuffer(factory(), obj, state.budget);
    return uint8Row(factory(), PyByteArray_AsString(obj), PyByteArray_Size(obj), state.budget);
}

}  // namespace PythonVeltraDataArray::detail
