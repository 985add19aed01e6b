// One Python number or truth value <-> a one-element numeric or logical array.
#pragma once

#include "convert/converter.h"
#include "pyutil/numbers.h"

namespace PythonVeltraDataArray::detail {

// float (anything PyFloat_AsDouble takes) -> 1-by-1 DOUBLE.
VELTRA_TO_ARRAY_CONVERTER(PyFloatToDouble);

// complex (anything PyComplex_RealAsDouble takes) -> 1-by-1 COMPLEX_DOUBLE.
VELTRA_TO_ARRAY_CONVERTER(PyComplexToDouble);

// int -> 1-by-1 INT64; OverflowError beyond 64 bits.
VELTRA_TO_ARRAY_CONVERTER(PyIntToInt64);

// Any object, by truth value -> 1-by-1 LOGICAL; a failing truth test's error is passed on.
VELTRA_TO_ARRAY_CONVERTER(PyBoolToLogical);

// Element 0 of a real or complex array of the numeric kind `Kind` (or its complex kind): int or float for
// the real kind, complex for the complex one (so a complex integer array gives a complex, never an int).
// ValueError "array is empty".
template <ArrayType Kind>
VELTRA_TO_PYTHON_CONVERTER(NumericToPyScalar);

#define VELTRA_DECLARE(KIND, T, NAME) extern template class NumericToPyScalar<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_DECLARE)
#undef VELTRA_DECLARE

// Element 0 of a logical array as bool. TypeError for sparse arrays, ValueError "array is empty".
VELTRA_TO_PYTHON_CONVERTER(LogicalToPyBool);

}  // namespace PythonVeltraDataArray::detail
