// Converters that only refuse: a null object, None, and the types whose conversions arrive in later work.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// RuntimeError "passing null Python object pointer to VELTRA not supported" (the base refuses a null object
// before doConvert, with the same error).
VELTRA_TO_ARRAY_CONVERTER(NullToError);

// TypeError "passing 'None' to VELTRA not supported".
VELTRA_TO_ARRAY_CONVERTER(PyNoneToError);

// Holds the registry place of a type whose converter is not part of the module yet (veltra.object,
// veltra.dictionary and other mappings, DataFrames): refuses with the unsupported-type TypeError
// naming the object's type, so such values are never converted wrongly by a fallback.
VELTRA_TO_ARRAY_CONVERTER(NotYetConvertible);

}  // namespace PythonVeltraDataArray::detail
