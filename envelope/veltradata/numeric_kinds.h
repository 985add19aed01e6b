// The ten real numeric kinds, listed once:
//
//   X(ArrayType enumerator, C++ element type, name)
//
// in the enumeration's order. The name is the engine's class of such an array ("double", "int8"), which is also
// what the typed array types are called. Each complex kind is complexTypeOf its real kind, with std::complex of
// the same element type. Whatever goes kind by kind, here and in the extensions, is generated from this list:
// a column of its own (a format code, a dtype, a Python constructor) is a function of the row, not another list.
#pragma once

#include <cstdint>

#define VELTRA_NUMERIC_KINDS(X)            \
    X(DOUBLE, double, "double")            \
    X(SINGLE, float, "single")             \
    X(INT8, std::int8_t, "int8")           \
    X(UINT8, std::uint8_t, "uint8")        \
    X(INT16, std::int16_t, "int16")        \
    X(UINT16, std::uint16_t, "uint16")     \
    X(INT32, std::int32_t, "int32")        \
    X(UINT32, std::uint32_t, "uint32")     \
    X(INT64, std::int64_t, "int64")        \
    X(UINT64, std::uint64_t, "uint64")
