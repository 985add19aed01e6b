// The converters of the real numeric kinds. Both families are templates over the kind and generated from the
// one list of kinds (veltradata/numeric_kinds.h); the aliases name the instances used by name elsewhere.
#pragma once

#include "convert/converter.h"
#include "pyutil/numeric_kinds.h"

namespace PythonVeltraDataArray::detail {

// Per real numeric kind: its C++ element type and the Python object of one element (int or float).
template <ArrayType Kind>
struct NumericKind {
    using type = typename foundation::veltradata::NumericElement<Kind>::type;
    static PyObject* toPython(type v) { return pyutil::numberToPython(v); }
};

// Element 0 of a one-element real or complex array of the kind -> int, float or complex (scalar.h).
template <ArrayType Kind> class NumericToPyScalar;
// A package object (veltra.double, veltra.int8, ...) -> its array, real or complex (numeric.h).
template <ArrayType Kind> class VCPyTypedToTyped;

using Int64ToPyLong = NumericToPyScalar<ArrayType::INT64>;

}  // namespace PythonVeltraDataArray::detail
