#include "tables/table_layout.h"

#include <string>
#include <utility>

#include "envelope/engine_names.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::ArrayType;
using foundation::veltradata::StructArray;
using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
namespace engine = foundation::veltradata::engine;

// Counts travel as doubles; every count we have fits a double's exact range long before it matters.
Array count(ArrayFactory& f, std::uint64_t n) { return f.createScalar<double>(static_cast<double>(n)); }

// The constants every table shares, made once. Arrays are values: each table gets its own copy on write.
struct Constants {
    Array no, yes, four, one, two, seven, versionTwo, variables, row, text, duplicateId, emptyChar, emptyCell,
        emptyRow, emptyDouble, noFields, subsType, dimensionNames;
    explicit Constants(ArrayFactory& f) {
        no = f.createScalar<bool>(false);
        yes = f.createScalar<bool>(true);
        four = f.createScalar<double>(4);
        one = f.createScalar<double>(1);
        two = f.createScalar<double>(2);
        seven = f.createScalar<double>(7);
        versionTwo = f.createScalar<std::int32_t>(2);
        variables = f.createCharArray(std::string(engine::table::kVariablesDimension));
        row = f.createCharArray(std::string(engine::table::kRowDimension));
        text = f.createCharArray(std::string("text"));
        duplicateId = f.createCharArray(std::string("VELTRA:table:DuplicateRowNames"));
        emptyChar = f.createCharArray(std::string());
        emptyCell = f.createCellArray({0, 0});
        emptyRow = f.createCellArray({1, 0});
        emptyDouble = f.createArray(ArrayType::DOUBLE, {0, 0});
        noFields = f.createStructArray({1, 1}, {});
        StructArray s = f.createStructArray({1, 1}, {"reference", "forwardedReference", "assignment", "deletion"});
        const char* names[] = {"reference", "forwardedReference", "assignment", "deletion"};
        for (int k = 0; k < 4; ++k) s[0][names[k]] = Array(f.createScalar<double>(k));
        subsType = std::move(s);
        dimensionNames = f.createCellArray({1, 2}, {row, variables});
    }
};
const Constants& constants(ArrayFactory& f) {
    static const Constants kConstants(f);
    return kConstants;
}

Array rowCell(ArrayFactory& f, std::vector<Array> elements) {
    const std::uint64_t n = elements.size();
    return f.createCellArray({1, n}, std::move(elements));
}

StructArray structOf(ArrayFactory& f, const std::vector<std::string>& names, std::vector<Array> values) {
    StructArray s = f.createStructArray({1, 1}, names);
    for (std::size_t k = 0; k < names.size(); ++k) s[0][names[k]] = std::move(values[k]);
    return s;
}

const std::vector<std::string>& rowDimFields() {
    static const std::vector<std::string> kFields{"labelType", "requireLabels", "requireUniqueLabels",
                                                  "DuplicateLabelExceptionID", "reservedNames", "labels",
                                                  "length", "hasLabels", "subsType"};
    return kFields;
}
const std::vector<std::string>& propsFields() {
    static const std::vector<std::string> kFields{
        "useVariableNamesOriginal", "useDimensionNamesOriginal", "Description", "CustomProps", "VariableCustomProps",
        engine::table::kDimensionNames, "DimensionNamesOriginal", "VariableNamesOriginal", "UserData",
        "VariableDescriptions", "VariableUnits", "VariableContinuity", "VersionSavedFrom", "minCompatibleVersion",
        "incompatibilityMsg"};
    return kFields;
}
const std::vector<std::string>& customSaveFields() {
    static const std::vector<std::string> kFields{
        "CustomProps", "VariableCustomProps", "versionSavedFrom", "minCompatibleVersion", "incompatibilityMsg",
        "numDims", "useVarNamesOrig", "useVarNames2048", "useDimNamesOrig", "useDimNames2048", "dimNamesOrig",
        "dimNames20482048", "varNamesOrig", "varNames2048", engine::timetable::kNumRows, "numVars", "varDescriptions",
        "varUnits", "timeEvents", "varContinuity", "arrayProps", engine::timetable::kVarNames, engine::table::kData,
        engine::timetable::kRowTimes, engine::timetable::kDimNames};
    return kFields;
}

struct Ids {
    VeltraClassIdentifier table{engine::table::kClass}, timetable{engine::timetable::kClass};
    VeltraPropertyIdentifier customSave{engine::timetable::kCustomSave};
    std::vector<VeltraPropertyIdentifier> tableProps{
        VeltraPropertyIdentifier(engine::table::kData),    VeltraPropertyIdentifier(engine::table::kNdims),
        VeltraPropertyIdentifier(engine::table::kNrows),   VeltraPropertyIdentifier(engine::table::kNvars),
        VeltraPropertyIdentifier(engine::table::kRowDim),  VeltraPropertyIdentifier(engine::table::kRownames),
        VeltraPropertyIdentifier(engine::table::kVarnames), VeltraPropertyIdentifier(engine::table::kProps)};
};
const Ids& ids() {
    static const Ids kIds;
    return kIds;
}

// A property of a value object, or a field of a 1x1 struct, if it is there.
std::optional<Array> propertyOf(const ValueObject& v, const char* name) {
    const VeltraPropertyIdentifier id(name);
    if (!v.hasProperty(id)) return std::nullopt;
    return v[id];
}
std::optional<Array> fieldOf(const Array& s, const char* name) {
    if (s.getType() != ArrayType::STRUCT || s.getNumberOfElements() != 1) return std::nullopt;
    const foundation::veltradata::Struct fields = s[0].getValue<foundation::veltradata::Struct>();
    if (!fields.hasField(name)) return std::nullopt;
    return fields[name];
}

}  // namespace

Array makeTable(ArrayFactory& f, TableColumns columns) {
    const Constants& c = constants(f);
    const std::uint64_t vars = columns.data.size(), rows = columns.rows;
    Array nrows = count(f, rows);
    Array rowDim = structOf(f, rowDimFields(),
                            {c.text, c.no, c.yes, c.duplicateId, c.emptyChar, c.emptyCell, nrows, c.no, c.subsType});
    Array dimensionNames = columns.variablesName ? f.createCellArray({1, 2}, {c.row, std::move(*columns.variablesName)})
                                                 : c.dimensionNames;
    Array props = structOf(f, propsFields(),
                           {c.no, c.yes, c.emptyChar, c.noFields, c.noFields, dimensionNames, c.emptyRow, c.emptyRow,
                            c.emptyDouble, c.emptyRow, c.emptyRow, c.emptyRow, c.four, c.one, c.emptyChar});
    const Ids& id = ids();
    ValueObjectArray table = f.createValueObjectScalar(id.table, id.tableProps);
    Array values[] = {rowCell(f, std::move(columns.data)), c.two, nrows, count(f, vars), rowDim, c.emptyCell,
                      rowCell(f, std::move(columns.names)), props};
    for (std::size_t k = 0; k < id.tableProps.size(); ++k) table.setProperty(0, id.tableProps[k], values[k]);
    table.setExternalDimensions({rows, vars});
    return table;
}

Array makeTimetable(ArrayFactory& f, TableColumns columns, Array rowTimes, Array rowTimesName) {
    const Constants& c = constants(f);
    const std::uint64_t vars = columns.data.size(), rows = columns.rows;
    Array arrayProps = structOf(f, {"Description", "UserData", "TableCustomProperties"},
                                {c.emptyChar, c.emptyDouble, c.noFields});
    Array zero = f.createScalar<double>(0);
    Array save = structOf(
        f, customSaveFields(),
        {c.noFields, c.noFields, c.seven, c.versionTwo, c.emptyChar, c.two, zero, zero, zero, zero, c.emptyRow,
         c.emptyRow, c.emptyRow, c.emptyRow, count(f, rows), count(f, vars), c.emptyRow, c.emptyRow, c.emptyDouble,
         c.emptyRow, arrayProps, rowCell(f, std::move(columns.names)), rowCell(f, std::move(columns.data)),
         std::move(rowTimes),
         f.createCellArray({1, 2}, {std::move(rowTimesName), columns.variablesName ? std::move(*columns.variablesName)
                                                                                    : c.variables})});
    const Ids& id = ids();
    ValueObjectArray timetable = f.createValueObjectScalar(id.timetable, {id.customSave});
    timetable.setProperty(0, id.customSave, save);
    timetable.setExternalDimensions({rows, vars});
    return timetable;
}

TableParts readTableParts(const Array& table, bool timetable) {
    TableParts parts;
    if (table.getType() != ArrayType::VALUE_OBJECT || table.getNumberOfElements() != 1) return parts;
    const ValueObject& v = foundation::veltradata::valueObjects(table)[0];
    const std::optional<Array> save = propertyOf(v, engine::timetable::kCustomSave);
    if (save) {
        parts.data = fieldOf(*save, engine::table::kData);
        parts.names = fieldOf(*save, timetable ? engine::timetable::kVarNames : engine::table::kVarnames);
        if (!parts.names)
            parts.names = fieldOf(*save, timetable ? engine::table::kVarnames : engine::timetable::kVarNames);
        parts.rowTimes = fieldOf(*save, engine::timetable::kRowTimes);
        parts.dimNames = fieldOf(*save, engine::timetable::kDimNames);
        parts.rowNames = fieldOf(*save, engine::table::kRownames);
        parts.rows = fieldOf(*save, timetable ? engine::timetable::kNumRows : engine::table::kNrows);
        if (!parts.dimNames) {
            const std::optional<Array> props = fieldOf(*save, engine::table::kProps);
            if (props) parts.dimNames = fieldOf(*props, engine::table::kDimensionNames);
        }
        return parts;
    }
    if (timetable) return parts;
    parts.data = propertyOf(v, engine::table::kData);
    parts.names = propertyOf(v, engine::table::kVarnames);
    parts.rowNames = propertyOf(v, engine::table::kRownames);
    parts.rows = propertyOf(v, engine::table::kNrows);
    const std::optional<Array> props = propertyOf(v, engine::table::kProps);
    if (props) parts.dimNames = fieldOf(*props, engine::table::kDimensionNames);
    return parts;
}

}  // namespace PythonVeltraDataArray::detail
