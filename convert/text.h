// Python str <-> CHAR and VELTRA_STRING arrays. Text crosses as UTF-16 code units both ways.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// Writes code points as UTF-16 at `out`, which has room for 2n units, and returns how many it took: fewer
// than n at the first one UTF-16 cannot carry (a surrogate, or beyond U+10FFFF), where it stops without
// setting an error. `units` is what it wrote.
std::size_t writeUtf16(const std::uint32_t* cps, std::size_t n, char16_t* out, std::size_t& units);
// The same, appended to a string.
std::size_t appendUtf16(const std::uint32_t* cps, std::size_t n, std::u16string& out);

// The UTF-16 encoding of a str without its byte-order mark, where the codec's bytes object holds it; nothing,
// with the codec's error pending, for text UTF-16 cannot carry (a lone surrogate).
struct Utf16Bytes {
    Ref bytes;
    const char* data = nullptr;
    std::size_t units = 0;
};
std::optional<Utf16Bytes> encodeUtf16(PyObject* obj);

// The UTF-16 code units of a str, without the byte-order mark; nothing, with the codec's error
// pending, for text UTF-16 cannot carry (a lone surrogate).
std::optional<std::u16string> pyUnicodeToUtf16(PyObject* obj);

// n UTF-16 units (little-endian, possibly unaligned) -> str, strictly: the codec's error for an unpaired
// surrogate. Every text read from a message (char and string arrays, dictionary keys, time texts) goes
// through it; a leading U+FEFF or U+FFFE stays the character it is.
PyObject* utf16ToPyStr(const void* units, std::size_t n);

// str -> 1-by-N CHAR array, or a 1-by-1 VELTRA_STRING array when state.allowString and state.notNested are
// both set. Absent with the codec's error pending for a lone surrogate.
VELTRA_TO_ARRAY_CONVERTER(PyStrToCharOrString);

// CHAR array (1-by-N, M-by-1, or empty 2-D) -> str in linear order. ValueError for other shapes; the codec's
// error for an unpaired surrogate.
VELTRA_TO_PYTHON_CONVERTER(CharToPyStr);

// Element 0 of a VELTRA_STRING array -> str, or None when the element is missing.
VELTRA_TO_PYTHON_CONVERTER(VLStringToPyStr);

// VELTRA_STRING array (1-by-N, M-by-1, or empty 2-D) -> list of str / None.
VELTRA_TO_PYTHON_CONVERTER(VLStringToPyList);

// Shared by the text and the container converters: at most two dimensions, and not both more than one row
// and more than one column. 1-by-N, M-by-1, 1-by-1, 0-by-0 and 0-by-N pass; 2-by-2 and every N-D array fail.
bool isRowOrColumn(const Array& a);

}  // namespace PythonVeltraDataArray::detail
