// Converters that only refuse: a null object and None.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// RuntimeError "passing null Python object pointer to VELTRA not supported" (the base refuses a null object
// before doConvert, with the same error).
VELTRA_TO_ARRAY_CONVERTER(NullToError);

// TypeError "passing 'None' to VELTRA not supported".
VELTRA_TO_ARRAY_CONVERTER(PyNoneToError);

}  // namespace PythonVeltraDataArray::detail
