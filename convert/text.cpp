#include "convert/text.h"

#include "convert/budget.h"

#include <cstring>


namespace PythonVeltraDataArray::detail {

using foundation::veltradata::CharArray;
using foundation::veltradata::TypedArray;
using foundation::veltradata::VeltraString;

namespace {

constexpr char kCharShape[] = "char arrays returned from VELTRA must be 1-by-N or M-by-1";
// The trailing blank is part of the message.
constexpr char kStringShape[] = "string arrays returned from VELTRA must be 1-by-N or M-by-1 ";

// Short ASCII text, the common case for names and messages, skips the UTF-16 codec: the same str comes out
// of the UTF-8 decoder, which also hands back Python's cached one-character strings. False when the text is
// longer or not ASCII: the caller then takes the codec. The units may lie unaligned (in a message).
constexpr std::size_t kShortText = 64;
bool narrowShortAscii(const void* units, std::size_t n, char (&narrow)[kShortText]) {
    if (n > kShortText) return false;
    const unsigned char* b = static_cast<const unsigned char*>(units);
    for (std::size_t i = 0; i < n; ++i) {
        if (b[2 * i] >= 0x80 || b[2 * i + 1] != 0) return false;  // little-endian units
        narrow[i] = static_cast<char>(b[2 * i]);
    }
    return true;
}

}  // namespace

bool isRowOrColumn(const Array& a) {
    const auto& dims = a.getDimensions();
    if (dims.size() > 2) return false;
    return !(dims.size() == 2 && dims[0] >= 2 && dims[1] > 1);
}

std::optional<Utf16Bytes> encodeUtf16(PyObject* obj) {
    Utf16Bytes out;
    out.bytes = Ref::steal(PyUnicode_AsUTF16String(obj));
    if (!out.bytes) return std::nullopt;
    out.data = PyBytes_AsString(out.bytes.get());
    if (!out.data) return std::nullopt;
    Py_ssize_t size = PyBytes_Size(out.bytes.get());
    if (size >= 2) {  // the codec always writes a byte-order mark first
        out.data += 2;
        size -= 2;
    }
    out.units = static_cast<std::size_t>(size / 2);  // an odd trailing byte is dropped
    return out;
}

std::size_t writeUtf16(const std::uint32_t* cps, std::size_t n, char16_t* out, std::size_t& units) {
    char16_t* p = out;
    std::size_t i = 0;
    for (; i < n; ++i) {
        const std::uint32_t c = cps[i];
        if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) break;
        if (c < 0x10000) {
            *p++ = static_cast<char16_t>(c);
        } else {
            *p++ = static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
            *p++ = static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
        }
    }
    units = static_cast<std::size_t>(p - out);
    return i;
}

std::size_t appendUtf16(const std::uint32_t* cps, std::size_t n, std::u16string& out) {
    const std::size_t at = out.size();
    out.resize(at + 2 * n);
    std::size_t units = 0;
    const std::size_t taken = writeUtf16(cps, n, out.data() + at, units);
    out.resize(at + units);
    return taken;
}

std::optional<std::u16string> pyUnicodeToUtf16(PyObject* obj) {
    // Short text, most of what tables and lists hold, is copied out as code points into a buffer on the stack
    // and made UTF-16 here: no codec and no bytes object per string. A surrogate code point, which UTF-16
    // cannot carry, goes to the codec for its error.
    constexpr Py_ssize_t kStack = 256;
    const Py_ssize_t n = PyUnicode_GetLength(obj);
    if (n < 0) return std::nullopt;
    if (n <= kStack) {
        Py_UCS4 cps[kStack];
        if (n && !PyUnicode_AsUCS4(obj, cps, kStack, 0)) return std::nullopt;
        std::u16string out;
        if (appendUtf16(cps, static_cast<std::size_t>(n), out) == static_cast<std::size_t>(n)) return out;
    }
    std::optional<Utf16Bytes> encoded = encodeUtf16(obj);
    if (!encoded) return std::nullopt;
    std::u16string out(encoded->units, u'\0');
    if (!out.empty()) std::memcpy(out.data(), encoded->data, out.size() * sizeof(char16_t));
    return out;
}

std::optional<Array> PyStrToCharOrString::doConvert(PyObject* obj, const ConversionState& state) {
    if (!PyUnicode_Check(obj)) return failUnsupportedType(obj);
    if (!state.allowString || !state.notNested) {
        // Char data goes from the codec's buffer straight into the array.
        std::optional<Utf16Bytes> encoded = encodeUtf16(obj);
        if (!encoded || (state.budget && !state.budget->chargeBytes(2 * encoded->units))) return failed();
        return factory().createArrayWithData(ArrayType::CHAR, {1, encoded->units}, encoded->data,
                                             encoded->units * sizeof(char16_t));
    }
    std::optional<std::u16string> text = pyUnicodeToUtf16(obj);
    if (!text) return failed();
    return factory().createScalar(*text);
}

PyObject* utf16ToPyStr(const void* units, std::size_t n) {
    char narrow[kShortText];
    if (narrowShortAscii(units, n, narrow)) return PyUnicode_FromStringAndSize(narrow, static_cast<Py_ssize_t>(n));
    // The wire's code units are little-endian by definition: a leading U+FEFF or U+FFFE is a character, not a
    // byte-order mark, and an explicit order keeps the codec from taking it for one.
    int littleEndian = -1;
    return PyUnicode_DecodeUTF16(static_cast<const char*>(units), static_cast<Py_ssize_t>(2 * n), nullptr,
                                 &littleEndian);
}

PyObject* CharToPyStr::doConvert(const Array& a) {
    if (!isRowOrColumn(a)) return fail(PyExc_ValueError, kCharShape);
    const CharArray chars(a);
    return utf16ToPyStr(chars.data(), static_cast<std::size_t>(chars.getNumberOfElements()));
}

PyObject* VLStringToPyStr::doConvert(const Array& a) {
    const VeltraString element = TypedArray<VeltraString>(a)[0].getValue<VeltraString>();
    if (!element) Py_RETURN_NONE;
    return utf16ToPyStr(element->data(), element->size());
}

PyObject* VLStringToPyList::doConvert(const Array& a) {
    if (!isRowOrColumn(a)) return fail(PyExc_ValueError, kStringShape);
    const VeltraString* strings = foundation::veltradata::stringElements(a);
    const std::uint64_t n = a.getNumberOfElements();
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(n)));
    if (!list) return failed();
    for (std::uint64_t i = 0; i < n; ++i) {
        if (!pollSignals()) return failed();
        const VeltraString& element = strings[i];
        PyObject* item = element ? utf16ToPyStr(element->data(), element->size()) : Py_NewRef(Py_None);
        if (!item) return failed();
        PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), item);  // steals item
    }
    return list.release();
}

}  // namespace PythonVeltraDataArray::detail
