// The converters of the ten real numeric kinds, by the names the rest of the system knows them by. Both
// families are templates over the kind (pyutil/numeric_kinds.h lists the kinds): these aliases only name them.
#pragma once

#include "convert/converter.h"
#include "pyutil/numeric_kinds.h"

namespace PythonVeltraDataArray::detail {

// Per real numeric kind: its C++ element type, its package type name ("double") and the Python object of one
// element (int or float).
template <ArrayType Kind> struct NumericKind;
#define VELTRA_NUMERIC_KIND_TRAIT(KIND, T, NAME, TO_PYTHON)                   \
    template <> struct NumericKind<ArrayType::KIND> {                         \
        using type = T;                                                       \
        static constexpr const char* packageName = NAME;                      \
        static PyObject* toPython(T v) { return TO_PYTHON(v); }               \
    };
VELTRA_NUMERIC_KINDS(VELTRA_NUMERIC_KIND_TRAIT)
#undef VELTRA_NUMERIC_KIND_TRAIT

// Element 0 of a one-element real or complex array of the kind -> int, float or complex (scalar.h).
template <ArrayType Kind> class NumericToPyScalar;
// A package object (veltra.double, veltra.int8, ...) -> its array, real or complex (numeric.h).
template <ArrayType Kind> class VCPyTypedToTyped;

using DoubleToPyFloat = NumericToPyScalar<ArrayType::DOUBLE>;
using SingleToPyFloat = NumericToPyScalar<ArrayType::SINGLE>;
using Int8ToPyLong = NumericToPyScalar<ArrayType::INT8>;
using Uint8ToPyLong = NumericToPyScalar<ArrayType::UINT8>;
using Int16ToPyLong = NumericToPyScalar<ArrayType::INT16>;
using Uint16ToPyLong = NumericToPyScalar<ArrayType::UINT16>;
using Int32ToPyLong = NumericToPyScalar<ArrayType::INT32>;
using Uint32ToPyLong = NumericToPyScalar<ArrayType::UINT32>;
using Int64ToPyLong = NumericToPyScalar<ArrayType::INT64>;
using Uint64ToPyLong = NumericToPyScalar<ArrayType::UINT64>;

using VCPyDoubleToDouble = VCPyTypedToTyped<ArrayType::DOUBLE>;
using VCPySingleToSingle = VCPyTypedToTyped<ArrayType::SINGLE>;
using VCPyInt8ToInt8 = VCPyTypedToTyped<ArrayType::INT8>;
using VCPyUint8ToUint8 = VCPyTypedToTyped<ArrayType::UINT8>;
using VCPyInt16ToInt16 = VCPyTypedToTyped<ArrayType::INT16>;
using VCPyUint16ToUint16 = VCPyTypedToTyped<ArrayType::UINT16>;
using VCPyInt32ToInt32 = VCPyTypedToTyped<ArrayType::INT32>;
using VCPyUint32ToUint32 = VCPyTypedToTyped<ArrayType::UINT32>;
using VCPyInt64ToInt64 = VCPyTypedToTyped<ArrayType::INT64>;
using VCPyUint64ToUint64 = VCPyTypedToTyped<ArrayType::UINT64>;

}  // namespace PythonVeltraDataArray::detail
