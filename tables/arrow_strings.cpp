#include "tables/arrow_strings.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "pyutil/buffer.h"
#include "veltradata/text.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::VeltraString;

// An attribute, or nothing with the error cleared: every miss means "not held in pyarrow's format".
Ref attr(PyObject* obj, const char* name) {
    Ref value = Ref::steal(PyObject_GetAttrString(obj, name));
    if (!value) PyErr_Clear();
    return value;
}

long long intOf(PyObject* obj) {
    const long long v = obj ? PyLong_AsLongLong(obj) : -1;
    if (v == -1) PyErr_Clear();
    return v;
}

// Appends one pyarrow string chunk's elements. -1: not a layout read here (no error); 0: failed, error set.
int readChunk(PyObject* chunk, std::vector<VeltraString>& out, std::uint64_t& units, const ConversionState& state) {
    Ref type = attr(chunk, "type");
    Ref typeText = type ? Ref::steal(PyObject_Str(type.get())) : Ref();
    const char* typeName = typeText ? PyUnicode_AsUTF8AndSize(typeText.get(), nullptr) : nullptr;
    if (!typeName) {
        PyErr_Clear();
        return -1;
    }
    const std::string t(typeName);
    const std::size_t width = t == "string" ? 4 : t == "large_string" ? 8 : 0;
    if (!width) return -1;
    const long long offset = intOf(attr(chunk, "offset").get());
    const Py_ssize_t length = PyObject_Length(chunk);
    Ref buffers = Ref::steal(PyObject_CallMethod(chunk, "buffers", nullptr));
    if (length < 0 || offset < 0 || !buffers || !PyList_Check(buffers.get()) || PyList_Size(buffers.get()) != 3) {
        PyErr_Clear();
        return -1;
    }
    PyObject* validityBuf = PyList_GetItem(buffers.get(), 0);
    PyObject* offsetsBuf = PyList_GetItem(buffers.get(), 1);
    PyObject* dataBuf = PyList_GetItem(buffers.get(), 2);
    pyutil::BufferView validity, offsets, data;
    if ((validityBuf != Py_None && !validity.acquire(validityBuf, PyBUF_SIMPLE)) ||
        (length && !offsets.acquire(offsetsBuf, PyBUF_SIMPLE)) || (dataBuf != Py_None && !data.acquire(dataBuf, PyBUF_SIMPLE))) {
        PyErr_Clear();
        return -1;
    }
    if (length == 0) return 1;
    const auto first = static_cast<std::uint64_t>(offset), n = static_cast<std::uint64_t>(length);
    // Everything read lies inside what the buffers hold.
    if ((first + n + 1) * width > static_cast<std::uint64_t>(offsets->len) ||
        (validityBuf != Py_None && (first + n + 7) / 8 > static_cast<std::uint64_t>(validity->len)))
        return -1;
    const auto* bits = validityBuf != Py_None ? static_cast<const unsigned char*>(validity->buf) : nullptr;
    const auto* bytes = dataBuf != Py_None ? static_cast<const unsigned char*>(data->buf) : nullptr;
    const std::uint64_t dataLen = dataBuf != Py_None ? static_cast<std::uint64_t>(data->len) : 0;
    auto offsetAt = [&](std::uint64_t i) -> std::int64_t {
        const auto* p = static_cast<const unsigned char*>(offsets->buf) + i * width;
        if (width == 4) {
            std::int32_t v;
            std::memcpy(&v, p, 4);
            return v;
        }
        std::int64_t v;
        std::memcpy(&v, p, 8);
        return v;
    };
    if (state.budget) {
        const std::int64_t span = offsetAt(first + n) - offsetAt(first);
        if (span < 0 || !state.budget->chargeBytes(static_cast<std::uint64_t>(span) * 2 + n)) return span < 0 ? -1 : 0;
    }
    std::u16string text;
    for (std::uint64_t i = first; i < first + n; ++i) {
        if (!pollSignals()) return 0;
        if (bits && !(bits[i / 8] >> (i % 8) & 1)) {
            out.emplace_back();
            continue;
        }
        const std::int64_t start = offsetAt(i), end = offsetAt(i + 1);
        if (start < 0 || end < start || static_cast<std::uint64_t>(end) > dataLen) return -1;
        const std::size_t len = static_cast<std::size_t>(end - start);
        const char* utf8 = reinterpret_cast<const char*>(bytes) + start;
        if (!foundation::veltradata::utf8ToUtf16Strict(len ? utf8 : "", len, text)) {
            // The codec's own error for what is not UTF-8.
            Ref decoded = Ref::steal(PyUnicode_DecodeUTF8(utf8, static_cast<Py_ssize_t>(len), "strict"));
            if (decoded) fail(PyExc_ValueError, "pyarrow string column holds text that is not UTF-8");
            return 0;
        }
        units += text.size();
        out.emplace_back(text);
    }
    return 1;
}

}  // namespace

std::optional<Array> arrowStringColumn(ArrayFactory& f, PyObject* series, const ConversionState& state) {
    Ref values = attr(series, "array");
    Ref arrow = values && PyObject_HasAttrString(values.get(), "__arrow_array__")
                    ? Ref::steal(PyObject_CallMethod(values.get(), "__arrow_array__", nullptr))
                    : Ref();
    if (!arrow) {
        PyErr_Clear();
        return std::nullopt;
    }
    Ref chunks = attr(arrow.get(), "chunks");
    Ref list = Ref::steal(chunks ? PySequence_List(chunks.get()) : PyList_New(0));
    if (!list) return failed();
    if (!chunks && PyList_Append(list.get(), arrow.get()) < 0) return failed();

    std::vector<VeltraString> texts;
    std::uint64_t units = 0;
    for (Py_ssize_t k = 0; k < PyList_Size(list.get()); ++k) {
        const int read = readChunk(PyList_GetItem(list.get(), k), texts, units, state);
        if (read == 0) return failed();
        if (read < 0) return std::nullopt;
    }
    const std::uint64_t n = texts.size();
    return Array(f.createStringArray({n, 1}, std::move(texts)));
}

}  // namespace PythonVeltraDataArray::detail
