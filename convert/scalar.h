// One Python number or truth value <-> a one-element numeric or logical array.
#pragma once

#include "convert/converter.h"
#include "convert/numeric_kinds.h"

namespace PythonVeltraDataArray::detail {

// float (anything PyFloat_AsDouble takes) -> 1-by-1 DOUBLE.
class PyFloatToDouble final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// complex (anything PyComplex_RealAsDouble takes) -> 1-by-1 COMPLEX_DOUBLE.
class PyComplexToDouble final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// int -> 1-by-1 INT64; OverflowError beyond 64 bits.
class PyIntToInt64 final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// Any object, by truth value -> 1-by-1 LOGICAL; a failing truth test's error is passed on.
class PyBoolToLogical final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// Element 0 of a real or complex array of the numeric kind `Kind` (or its complex kind): int or float for
// the real kind, complex for the complex one (so a complex integer array gives a complex, never an int).
// ValueError "array is empty". Named per kind in numeric_kinds.h (DoubleToPyFloat, Int8ToPyLong, ...).
template <ArrayType Kind>
class NumericToPyScalar final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

#define VELTRA_DECLARE(KIND, T, NAME, TO_PYTHON) extern template class NumericToPyScalar<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_DECLARE)
#undef VELTRA_DECLARE

// Element 0 of a logical array as bool. TypeError for sparse arrays, ValueError "array is empty".
class LogicalToPyBool final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

}  // namespace PythonVeltraDataArray::detail
