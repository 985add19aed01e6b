// pandas DataFrames -> the engine's "table", or "timetable" when a column holds datetimes (table_layout.h).
//
// Each column becomes one N-by-1 variable:
//   numeric and bool columns          the numeric or logical array (nullable integer, float and boolean
//                                     columns too; integers with missing values as doubles with NaN, booleans
//                                     with missing values refused)
//   text (object columns of str and missing values, "string" and "str" dtypes)
//                                     a string array, missing values as missing strings
//   datetime64 (with or without zone) an engine datetime in the text form; a zone travels as TimeZone and the
//                                     texts are the wall-clock times in it
//   timedelta64                       an engine duration
//   category                          an engine categorical (categorical.h)
// The first datetime column is the timetable's row times. An index other than the default 0..n-1 becomes
// columns first (reset_index), so a DatetimeIndex gives the row times. Every refusal names the column.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

VELTRA_TO_ARRAY_CONVERTER(PyDataFrameToTable);

}  // namespace PythonVeltraDataArray::detail
