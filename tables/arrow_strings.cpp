#include "tables/arrow_strings.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "pyutil/buffer.h"
#include "veltradata/utf16.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::VeltraString;

// What reading a chunk gives: its elements, a layout not read here (the caller takes the general path), or a
// failure with the error set.
enum Read { kFailed = 0, kRead = 1, kNotRead = -1 };

// An attribute; nothing with an ordinary error cleared (a miss means "not held in pyarrow's format"), or
// nothing with any other error left pending (check PyErr_Occurred).
Ref attr(PyObject* obj, const char* name) {
    Ref value = Ref::steal(PyObject_GetAttrString(obj, name));
    if (!value) pyutil::clearOrdinary();
    return value;
}

// A layout not read here, when the pending error (if any) is ordinary; a failure otherwise.
int notRead() { return pyutil::clearOrdinary() ? kNotRead : kFailed; }

// Appends one pyarrow string chunk's elements.
int readChunk(PyObject* chunk, std::vector<VeltraString>& out, std::uint64_t& units, const ConversionState& state) {
    Ref type = attr(chunk, "type");
    Ref typeText = type ? Ref::steal(PyObject_Str(type.get())) : Ref();
    const char* typeName = typeText ? PyUnicode_AsUTF8AndSize(typeText.get(), nullptr) : nullptr;
    if (!typeName) return notRead();
    const std::string t(typeName);
    const std::size_t width = t == "string" ? 4 : t == "large_string" ? 8 : 0;
    if (!width) return kNotRead;
    Ref offsetObj = attr(chunk, "offset");
    const long long offset = offsetObj ? PyLong_AsLongLong(offsetObj.get()) : -1;
    if (offset < 0) return notRead();
    const Py_ssize_t length = PyObject_Length(chunk);
    Ref buffers = length >= 0 ? Ref::steal(PyObject_CallMethod(chunk, "buffers", nullptr)) : Ref();
    if (!buffers || !PyList_Check(buffers.get()) || PyList_Size(buffers.get()) != 3) return notRead();
    PyObject* validityBuf = PyList_GetItem(buffers.get(), 0);
    PyObject* offsetsBuf = PyList_GetItem(buffers.get(), 1);
    PyObject* dataBuf = PyList_GetItem(buffers.get(), 2);
    pyutil::BufferView validity, offsets, data;
    if ((validityBuf != Py_None && !validity.acquire(validityBuf, PyBUF_SIMPLE)) ||
        (length && !offsets.acquire(offsetsBuf, PyBUF_SIMPLE)) || (dataBuf != Py_None && !data.acquire(dataBuf, PyBUF_SIMPLE)))
        return notRead();
    if (length == 0) return kRead;
    // Everything read lies inside what the buffers hold. The offset and the length are the chunk's own word,
    // so the bounds are checked without a sum or product that could wrap: offsets first + 0 ... first + n
    // within the offsets buffer, and then (first + n fitting it) their validity bits within the bitmap.
    const auto first = static_cast<std::uint64_t>(offset), n = static_cast<std::uint64_t>(length);
    const std::uint64_t offsetCount = static_cast<std::uint64_t>(offsets->len) / width;
    if (first >= offsetCount || n >= offsetCount - first ||
        (validityBuf != Py_None && (first + n + 7) / 8 > static_cast<std::uint64_t>(validity->len)))
        return kNotRead;
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
        // Both ends inside the data buffer (every element is checked again as it is read), so the charge
        // cannot wrap.
        const std::int64_t start = offsetAt(first), end = offsetAt(first + n);
        if (start < 0 || end < start || static_cast<std::uint64_t>(end) > dataLen) return kNotRead;
        if (!state.budget->chargeBytes(static_cast<std::uint64_t>(end - start) * 2 + n)) return kFailed;
    }
    std::u16string text;
    for (std::uint64_t i = first; i < first + n; ++i) {
        if (!pollSignals()) return kFailed;
        if (bits && !(bits[i / 8] >> (i % 8) & 1)) {
            out.emplace_back();
            continue;
        }
        const std::int64_t start = offsetAt(i), end = offsetAt(i + 1);
        if (start < 0 || end < start || static_cast<std::uint64_t>(end) > dataLen) return kNotRead;
        const std::size_t len = static_cast<std::size_t>(end - start);
        const char* utf8 = reinterpret_cast<const char*>(bytes) + start;
        if (!foundation::veltradata::utf8ToUtf16Strict(len ? utf8 : "", len, text)) {
            // The codec's own error for what is not UTF-8.
            Ref decoded = Ref::steal(PyUnicode_DecodeUTF8(utf8, static_cast<Py_ssize_t>(len), "strict"));
            if (decoded) fail(PyExc_ValueError, "pyarrow string column holds text that is not UTF-8");
            return kFailed;
        }
        units += text.size();
        out.emplace_back(text);
    }
    return kRead;
}

}  // namespace

std::optional<Array> arrowStringColumn(ArrayFactory& f, PyObject* series, const ConversionState& state) {
    Ref values = attr(series, "array");
    const int convertible = values ? pyutil::hasAttribute(values.get(), "__arrow_array__") : 0;
    Ref arrow = convertible > 0 ? Ref::steal(PyObject_CallMethod(values.get(), "__arrow_array__", nullptr)) : Ref();
    // Without pyarrow (an ordinary error) the general path reads the column.
    if (!arrow) {
        if (!pyutil::clearOrdinary()) return failed();
        return std::nullopt;
    }
    Ref chunks = attr(arrow.get(), "chunks");
    if (!chunks && PyErr_Occurred()) return failed();
    Ref list = Ref::steal(chunks ? PySequence_List(chunks.get()) : PyList_New(0));
    if (!list) return failed();
    if (!chunks && PyList_Append(list.get(), arrow.get()) < 0) return failed();

    std::vector<VeltraString> texts;
    std::uint64_t units = 0;
    for (Py_ssize_t k = 0; k < PyList_Size(list.get()); ++k) {
        const int read = readChunk(PyList_GetItem(list.get(), k), texts, units, state);
        if (read == kFailed) return failed();
        if (read == kNotRead) return std::nullopt;
    }
    const std::uint64_t n = texts.size();
    return Array(f.createStringArray({n, 1}, std::move(texts)));
}

}  // namespace PythonVeltraDataArray::detail
