// The one writer of VELTRA_Params. A call's arguments are recorded as a tape, one small entry per value, and the
// message is written from the tape in one pass, sized first:
//  - plain values (real and logical scalars, 1-by-N char arrays, 1-by-N cells and 1-by-1 structs of values)
//    go onto the tape as they are, with no Array made for them;
//  - any other value goes onto it as an Array, measured and written by the array codec.
// Both give the bytes the array codec gives for the same values, so a value may take either way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "veltradata/veltradata.h"

namespace foundation::protobuf::common {

using foundation::veltradata::Array;

class ParamsTape {
public:
    // Forgets every value; keeps the memory for the next call.
    void clear() {
        entries_.clear();
        open_.clear();
        units_.clear();
        names_.clear();
        arrays_.clear();
        arraySizes_.clear();
        size_ = 0;
        nargout_ = 0;
    }

    // Top-level values are the call's arguments; the others belong to the innermost open cell or struct. Each
    // throws the codec's exception for a value nested too deeply to be read back.
    void addDouble(double v) {
        std::uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        addScalar(kDouble, bits);
    }
    void addInt64(std::int64_t v) { addScalar(kInt64, static_cast<std::uint64_t>(v)); }
    void addLogical(bool v) { addScalar(kLogical, v ? 1 : 0); }
    // A 1-by-n char array; its n UTF-16 units are to be written at the returned place, which stays valid
    // until the next call of any add or begin.
    char16_t* addChar(std::size_t n);
    // A 1-by-n char array whose units the caller keeps in place until writeTo has returned.
    void addCharAt(const char16_t* units, std::size_t n);
    // Any array, kept until clear().
    void addArray(const Array& a);
    // The elements of a cell array (column-major order) as the arguments. Throws when `args` holds elements and
    // is not a cell array; an empty array of any kind adds none.
    void addArguments(const Array& args);
    // A 1-by-n cell: n values follow, then end().
    void beginCell(std::uint64_t n);
    // A 1-by-1 struct: each field is a fieldName() followed by its value; then end(). The caller passes
    // valid, distinct names.
    void beginStruct();
    void fieldName(const char* name, std::size_t n);
    void end();

    // The bytes the tape holds on to between calls.
    std::size_t heldBytes() const {
        const auto bytes = [](const auto& v) { return v.capacity() * sizeof(v[0]); };
        return bytes(entries_) + bytes(open_) + bytes(closing_) + bytes(units_) + bytes(names_) + bytes(arrays_) +
               bytes(arraySizes_);
    }

    // The size of the VELTRA_Params message with these arguments (all containers closed) and nargout; throws
    // when that is more than a message can hold.
    std::size_t finish(std::int32_t nargout);
    // Writes exactly finish()'s size.
    void writeTo(std::uint8_t* out) const;

private:
    enum Kind : std::uint32_t { kDouble, kInt64, kLogical, kChar, kCharAt, kArray, kCell, kStruct, kName };
    // One value (or a struct's field name). Scalars: a = the element's bits. Char: a = units, b = offset into
    // units_ (kCharAt: the address). Array: a = index into arrays_. Cell, struct: a = elements. Name: a = length,
    // b = offset into names_. Arrays, cells and structs get b = body size from finish(), which sizes the whole
    // tape at once: a call that fails on the way (a budget met deep inside) measures nothing.
    struct Entry {
        std::uint64_t a, b;
        Kind kind;
    };
    // Scalars are most of what a call holds: their way onto the tape is inline.
    void addScalar(Kind kind, std::uint64_t bits) { push({bits, 0, kind}); }
    // A value at the current depth; throws when that is too deep.
    void push(const Entry& e) {
        if (open_.size() > kMaxDepth) tooDeep();
        entries_.push_back(e);
    }
    [[noreturn]] void tooDeep() const;
    static std::size_t bodySize(const Entry& e);
    static const std::size_t kMaxDepth;

    // A container being sized by finish(): its entry, the values still to come, its body so far.
    struct Closing {
        std::size_t entry;
        std::uint64_t left;
        std::size_t body;
    };

    std::vector<Entry> entries_;
    std::vector<std::size_t> open_;  // the entries of the containers open around the next value
    std::vector<Closing> closing_;
    std::vector<char16_t> units_;
    std::vector<char> names_;
    std::vector<Array> arrays_;
    std::vector<std::size_t> arraySizes_;  // the codec's nested sizes of arrays_, in order
    std::size_t size_ = 0;
    std::int32_t nargout_ = 0;
};

}  // namespace foundation::protobuf::common
