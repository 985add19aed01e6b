// One Python number or truth value <-> a one-element numeric or logical array.
#pragma once

#include <complex>
#include <cstdint>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// The four Python-to-array scalars read their value with the C API and never look at the error indicator:
// an int beyond 64 bits leaves OverflowError pending with -1 in the array, a failing truth test leaves its
// error with true in the array. convertToArray (dispatch.h) reports such a pending error instead of the array.

// float (anything PyFloat_AsDouble takes) -> 1-by-1 DOUBLE.
class PyFloatToDouble final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// complex -> 1-by-1 COMPLEX_DOUBLE.
class PyComplexToDouble final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// int -> 1-by-1 INT64.
class PyIntToInt64 final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// Any object, by truth value -> 1-by-1 LOGICAL.
class PyBoolToLogical final : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// Element 0 of a real or complex numeric array of element type T: int or float for a real kind, complex for
// a complex kind (so a complex integer array gives a complex, never an int). ValueError "array is empty".
template <typename T>
class NumericToPyScalar final : public ConvertVDAToPyObject {
public:
    using ConvertVDAToPyObject::ConvertVDAToPyObject;
    PyObject* convert(const Array& a) override;
};

using DoubleToPyFloat = NumericToPyScalar<double>;
using SingleToPyFloat = NumericToPyScalar<float>;
using Int8ToPyLong = NumericToPyScalar<std::int8_t>;
using Uint8ToPyLong = NumericToPyScalar<std::uint8_t>;
using Int16ToPyLong = NumericToPyScalar<std::int16_t>;
using Uint16ToPyLong = NumericToPyScalar<std::uint16_t>;
using Int32ToPyLong = NumericToPyScalar<std::int32_t>;
using Uint32ToPyLong = NumericToPyScalar<std::uint32_t>;
using Int64ToPyLong = NumericToPyScalar<std::int64_t>;
using Uint64ToPyLong = NumericToPyScalar<std::uint64_t>;

// Element 0 of any real numeric array, as a double rounded half away from zero to an int. Serves numbers
// that encode points in time, hence the NaN message "conversion of VELTRA datetime scalar 'NaT' to Python not
// supported" whatever the array held.
class DoubleToPyLong final : public ConvertVDAToPyObject {
public:
    using ConvertVDAToPyObject::ConvertVDAToPyObject;
    PyObject* convert(const Array& a) override;
};

// Element 0 of a logical array as bool. TypeError for sparse arrays, ValueError "array is empty".
class LogicalToPyBool final : public ConvertVDAToPyObject {
public:
    using ConvertVDAToPyObject::ConvertVDAToPyObject;
    PyObject* convert(const Array& a) override;
};

extern template class NumericToPyScalar<double>;
extern template class NumericToPyScalar<float>;
extern template class NumericToPyScalar<std::int8_t>;
extern template class NumericToPyScalar<std::uint8_t>;
extern template class NumericToPyScalar<std::int16_t>;
extern template class NumericToPyScalar<std::uint16_t>;
extern template class NumericToPyScalar<std::int32_t>;
extern template class NumericToPyScalar<std::uint32_t>;
extern template class NumericToPyScalar<std::int64_t>;
extern template class NumericToPyScalar<std::uint64_t>;

}  // namespace PythonVeltraDataArray::detail
