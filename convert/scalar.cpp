#include "convert/scalar.h"

#include <complex>
#include <cstring>

#include "pyutil/messages.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::complexTypeOf;
using foundation::veltradata::elementBytes;
using foundation::veltradata::isComplexType;

namespace {

constexpr char kEmpty[] = "array is empty";

template <typename T>
Array scalarArray(ArrayFactory& f, ArrayType type, const T& value) {
    return f.createArrayWithData(type, {1, 1}, &value, sizeof value);
}

// Element 0 as `T`: read where it lies when the array is exactly of `kind`, which is what the registries
// hand these converters, and through the checked element path otherwise. The caller refused empty arrays.
template <typename T>
T first(const Array& a, ArrayType kind) {
    if (a.getType() != kind) return a[0].template getValue<T>();
    T out;
    std::memcpy(&out, elementBytes(a), sizeof out);
    return out;
}

}  // namespace

std::optional<Array> PyFloatToDouble::doConvert(PyObject* obj, const ConversionState&) {
    const double value = PyFloat_AsDouble(obj);
    if (value == -1.0 && PyErr_Occurred()) return failProtocol(obj);
    return scalarArray(factory(), ArrayType::DOUBLE, value);
}

std::optional<Array> PyComplexToDouble::doConvert(PyObject* obj, const ConversionState&) {
    // Anything else that claims the name is asked for its complex value: complex(obj).
    const Ref number = PyComplex_Check(obj) ? Ref::borrow(obj)
                                            : Ref::steal(PyObject_CallFunctionObjArgs(
                                                  reinterpret_cast<PyObject*>(&PyComplex_Type), obj, nullptr));
    if (!number) return failProtocol(obj);
    const std::complex<double> value(PyComplex_RealAsDouble(number.get()), PyComplex_ImagAsDouble(number.get()));
    if (PyErr_Occurred()) return failed();
    return scalarArray(factory(), ArrayType::COMPLEX_DOUBLE, value);
}

std::optional<Array> PyIntToInt64::doConvert(PyObject* obj, const ConversionState&) {
    const std::int64_t value = PyLong_AsLongLong(obj);
    if (value == -1 && PyErr_Occurred()) return failProtocol(obj);
    return scalarArray(factory(), ArrayType::INT64, value);
}

std::optional<Array> PyBoolToLogical::doConvert(PyObject* obj, const ConversionState&) {
    const int truth = PyObject_IsTrue(obj);
    if (truth < 0) return failed();
    return scalarArray(factory(), ArrayType::LOGICAL, truth != 0);
}

template <ArrayType Kind>
PyObject* NumericToPyScalar<Kind>::doConvert(const Array& a) {
    using T = typename foundation::veltradata::NumericElement<Kind>::type;
    if (a.isEmpty()) return fail(PyExc_ValueError, kEmpty);
    if (isComplexType(a.getType())) {
        const std::complex<T> v = first<std::complex<T>>(a, complexTypeOf(Kind));
        return PyComplex_FromDoubles(static_cast<double>(v.real()), static_cast<double>(v.imag()));
    }
    return pyutil::numberToPython(first<T>(a, Kind));
}

#define VELTRA_INSTANTIATE(KIND, T, NAME) template class NumericToPyScalar<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_INSTANTIATE)
#undef VELTRA_INSTANTIATE

PyObject* LogicalToPyBool::doConvert(const Array& a) {
    if (foundation::veltradata::isSparse(a)) return fail(PyExc_TypeError, pyutil::kSparseToPython);
    if (a.isEmpty()) return fail(PyExc_ValueError, kEmpty);
    // A logical byte counts as zero or not.
    const bool v = a.getType() == ArrayType::LOGICAL ? *elementBytes(a) != 0 : a[0].getValue<bool>();
    return PyBool_FromLong(v ? 1 : 0);
}

}  // namespace PythonVeltraDataArray::detail
