#include "convert/scalar.h"

#include <cmath>
#include <cstring>
#include <string>
#include <type_traits>

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::isComplexType;
using foundation::veltradata::isSparse;

namespace {

const std::string kEmpty = "array is empty";
const std::string kNaT = "conversion of VELTRA datetime scalar 'NaT' to Python not supported";
const std::string kSparse = "conversion of VELTRA sparse array to Python not supported";

template <typename T>
Array scalarArray(ArrayFactory& f, ArrayType type, const T& value) {
    return f.createArrayWithData(type, {1, 1}, &value, sizeof value);
}

template <typename T>
PyObject* pyNumber(T v) {
    if constexpr (std::is_floating_point_v<T>) {
        return PyFloat_FromDouble(static_cast<double>(v));
    } else if constexpr (std::is_same_v<T, std::uint64_t>) {
        return PyLong_FromUnsignedLongLong(v);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
        return PyLong_FromLongLong(v);
    } else if constexpr (std::is_same_v<T, std::uint32_t>) {
        return PyLong_FromUnsignedLong(v);
    } else {
        return PyLong_FromLong(static_cast<long>(v));
    }
}

// Element 0 read straight from the element buffer when the array's kind is exactly that of `Want`, which is
// what the registries hand these converters; false otherwise, and the caller takes the checked element path.
// The caller has already refused an empty array.
template <typename Want>
bool readFirst(const Array& a, Want& out) {
    if (a.getType() != foundation::veltradata::ElementKind<Want>::value) return false;
    // Read only: the buffer is not detached from other holders.
    const std::uint8_t* p = foundation::veltradata::detail::rawData(const_cast<Array&>(a), false);
    if constexpr (std::is_same_v<Want, bool>) {
        out = *p != 0;  // a logical byte counts as zero or not
    } else {
        std::memcpy(&out, p, sizeof out);
    }
    return true;
}

}  // namespace

std::optional<Array> PyFloatToDouble::convert(PyObject* obj, const ConversionState&) {
    if (!obj) return std::nullopt;
    return scalarArray(factory(), ArrayType::DOUBLE, PyFloat_AsDouble(obj));
}

std::optional<Array> PyComplexToDouble::convert(PyObject* obj, const ConversionState&) {
    if (!obj) return std::nullopt;
    const std::complex<double> value(PyComplex_RealAsDouble(obj), PyComplex_ImagAsDouble(obj));
    return scalarArray(factory(), ArrayType::COMPLEX_DOUBLE, value);
}

std::optional<Array> PyIntToInt64::convert(PyObject* obj, const ConversionState&) {
    if (!obj) return std::nullopt;
    const std::int64_t value = PyLong_AsLongLong(obj);
    return scalarArray(factory(), ArrayType::INT64, value);
}

std::optional<Array> PyBoolToLogical::convert(PyObject* obj, const ConversionState&) {
    if (!obj) return std::nullopt;
    const bool value = PyObject_IsTrue(obj) != 0;
    return scalarArray(factory(), ArrayType::LOGICAL, value);
}

template <typename T>
PyObject* NumericToPyScalar<T>::convert(const Array& a) {
    if (a.isEmpty()) {
        PyErr_SetString(PyExc_ValueError, kEmpty.c_str());
        return nullptr;
    }
    if (isComplexType(a.getType())) {
        std::complex<T> v;
        if (!readFirst(a, v)) v = a[0].template getValue<std::complex<T>>();
        return PyComplex_FromDoubles(static_cast<double>(v.real()), static_cast<double>(v.imag()));
    }
    T v;
    if (!readFirst(a, v)) v = a[0].template getValue<T>();
    return pyNumber<T>(v);
}

template class NumericToPyScalar<double>;
template class NumericToPyScalar<float>;
template class NumericToPyScalar<std::int8_t>;
template class NumericToPyScalar<std::uint8_t>;
template class NumericToPyScalar<std::int16_t>;
template class NumericToPyScalar<std::uint16_t>;
template class NumericToPyScalar<std::int32_t>;
template class NumericToPyScalar<std::uint32_t>;
template class NumericToPyScalar<std::int64_t>;
template class NumericToPyScalar<std::uint64_t>;

PyObject* DoubleToPyLong::convert(const Array& a) {
    if (a.isEmpty()) {
        PyErr_SetString(PyExc_ValueError, kEmpty.c_str());
        return nullptr;
    }
    const double v = a[0].castTo<double>();
    if (std::isnan(v)) {
        PyErr_SetString(PyExc_ValueError, kNaT.c_str());
        return nullptr;
    }
    return PyLong_FromLongLong(std::llround(v));
}

PyObject* LogicalToPyBool::convert(const Array& a) {
    if (isSparse(a)) {
        PyErr_SetString(PyExc_TypeError, kSparse.c_str());
        return nullptr;
    }
    if (a.isEmpty()) {
        PyErr_SetString(PyExc_ValueError, kEmpty.c_str());
        return nullptr;
    }
    bool v;
    if (!readFirst(a, v)) v = a[0].getValue<bool>();
    return PyBool_FromLong(v ? 1 : 0);
}

}  // namespace PythonVeltraDataArray::detail
