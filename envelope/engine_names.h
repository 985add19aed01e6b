// The engine's names for the classes we write and read, and for those classes' properties and saved fields, as
// they travel in messages. Each is spelt here once; an error text that mentions a class inside a sentence may
// keep the word as it reads.
#pragma once

namespace foundation::veltradata::engine {

// A point in time, in one of two forms (convert/datetime.h).
namespace datetime {
inline constexpr char kClass[] = "datetime";
inline constexpr char kTimeZone[] = "TimeZone";      // the zone's name, a "+HH:MM:SS" offset, or "" for none
inline constexpr char kYear[] = "Year";              // field form: the calendar year
inline constexpr char kMonth[] = "Month";            // field form: 1 ... 12
inline constexpr char kDay[] = "Day";                // field form: day of the month
inline constexpr char kHour[] = "Hour";              // field form: 0 ... 23
inline constexpr char kMinute[] = "Minute";          // field form: 0 ... 59
inline constexpr char kSecond[] = "Second";          // field form: seconds with their fraction
inline constexpr char kDateString[] = "DateString";  // text form: the ISO text of each element
}  // namespace datetime

// A length of time.
namespace duration {
inline constexpr char kClass[] = "duration";
inline constexpr char kMillis[] = "millis";  // its one property: milliseconds, as doubles
}  // namespace duration

// Keys mapped to values.
namespace dictionary {
inline constexpr char kClass[] = "dictionary";
inline constexpr char kVersion[] = "Version";                  // layout version
inline constexpr char kIsKeyCombined[] = "IsKeyCombined";      // keys held in one array
inline constexpr char kIsValueCombined[] = "IsValueCombined";  // values held in one array
inline constexpr char kValue[] = "Value";    // the contents: a 1x1 struct of Keys and Values, or a char text when empty
inline constexpr char kKeys[] = "Keys";      // field of Value: the keys, one array
inline constexpr char kValues[] = "Values";  // field of Value: the values, a cell (or one value for every key)
}  // namespace dictionary

// A pandas categorical's counterpart.
namespace categorical {
inline constexpr char kClass[] = "categorical";
inline constexpr char kCategoryNames[] = "categoryNames";  // the category texts, a cell
inline constexpr char kCodes[] = "codes";                  // per element: 1-based position in categoryNames, 0 missing
}  // namespace categorical

// A table of named variables (tables/table_layout.h). Its properties, in the order they are written, and what is
// read from them; a saved-field struct of a table uses the same names.
namespace table {
inline constexpr char kClass[] = "table";
inline constexpr char kData[] = "data";          // the variables, a 1-by-N cell (also a timetable's saved field)
inline constexpr char kNdims[] = "ndims";        // number of dimensions
inline constexpr char kNrows[] = "nrows";        // number of rows
inline constexpr char kNvars[] = "nvars";        // number of variables
inline constexpr char kRowDim[] = "rowDim";      // the row dimension's description, a struct
inline constexpr char kRownames[] = "rownames";  // the row names, a cell (empty for none)
inline constexpr char kVarnames[] = "varnames";  // the variable names, a 1-by-N cell
inline constexpr char kProps[] = "props";        // the table's properties, a struct
inline constexpr char kDimensionNames[] = "DimensionNames";  // field of props: the two dimensions' names
inline constexpr char kRowDimension[] = "Row";               // the row dimension's default name
inline constexpr char kVariablesDimension[] = "Variables";   // the variables dimension's default name
}  // namespace table

// A table whose rows are points in time. Everything it holds is in one struct of saved fields.
namespace timetable {
inline constexpr char kClass[] = "timetable";
inline constexpr char kCustomSave[] = "__CustomSave";  // its one property: the struct of saved fields
inline constexpr char kVarNames[] = "varNames";        // saved field: the variable names, a 1-by-N cell
inline constexpr char kNumRows[] = "numRows";          // saved field: number of rows
inline constexpr char kRowTimes[] = "rowTimes";        // saved field: the row times, a datetime
inline constexpr char kDimNames[] = "dimNames";        // saved field: the row times' name, then the variables'
}  // namespace timetable

}  // namespace foundation::veltradata::engine
