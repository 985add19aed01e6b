// Plain values: real scalars, logical scalars, 1-by-N char arrays, and 1-by-N cells and 1-by-1 structs of
// plain values, which is what most calls carry. They are written without an Array per value (params_tape.h),
// and read the same way:
//  - readPlain recognises a plain array in the exact layout every writer gives it (type, packed dimensions,
//    payload, nothing else) and says what it is, so that a reader can make its value straight from the bytes.
// Anything else (another layout, kind or shape, a malformed message) is left to readResult, which knows every
// kind and says what is wrong.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "veltradata/array_type.h"

namespace foundation::protobuf::common {

using foundation::veltradata::ArrayType;

// What readPlain found.
enum class PlainKind : std::uint8_t {
    NotPlain,  // anything else: the general reader decides
    Empty,     // no elements (a zero dimension) of a numeric, logical, char, cell or struct kind
    Number,    // a 1-by-1 real numeric array: `type`, and the element's bytes at `data`
    Logical,   // a 1-by-1 logical array: its byte at `data` (nonzero is true)
    Char,      // a 1-by-N or N-by-1 char array: `count` UTF-16 units at `data` (not aligned)
    Cell,      // a 1-by-N or N-by-1 cell, N >= 1: `count` elements, read with nextElement
    Struct,    // a 1-by-1 struct: `count` fields, read with nextElement and nextFieldName in turn
    // Perhaps the engine's datetime array: a value-object array of `count` >= 2 elements; `dims` and `ndims`
    // are its shape. dateTexts says whether it is one (of the class "datetime", each object holding nothing
    // but a 1-by-1 string DateString) and reads its texts.
    DateTexts,
};

// One DateString: `units` UTF-16 units at `data` (not aligned); none for a missing string.
struct PlainText {
    const std::uint8_t* data = nullptr;
    std::size_t units = 0;
};
class PlainArray {
public:
    PlainKind kind = PlainKind::NotPlain;
    ArrayType type = ArrayType::UNKNOWN;
    // Empty: two dimensions, not both more than one row and more than one column (what a char or cell array
    // needs to become text or a list).
    bool rowOrColumn = false;
    const std::uint8_t* data = nullptr;
    std::uint64_t count = 0;
    std::uint64_t dims[8] = {};
    std::size_t ndims = 0;

    // Cell, struct: the elements in order, and a struct's field names in order (valid field names, ASCII);
    // false once all `count` have been read.
    bool nextElement(const std::uint8_t*& data, std::size_t& size);
    bool nextFieldName(const char*& name, std::size_t& size);

private:
    friend PlainArray readPlain(const std::uint8_t* data, std::size_t size);
    friend bool dateTexts(const PlainArray& a, std::vector<PlainText>& out);
    // Where the next element and the next field name start (both checked already), how many of each are left.
    const std::uint8_t* element_ = nullptr;
    const std::uint8_t* name_ = nullptr;
    std::uint64_t elementsLeft_ = 0, namesLeft_ = 0;
    const std::uint8_t* end_ = nullptr;  // of the array's bytes
};

// One VELTRA_Array message body.
PlainArray readPlain(const std::uint8_t* data, std::size_t size);

// The texts of `a`, a DateTexts array, in element order; false when it is not the engine's datetime array.
bool dateTexts(const PlainArray& a, std::vector<PlainText>& out);

}  // namespace foundation::protobuf::common
