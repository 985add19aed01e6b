// Whole numeric and logical arrays between Python and the array model. The element copying belongs to the
// typed array package: every converter here is a thin adapter around its capsule table (module_state.h).
#pragma once

#include "convert/converter.h"
#include "pyutil/numbers.h"

namespace PythonVeltraDataArray::detail {

// A package object of the numeric kind `Kind` (veltra.double, veltra.int16, ...): `_is_complex` picks the
// real or the complex kind.
template <ArrayType Kind>
VELTRA_TO_ARRAY_CONVERTER(VCPyTypedToTyped);

#define VELTRA_DECLARE(KIND, T, NAME) extern template class VCPyTypedToTyped<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_DECLARE)
#undef VELTRA_DECLARE

// veltra.logical: always LOGICAL; `_is_complex` is not read.
VELTRA_TO_ARRAY_CONVERTER(VCPyLogicalToLogical);

// memoryview and any other object the capsule reads as a buffer; the capsule reports the element kind.
VELTRA_TO_ARRAY_CONVERTER(BufferProtocolObjectToBuffer);

// numpy.ndarray: datetime64 / timedelta64 go to the time converters, every other dtype through the buffer path.
VELTRA_TO_ARRAY_CONVERTER(NumpyNDArrayObjectToBuffer);

// Numeric (and logical) arrays of other than one element -> a package object holding the same storage.
VELTRA_TO_PYTHON_CONVERTER(ConvertVDAToVCPyArray);

}  // namespace PythonVeltraDataArray::detail
