// numpy text arrays -> string arrays of the same shape, column-major: dtype kinds "U" (the elements as
// numpy gives them, trailing NULs dropped) and "S" (bytes, read as UTF-8), and object arrays that hold only
// text and missing values (None, NaN, pandas.NA), the missing ones as missing strings.
#pragma once

#include <Python.h>

#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// `array` is a real numpy array of kind `kind` ('U', 'S' or 'O'). For an object array holding anything else,
// nothing with no error set and `notText` true: the caller goes on as for any other array. Otherwise the
// string array, or nothing with the error set.
std::optional<Array> numpyTextArray(ArrayFactory& f, PyObject* array, char kind, const ConversionState& state,
                                    bool& notText);

// What counts as a missing element among text: None, a float NaN, pandas.NA.
bool isMissingText(PyObject* item);

}  // namespace PythonVeltraDataArray::detail
