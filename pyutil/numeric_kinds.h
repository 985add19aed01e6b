// The ten real numeric kinds, listed once. Everything that goes kind by kind (the typed array types, the
// scalar and package-object converters, both registries) is generated from this table, so a new kind is one
// row here.
//
//   X(ArrayType enumerator, C++ element type, package type name, Python constructor of one element)
//
// The package type name is the attribute of veltramultidimarrayforpython and the name after "veltra." that
// py_pb looks up. Complex kinds are the real kind's complexTypeOf.
#pragma once

#include <cstdint>

#define VELTRA_NUMERIC_KINDS(X)                                            \
    X(DOUBLE, double, "double", PyFloat_FromDouble)                        \
    X(SINGLE, float, "single", PyFloat_FromDouble)                         \
    X(INT8, std::int8_t, "int8", PyLong_FromLong)                          \
    X(UINT8, std::uint8_t, "uint8", PyLong_FromLong)                       \
    X(INT16, std::int16_t, "int16", PyLong_FromLong)                       \
    X(UINT16, std::uint16_t, "uint16", PyLong_FromLong)                    \
    X(INT32, std::int32_t, "int32", PyLong_FromLong)                       \
    X(UINT32, std::uint32_t, "uint32", PyLong_FromUnsignedLong)            \
    X(INT64, std::int64_t, "int64", PyLong_FromLongLong)                   \
    X(UINT64, std::uint64_t, "uint64", PyLong_FromUnsignedLongLong)
