// pandas categoricals <-> the engine's "categorical" value object (1x1):
//   categoryNames  K-by-1 cell of char rows: the texts of the categories the elements use, each once, in
//                  ascending byte order of their UTF-8 text
//   codes          N-by-1 unsigned integers, one per element: the 1-based position of the element's text in
//                  categoryNames, 0 for a missing element. uint8 while K < 256, then uint16, then uint32.
#pragma once

#include <Python.h>

#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// A pandas Series of dtype "category" -> the engine categorical. Categories are taken as text (str() of each);
// two categories with the same text become one name.
std::optional<Array> categoricalFromSeries(ArrayFactory& f, PyObject* series, const ConversionState& state);

// A "categorical" value object -> pandas.Categorical of its names selected by its codes (code 0: missing).
// Codes of any integer kind are read. ValueError for a code past the names, or names that repeat.
PyObject* categoricalToPython(const Array& a);

}  // namespace PythonVeltraDataArray::detail
