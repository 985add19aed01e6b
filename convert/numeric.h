// Whole numeric and logical arrays between Python and the array model. The element copying belongs to the
// typed array package: every converter here is a thin adapter around its capsule table (module_state.h).
#pragma once

#include <Python.h>

#include <memory>
#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// Base of every Python-to-array converter that goes through the capsule.
class ConvertVCPyArray : public ConvertToVeltraDataArray {
public:
    using ConvertToVeltraDataArray::ConvertToVeltraDataArray;

protected:
    // Capsule entry 1 on (obj, obj, type): the package's own array for a package object, or one column-major
    // copy for a buffer handle. Absent with TypeError "capsule is null" / "capsule unable to retrieve object
    // contents".
    static std::optional<Array> fromCapsule(PyObject* obj, ArrayType type);
    // Entries 2, 1, 3: acquire the buffer, copy it, release the buffer handle on every path.
    static std::optional<Array> fromBuffer(PyObject* obj);
};

// A package object (veltra.double, veltra.int16, ...): `_is_complex` picks the real or the complex kind.
template <ArrayType Real, ArrayType Complex>
class VCPyTypedToTyped : public ConvertVCPyArray {
public:
    explicit VCPyTypedToTyped(std::shared_ptr<ArrayFactory> factory) : ConvertVCPyArray(std::move(factory)) {}
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

#define VELTRA_VCPY_CONVERTER(Name, Real, Complex)                                                  \
    class Name final : public VCPyTypedToTyped<ArrayType::Real, ArrayType::Complex> {             \
    public:                                                                                       \
        using VCPyTypedToTyped<ArrayType::Real, ArrayType::Complex>::VCPyTypedToTyped;              \
    }

VELTRA_VCPY_CONVERTER(VCPyDoubleToDouble, DOUBLE, COMPLEX_DOUBLE);
VELTRA_VCPY_CONVERTER(VCPySingleToSingle, SINGLE, COMPLEX_SINGLE);
VELTRA_VCPY_CONVERTER(VCPyInt8ToInt8, INT8, COMPLEX_INT8);
VELTRA_VCPY_CONVERTER(VCPyUint8ToUint8, UINT8, COMPLEX_UINT8);
VELTRA_VCPY_CONVERTER(VCPyInt16ToInt16, INT16, COMPLEX_INT16);
VELTRA_VCPY_CONVERTER(VCPyUint16ToUint16, UINT16, COMPLEX_UINT16);
VELTRA_VCPY_CONVERTER(VCPyInt32ToInt32, INT32, COMPLEX_INT32);
VELTRA_VCPY_CONVERTER(VCPyUint32ToUint32, UINT32, COMPLEX_UINT32);
VELTRA_VCPY_CONVERTER(VCPyInt64ToInt64, INT64, COMPLEX_INT64);
VELTRA_VCPY_CONVERTER(VCPyUint64ToUint64, UINT64, COMPLEX_UINT64);

#undef VELTRA_VCPY_CONVERTER

// veltra.logical: always LOGICAL; `_is_complex` is not read.
class VCPyLogicalToLogical final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// memoryview and any other object the capsule reads as a buffer; the capsule reports the element kind.
class BufferProtocolObjectToBuffer final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// numpy.ndarray: datetime64 / timedelta64 go to the time converters, every other dtype through the buffer path.
class NumpyNDArrayObjectToBuffer final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;
    std::optional<Array> convert(PyObject* obj, const ConversionState& state) override;
};

// Numeric (and logical) arrays of other than one element -> a package object holding the same storage.
class ConvertVDAToVCPyArray final : public ConvertVDAToPyObject {
public:
    using ConvertVDAToPyObject::ConvertVDAToPyObject;
    PyObject* convert(const Array& a) override;
};

extern template class VCPyTypedToTyped<ArrayType::DOUBLE, ArrayType::COMPLEX_DOUBLE>;
extern template class VCPyTypedToTyped<ArrayType::SINGLE, ArrayType::COMPLEX_SINGLE>;
extern template class VCPyTypedToTyped<ArrayType::INT8, ArrayType::COMPLEX_INT8>;
extern template class VCPyTypedToTyped<ArrayType::UINT8, ArrayType::COMPLEX_UINT8>;
extern template class VCPyTypedToTyped<ArrayType::INT16, ArrayType::COMPLEX_INT16>;
extern template class VCPyTypedToTyped<ArrayType::UINT16, ArrayType::COMPLEX_UINT16>;
extern template class VCPyTypedToTyped<ArrayType::INT32, ArrayType::COMPLEX_INT32>;
extern template class VCPyTypedToTyped<ArrayType::UINT32, ArrayType::COMPLEX_UINT32>;
extern template class VCPyTypedToTyped<ArrayType::INT64, ArrayType::COMPLEX_INT64>;
extern template class VCPyTypedToTyped<ArrayType::UINT64, ArrayType::COMPLEX_UINT64>;

}  // namespace PythonVeltraDataArray::detail
