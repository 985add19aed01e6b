// The engine's table and timetable value objects, as we write and read them. The engine rebuilds its tables
// from saved fields, so a table is written as those fields with fixed versions and empty defaults, and only
// the data, the names and the sizes filled in:
//  - "table": a 1x1 value object whose properties are data (1-by-N cell of N-by-1 variables), ndims, nrows,
//    nvars, rowDim, rownames, varnames (1-by-N cell of char rows) and props, in that order;
//  - "timetable": a 1x1 value object with one property, __CustomSave, a 1x1 struct of 25 fields in a fixed
//    order, among them data, varNames, rowTimes (an engine datetime) and dimNames (the row-time name, then
//    the variables' name).
// The variables' dimension name ("Variables" unless the DataFrame's columns axis has a name) is the second of
// a table's props.DimensionNames and of a timetable's dimNames.
// docs/wire-format.md describes both for peers.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayFactory;

struct TableColumns {
    std::vector<Array> names;  // one char row per variable
    std::vector<Array> data;   // one N-by-1 array (or value object) per variable
    std::uint64_t rows = 0;
    // The char row naming the variables dimension (the DataFrame's columns axis); "Variables" when absent.
    std::optional<Array> variablesName;
};

Array makeTable(ArrayFactory& f, TableColumns columns);
// `rowTimesName` is the char row naming the row dimension.
Array makeTimetable(ArrayFactory& f, TableColumns columns, Array rowTimes, Array rowTimesName);

// What a table or timetable holds, as read back. Absent members were not in the message.
struct TableParts {
    std::optional<Array> data, names, rowNames, rowTimes, dimNames, rows;  // dimNames: a timetable's, or a table's
                                                                          // props.DimensionNames
};
// Reads the parts of a 1x1 "table" or "timetable" value object: a timetable's from __CustomSave, a table's
// from its own properties (or from a __CustomSave struct, when it carries one).
TableParts readTableParts(const Array& table, bool timetable);

}  // namespace PythonVeltraDataArray::detail
