// pandas string columns held in pyarrow's format (pandas 3's default when pyarrow is installed, and
// "string[pyarrow]"), read from pyarrow's own buffers through the buffer protocol: offsets, UTF-8 bytes and the
// validity bitmap, without a Python str per element and without linking pyarrow.
#pragma once

#include <Python.h>

#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// The column as an N-by-1 string array, missing values missing. Nothing with no error set when the column is
// not held so (or in a layout not read here): the caller then takes the general path.
std::optional<Array> arrowStringColumn(ArrayFactory& f, PyObject* series, const ConversionState& state);

}  // namespace PythonVeltraDataArray::detail
