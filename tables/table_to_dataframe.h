// The engine's tables and timetables -> pandas.DataFrame (layout in table_layout.h). Each variable becomes a
// column by its kind: numeric and logical N-by-1 arrays as numpy columns of their dtype, string arrays and
// char arrays as text, categoricals as pandas.Categorical, datetimes (with their zone) and durations as
// datetime64 / timedelta64 columns, dictionaries as veltra.dictionary values. A timetable's row times become a
// DatetimeIndex named after its row dimension; a table's row names, when it has any, the index.
#pragma once

#include <string>
#include <vector>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// `a` is a value object of class "table" (timetable false) or "timetable". A new DataFrame, or null with an
// error set; TypeError for variables that have no column form (nested tables, other classes, sparse arrays).
PyObject* tableToPython(const Array& a, bool timetable);

// The texts of a names array: a cell of char rows (an empty element is ""), or a string array without missing
// elements. False with ValueError naming `what` ("VELTRA table variable names") for anything else.
bool namesOf(const Array& names, const std::string& what, std::vector<pyutil::Ref>& out);

}  // namespace PythonVeltraDataArray::detail
