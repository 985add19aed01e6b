// bytes and bytearray -> 1-by-N UINT8 row vectors. There is no way back: UINT8 results are numeric arrays.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

VELTRA_TO_ARRAY_CONVERTER(PyBytesToUint8);

VELTRA_TO_ARRAY_CONVERTER(PyByteArrayToUint8);

}  // namespace PythonVeltraDataArray::detail
