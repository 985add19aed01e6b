// The kinds of array, with the numeric values that travel in messages and appear in error texts.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "numeric_kinds.h"

namespace foundation::veltradata {

enum class ArrayType : int {
    UNKNOWN = 0,
    LOGICAL = 1,
    CHAR = 2,
    VELTRA_STRING = 3,
    DOUBLE = 4,
    SINGLE = 5,
    INT8 = 6,
    UINT8 = 7,
    INT16 = 8,
    UINT16 = 9,
    INT32 = 10,
    UINT32 = 11,
    INT64 = 12,
    UINT64 = 13,
    COMPLEX_DOUBLE = 14,
    COMPLEX_SINGLE = 15,
    COMPLEX_INT8 = 16,
    COMPLEX_UINT8 = 17,
    COMPLEX_INT16 = 18,
    COMPLEX_UINT16 = 19,
    COMPLEX_INT32 = 20,
    COMPLEX_UINT32 = 21,
    COMPLEX_INT64 = 22,
    COMPLEX_UINT64 = 23,
    CELL = 24,
    STRUCT = 25,
    CLASSIC_OBJECT = 26,
    VALUE_OBJECT = 27,
    HANDLE_OBJECT_REF = 28,
    ENUM = 29,
    SPARSE_30 = 30,  // sparse double
    SPARSE_31 = 31,  // sparse logical
    SPARSE_32 = 32,  // sparse complex double
};

constexpr int kMaxArrayType = 32;

// A missing string is distinct from an empty one.
using VeltraString = std::optional<std::u16string>;

constexpr bool isComplexType(ArrayType t) {
    return t >= ArrayType::COMPLEX_DOUBLE && t <= ArrayType::COMPLEX_UINT64;
}
constexpr bool isRealNumericType(ArrayType t) {
    return t >= ArrayType::DOUBLE && t <= ArrayType::UINT64;
}
constexpr bool isIntegerType(ArrayType t) {
    return t >= ArrayType::INT8 && t <= ArrayType::UINT64;
}
constexpr bool isSparseType(ArrayType t) {
    return t >= ArrayType::SPARSE_30 && t <= ArrayType::SPARSE_32;
}
// Real and complex numeric kinds and logical: the kinds a numeric typed array can hold.
constexpr bool isNumericOrLogicalType(ArrayType t) {
    return t == ArrayType::LOGICAL || isRealNumericType(t) || isComplexType(t);
}
// Kinds whose elements live in one contiguous raw buffer.
constexpr bool isRawBufferType(ArrayType t) { return t == ArrayType::CHAR || isNumericOrLogicalType(t); }
constexpr bool isValidArrayType(int v) {
    return v >= 0 && v <= kMaxArrayType;
}

// The real kind underlying a complex kind (COMPLEX_INT16 -> INT16); other kinds map to themselves.
constexpr ArrayType realTypeOf(ArrayType t) {
    return isComplexType(t) ? static_cast<ArrayType>(static_cast<int>(t) - 10) : t;
}
constexpr ArrayType complexTypeOf(ArrayType t) {
    return isRealNumericType(t) ? static_cast<ArrayType>(static_cast<int>(t) + 10) : t;
}

// The real numeric kinds in the enumeration's order, and each one's C++ element type
// (NumericElement<ArrayType::INT16>::type is std::int16_t).
inline constexpr ArrayType kNumericKinds[] = {
#define VELTRA_KIND(KIND, T, NAME) ArrayType::KIND,
    VELTRA_NUMERIC_KINDS(VELTRA_KIND)
#undef VELTRA_KIND
};
template <ArrayType Kind> struct NumericElement;
#define VELTRA_NUMERIC_ELEMENT(KIND, T, NAME)                                                    \
    template <> struct NumericElement<ArrayType::KIND> { using type = T; };                      \
    static_assert(complexTypeOf(ArrayType::KIND) == ArrayType::COMPLEX_##KIND &&                 \
                  realTypeOf(ArrayType::COMPLEX_##KIND) == ArrayType::KIND, "complex kind of " #KIND);
VELTRA_NUMERIC_KINDS(VELTRA_NUMERIC_ELEMENT)
#undef VELTRA_NUMERIC_ELEMENT

namespace detail {
constexpr bool listsRealRange() {
    int next = static_cast<int>(ArrayType::DOUBLE);
    for (ArrayType t : kNumericKinds)
        if (static_cast<int>(t) != next++) return false;
    return next == static_cast<int>(ArrayType::UINT64) + 1;
}
}  // namespace detail
static_assert(detail::listsRealRange(), "VELTRA_NUMERIC_KINDS lists DOUBLE ... UINT64 in order");

// The name of a real numeric kind ("double", "int8"); nullptr for every other kind.
constexpr const char* numericKindName(ArrayType t) {
    switch (t) {
#define VELTRA_NAME(KIND, T, NAME) case ArrayType::KIND: return NAME;
        VELTRA_NUMERIC_KINDS(VELTRA_NAME)
#undef VELTRA_NAME
        default: return nullptr;
    }
}

// Bytes per element for raw-buffer kinds (complex kinds hold real and imaginary parts), 0 otherwise.
constexpr std::size_t elementSize(ArrayType t) {
    const std::size_t parts = isComplexType(t) ? 2 : 1;
    switch (realTypeOf(t)) {
        case ArrayType::LOGICAL: return 1;
        case ArrayType::CHAR: return 2;
#define VELTRA_SIZE(KIND, T, NAME) case ArrayType::KIND: return parts * sizeof(T);
        VELTRA_NUMERIC_KINDS(VELTRA_SIZE)
#undef VELTRA_SIZE
        default: return 0;
    }
}

// Member name as printed by the debugging dump ("DOUBLE"); "" for values outside the enumeration.
const char* arrayTypeName(ArrayType t);

// The debugging dump: a header line "   Compare to: " and one line per member 1..25 and 27.
std::string arrayTypeTable();

}  // namespace foundation::veltradata
