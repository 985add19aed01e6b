// Whole numeric and logical arrays between Python and the array model. The element copying belongs to the
// typed array package: every converter here is a thin adapter around its capsule table (module_state.h).
#pragma once

#include "convert/converter.h"
#include "convert/numeric_kinds.h"

namespace PythonVeltraDataArray::detail {

// Base of every Python-to-array converter that goes through the capsule.
class ConvertVCPyArray : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    // Capsule entry 1 on (obj, obj, type): the package's own array for a package object, or one column-major
    // copy for a buffer handle. Absent with TypeError "capsule is null" / "capsule unable to retrieve object
    // contents".
    static std::optional<Array> fromCapsule(PyObject* obj, ArrayType type);
    // Entries 2, 1, 3: acquire the buffer, copy it, release the buffer handle on every path.
    static std::optional<Array> fromBuffer(PyObject* obj);
};

// A package object of the numeric kind `Kind` (veltra.double, veltra.int16, ...): `_is_complex` picks the
// real or the complex kind. Named per kind in numeric_kinds.h (VCPyDoubleToDouble, ...).
template <ArrayType Kind>
class VCPyTypedToTyped final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

#define VELTRA_DECLARE(KIND, T, NAME, TO_PYTHON) extern template class VCPyTypedToTyped<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_DECLARE)
#undef VELTRA_DECLARE

// veltra.logical: always LOGICAL; `_is_complex` is not read.
class VCPyLogicalToLogical final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// memoryview and any other object the capsule reads as a buffer; the capsule reports the element kind.
class BufferProtocolObjectToBuffer final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// numpy.ndarray: datetime64 / timedelta64 go to the time converters, every other dtype through the buffer path.
class NumpyNDArrayObjectToBuffer final : public ConvertVCPyArray {
public:
    using ConvertVCPyArray::ConvertVCPyArray;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

// Numeric (and logical) arrays of other than one element -> a package object holding the same storage.
class ConvertVDAToVCPyArray final : public ToPythonConverter {
public:
    using ToPythonConverter::ToPythonConverter;

protected:
    PyObject* doConvert(const Array& a) override;
};

}  // namespace PythonVeltraDataArray::detail
