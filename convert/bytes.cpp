#include "convert/bytes.h"

#include <cstdint>

namespace PythonVeltraDataArray::detail {

namespace {

// The bytes are copied into the array before this returns, so later changes to a bytearray do not reach it.
std::optional<Array> uint8Row(ArrayFactory& f, const char* data, Py_ssize_t size) {
    if (!data || size < 0) return failed();
    const std::uint64_t n = static_cast<std::uint64_t>(size);
    return f.createArrayWithData(ArrayType::UINT8, {1, n}, data, static_cast<std::size_t>(n));
}

}  // namespace

std::optional<Array> PyBytesToUint8::doConvert(PyObject* obj, const ConversionState&) {
    return uint8Row(factory(), PyBytes_AsString(obj), PyBytes_Size(obj));
}

std::optional<Array> PyByteArrayToUint8::doConvert(PyObject* obj, const ConversionState&) {
    return uint8Row(factory(), PyByteArray_AsString(obj), PyByteArray_Size(obj));
}

}  // namespace PythonVeltraDataArray::detail
