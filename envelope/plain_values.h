// Plain values: real scalars, logical scalars, 1-by-N char arrays, and 1-by-N cells and 1-by-1 structs of
// plain values, which is what most calls carry. They cross here without an Array per value:
//  - PlainParams records a call's arguments as a tape (one small entry per value, nested sizes filled in as
//    containers close) and writes the VELTRA_Params message from it in one pass: the bytes ParamsMessage
//    writes for the same values;
//  - readPlain recognises a plain array in the exact layout every writer gives it (type, packed dimensions,
//    payload, nothing else) and says what it is, so that a reader can make its value straight from the bytes.
// Anything else (another layout, kind or shape, a malformed message) is left to ParamsMessage and
// readResult, which know every kind and say what is wrong.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "veltradata/array_type.h"

namespace foundation::protobuf::common {

using foundation::veltradata::ArrayType;

class PlainParams {
public:
    // Forgets every value; keeps the memory for the next call.
    void clear();

    // Top-level values are the call's arguments; the others belong to the innermost open cell or struct.
    void addDouble(double v) { addScalar(kDouble, bitsOf(v)); }
    void addInt64(std::int64_t v) { addScalar(kInt64, static_cast<std::uint64_t>(v)); }
    void addLogical(bool v) { addScalar(kLogical, v ? 1 : 0); }
    // A 1-by-n char array; its n UTF-16 units are to be written at the returned place, which stays valid
    // until the next call of any add or begin.
    char16_t* addChar(std::size_t n);
    // A 1-by-n char array whose units the caller keeps in place until writeTo has returned.
    void addCharAt(const char16_t* units, std::size_t n);
    // A 1-by-n cell: n values follow, then end().
    void beginCell(std::uint64_t n);
    // A 1-by-1 struct: each field is a fieldName() followed by its value; then end(). The caller passes
    // valid, distinct names.
    void beginStruct();
    void fieldName(const char* name, std::size_t n);
    void end();

    // The bytes the tape holds on to between calls: its entries (a value each, and a struct's field names), the
    // units of the texts written into it, the names.
    std::size_t heldBytes() const {
        return entries_.capacity() * sizeof(Entry) + open_.capacity() * sizeof(Open) +
               units_.capacity() * sizeof(char16_t) + names_.capacity();
    }
    // Values open around the next one: the nesting depth it would have as an argument's element.
    std::size_t depth() const { return open_.size(); }

    // The size of the VELTRA_Params message with these arguments (all containers closed) and nargout.
    std::size_t finish(std::int32_t nargout);
    // Writes exactly finish()'s size.
    void writeTo(std::uint8_t* out) const;

private:
    enum Kind : std::uint32_t { kDouble, kInt64, kLogical, kChar, kCharAt, kCell, kStruct, kName };
    // One value (or a struct's field name). Scalars: a = the element's bits. Char: a = units, b = offset into
    // units_ (kCharAt: the address). Cell, struct: a = elements, b = body size once closed. Name: a = length,
    // b = offset into names_.
    struct Entry {
        std::uint64_t a, b;
        Kind kind;
    };
    struct Open {
        std::size_t entry;
        std::size_t body;  // so far: the element fields and, for a struct, the name fields
    };

    static std::uint64_t bitsOf(double v);
    void addScalar(Kind kind, std::uint64_t bits);
    void added(std::size_t bodySize);  // counts a finished value into its container (or the message)
    static std::size_t bodySize(const Entry& e);

    std::vector<Entry> entries_;
    std::vector<Open> open_;
    std::vector<char16_t> units_;
    std::vector<char> names_;
    std::size_t args_ = 0;  // the arguments' fields, headers included
    std::size_t size_ = 0;
    std::int32_t nargout_ = 0;
};

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

struct PlainArray {
    PlainKind kind = PlainKind::NotPlain;
    ArrayType type = ArrayType::UNKNOWN;
    // Empty: two dimensions, not both more than one row and more than one column (what a char or cell array
    // needs to become text or a list).
    bool rowOrColumn = false;
    const std::uint8_t* data = nullptr;
    std::uint64_t count = 0;
    // Cell, struct: where the next element and the next field name start; both checked already.
    const std::uint8_t* nextElement = nullptr;
    const std::uint8_t* nextName = nullptr;
    std::uint64_t dims[8] = {};
    std::size_t ndims = 0;
    const std::uint8_t* end = nullptr;  // of the array's bytes
};

// One VELTRA_Array message body.
PlainArray readPlain(const std::uint8_t* data, std::size_t size);
// The next element of a cell or struct read by readPlain: call exactly `count` times.
void nextElement(PlainArray& parent, const std::uint8_t*& data, std::size_t& size);
// The next field name of a struct (a valid field name, ASCII): call exactly `count` times.
void nextFieldName(PlainArray& parent, const char*& name, std::size_t& size);

// One DateString: `units` UTF-16 units at `data` (not aligned); none for a missing string.
struct PlainText {
    const std::uint8_t* data = nullptr;
    std::size_t units = 0;
};
// The texts of `a`, a DateTexts array, in element order; false when it is not the engine's datetime array.
bool dateTexts(const PlainArray& a, std::vector<PlainText>& out);

// The output fields of a VELTRA_Result that holds outputs and nothing else, in the canonical layout; false
// for anything else (an error, unknown fields, bytes cut short), which the general reader then takes.
struct PlainOutput {
    const std::uint8_t* data;
    std::size_t size;
};
bool plainOutputs(const std::uint8_t* data, std::size_t size, std::vector<PlainOutput>& out);

}  // namespace foundation::protobuf::common
