#include "tables/dataframe_to_table.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/dispatch.h"
#include "convert/numpy_time.h"
#include "convert/py_helpers.h"
#include "convert/text.h"
#include "convert/text_arrays.h"
#include "envelope/engine_names.h"
#include "pyutil/type_name.h"
#include "tables/arrow_strings.h"
#include "tables/categorical.h"
#include "tables/table_layout.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
namespace engine = foundation::veltradata::engine;

constexpr char kNames[] = "unable to convert pandas.DataFrame column names to VELTRA";

// What a conversion looks things up in. Imports are cached by Python, so loading per call costs little.
struct Modules {
    Ref pandas, numpy, dataFrame, rangeIndex, multiIndex, categoricalDtype, datetimeTZDtype, stringDtype, numpyDtype;

    bool load() {
        pandas = importModule("pandas");
        numpy = pandas ? importNumpy() : Ref();
        if (!numpy) return false;
        struct {
            Ref* slot;
            PyObject* module;
            const char* name;
        } wanted[] = {{&dataFrame, pandas.get(), "DataFrame"},
                      {&rangeIndex, pandas.get(), "RangeIndex"},
                      {&multiIndex, pandas.get(), "MultiIndex"},
                      {&categoricalDtype, pandas.get(), "CategoricalDtype"},
                      {&datetimeTZDtype, pandas.get(), "DatetimeTZDtype"},
                      {&stringDtype, pandas.get(), "StringDtype"},
                      {&numpyDtype, numpy.get(), "dtype"}};
        for (auto& w : wanted)
            if (!(*w.slot = Ref::steal(PyObject_GetAttrString(w.module, w.name)))) return false;
        return true;
    }
};

// isinstance that reads an ordinary error as "no"; -1 with any other error pending.
int isA(PyObject* obj, PyObject* type) {
    const int r = PyObject_IsInstance(obj, type);
    if (r >= 0) return r;
    return pyutil::clearOrdinary() ? 0 : -1;
}

// obj.name(*args, **kwargs); a missing method is AttributeError "unable to retrieve attribute 'name'".
Ref call(PyObject* obj, const char* name, PyObject* args = nullptr, PyObject* kwargs = nullptr) {
    Ref method = getAttribute(obj, name);
    if (!method) return Ref();
    Ref none = args ? Ref() : Ref::steal(PyTuple_New(0));
    if (!args && !none) return Ref();
    return Ref::steal(PyObject_Call(method.get(), args ? args : none.get(), kwargs));
}

// The default index: a RangeIndex 0, 1, ..., n-1 with n >= 1, its bounds plain ints. 1 or 0; -1 with an error
// that is not ordinary pending (an ordinary one reads as "not the default").
int isDefaultIndex(PyObject* index, PyObject* rangeIndex) {
    if (!index) return 0;
    const int range = isA(index, rangeIndex);
    if (range <= 0) return range;
    long long v[3];
    const char* names[] = {"start", "stop", "step"};
    for (int k = 0; k < 3; ++k) {
        Ref value = Ref::steal(PyObject_GetAttrString(index, names[k]));
        if (!value || !PyLong_CheckExact(value.get())) return pyutil::clearOrdinary() ? 0 : -1;
        v[k] = PyLong_AsLongLong(value.get());
        if (v[k] == -1 && PyErr_Occurred()) return pyutil::clearOrdinary() ? 0 : -1;
    }
    return v[0] == 0 && v[1] >= 1 && v[2] == 1;
}

// A dtype's kind as its strict UTF-8 text ("" when it has none, or when reading it raised an ordinary error);
// nothing with any other error pending.
std::optional<std::string> kindText(PyObject* dtype) {
    Ref kind = Ref::steal(PyObject_GetAttrString(dtype, "kind"));
    Py_ssize_t size = 0;
    const char* text = kind && PyUnicode_Check(kind.get()) ? PyUnicode_AsUTF8AndSize(kind.get(), &size) : nullptr;
    if (!pyutil::clearOrdinary()) return std::nullopt;
    return text ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}
// Its first letter, '\0' for none; nothing with an error that is not ordinary pending.
std::optional<char> kindOf(PyObject* dtype) {
    std::optional<std::string> text = kindText(dtype);
    if (!text) return std::nullopt;
    return (*text)[0];
}

// str(obj) for a message; "?" when that fails with an ordinary error. Any other error stays pending, and the
// fail() that takes the text then leaves it standing.
std::string utf8Of(PyObject* obj) {
    Ref str = Ref::steal(PyObject_Str(obj));
    Py_ssize_t size = 0;
    const char* text = str ? PyUnicode_AsUTF8AndSize(str.get(), &size) : nullptr;
    if (!text) {
        pyutil::clearOrdinary();
        return "?";
    }
    return std::string(text, static_cast<std::size_t>(size));
}

// One column as the user knows it.
struct Column {
    std::string label;
    Ref name;                  // the label (a str)
    Py_ssize_t position = 0;   // among the user's columns, or among the index levels
    bool indexLevel = false;   // a level of the index that reset_index made a column
    bool unnamed = false;      // such a level without a name of its own, which reset_index named
};

std::string where(const Column& c) {
    if (!c.indexLevel) return " (column '" + c.label + "', position " + std::to_string(c.position) + ")";
    if (c.unnamed) return " (unnamed index level " + std::to_string(c.position) + ", taken as '" + c.label + "')";
    return " (index '" + c.label + "')";
}

// Adds `suffix` to the message of the pending error, when it is one of ours (a plain TypeError, ValueError,
// OverflowError, IndexError or AttributeError with one text); other errors are left as they are.
void annotate(const std::string& suffix) {
    if (!PyErr_Occurred()) return;
    PyObject* own[] = {PyExc_TypeError, PyExc_ValueError, PyExc_OverflowError, PyExc_IndexError, PyExc_AttributeError};
    Ref value = pyutil::fetchNormalized();
    PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(value.get()));
    bool ours = false;
    for (PyObject* t : own) ours = ours || type == t;
    Ref args = ours ? Ref::steal(PyObject_GetAttrString(value.get(), "args")) : Ref();
    if (args && PyTuple_Check(args.get()) && PyTuple_Size(args.get()) == 1 && PyUnicode_Check(PyTuple_GetItem(args.get(), 0))) {
        Ref text = Ref::steal(PyUnicode_FromFormat("%U%s", PyTuple_GetItem(args.get(), 0), suffix.c_str()));
        Ref newArgs = text ? Ref::steal(PyTuple_Pack(1, text.get())) : Ref();
        if (newArgs) PyObject_SetAttrString(value.get(), "args", newArgs.get());
    }
    if (!pyutil::clearOrdinary()) return;  // what went wrong meanwhile outranks the annotated error
    PyObject* traceback = PyException_GetTraceback(value.get());
    PyErr_Restore(Py_NewRef(type), value.release(), traceback);
}

pyutil::Failure failDtype(PyObject* dtype) {
    return fail(PyExc_TypeError, "conversion of pandas.DataFrame '" + utf8Of(dtype) + "' column type to VELTRA is not supported");
}

// A one-dimensional numpy array as an N-by-1 one (a view).
Ref asColumn(PyObject* values) { return Ref::steal(PyObject_CallMethod(values, "reshape", "(ii)", -1, 1)); }

// series.to_numpy(**kwargs) as an N-by-1 numpy array.
Ref columnValues(PyObject* series, PyObject* kwargs = nullptr) {
    Ref values = call(series, "to_numpy", nullptr, kwargs);
    return values ? asColumn(values.get()) : Ref();
}

// Text values (an N-by-1 numpy array of kind O, U or S) -> a string array. An object column holding anything
// else is refused naming the first element that is neither text nor missing.
std::optional<Array> textColumn(ArrayFactory& f, PyObject* values, char kind, const char* dtypeName,
                                const ConversionState& state) {
    bool notText = false;
    std::optional<Array> text = numpyTextArray(f, values, kind, state, notText);
    if (text || !notText) return text;
    Ref iterator = Ref::steal(PyObject_GetIter(values));
    if (!iterator) return failed();
    for (Py_ssize_t i = 0;; ++i) {
        Ref row = Ref::steal(PyIter_Next(iterator.get()));
        if (!row) break;
        Ref item = Ref::steal(PySequence_GetItem(row.get(), 0));
        if (!item) return failed();
        if (!PyUnicode_Check(item.get()) && !isMissingText(item.get()))
            return fail(PyExc_TypeError, std::string("conversion of pandas.DataFrame '") + dtypeName +
                                             "' column type to VELTRA is not supported: element " + std::to_string(i) +
                                             " is " + pyutil::shortRepr(item.get(), 40) + " of type '" +
                                             pyutil::typeName(item.get()) +
                                             "', and an object column must hold text and missing values only");
    }
    if (PyErr_Occurred()) return failed();
    return fail(PyExc_TypeError, std::string("conversion of pandas.DataFrame '") + dtypeName + "' column type to VELTRA is not supported");
}

// The TimeZone text of a column's zone: a zoneinfo key, a fixed offset, or a pytz zone's name.
bool zoneText(PyObject* tz, std::u16string& out) {
    const std::string type = pyutil::typeName(tz);
    Ref name;
    if (type == "zoneinfo.ZoneInfo") {
        name = Ref::steal(PyObject_GetAttrString(tz, "key"));
    } else if (type == "datetime.timezone") {
        Ref offset = Ref::steal(PyObject_CallMethod(tz, "utcoffset", "(O)", Py_None));
        if (!offset) return false;
        long long days = 0, seconds = 0, microseconds = 0;
        if (!getInt64Attribute(offset.get(), "days", days) || !getInt64Attribute(offset.get(), "seconds", seconds) ||
            !getInt64Attribute(offset.get(), "microseconds", microseconds))
            return false;
        out = offsetText(days, seconds, microseconds);
        return true;
    } else if (type.rfind("pytz.", 0) == 0) {
        name = Ref::steal(PyObject_GetAttrString(tz, "zone"));
    }
    if (!name || !PyUnicode_Check(name.get())) {
        if (!pyutil::clearOrdinary()) return false;
        return fail(PyExc_TypeError, "conversion of pandas.DataFrame datetime column with time zone of type '" + type +
                                         "' to VELTRA is not supported; use a zoneinfo.ZoneInfo zone");
    }
    std::optional<std::u16string> units = pyUnicodeToUtf16(name.get());
    if (!units) return false;
    out = std::move(*units);
    return true;
}

// A datetime column -> an engine datetime in the text form: the wall-clock times, and the zone as TimeZone
// when the column has one.
std::optional<Array> datetimeColumn(const Modules& m, ArrayFactory& f, PyObject* series, PyObject* dtype,
                                    const ConversionState& state) {
    Ref tz;
    Ref values;
    const int zoned = isA(dtype, m.datetimeTZDtype.get());
    if (zoned < 0) return failed();
    if (zoned) {
        tz = getAttribute(dtype, "tz");
        Ref accessor = tz ? getAttribute(series, "dt") : Ref();
        Ref args = accessor ? Ref::steal(PyTuple_Pack(1, Py_None)) : Ref();
        Ref local = args ? call(accessor.get(), "tz_localize", args.get()) : Ref();
        values = local ? columnValues(local.get()) : Ref();
    } else {
        values = columnValues(series);
    }
    if (!values) return failed();
    Ref valuesDtype = getAttribute(values.get(), "dtype");
    if (!valuesDtype) return failed();
    const int numpyDtype = isA(valuesDtype.get(), m.numpyDtype.get());
    const std::optional<char> kind = numpyDtype > 0 ? kindOf(valuesDtype.get()) : std::optional<char>('\0');
    if (numpyDtype < 0 || !kind) return failed();
    if (*kind != 'M') return failDtype(dtype);
    std::optional<Array> text = convertToArray(values.get(), state);
    if (!text || !tz) return text;

    std::u16string zone;
    if (!zoneText(tz.get(), zone)) return failed();
    const VeltraPropertyIdentifier timeZone(engine::datetime::kTimeZone), dateString(engine::datetime::kDateString);
    ValueObjectArray out = f.createValueObjectScalar(
        f.createClassInfo(VeltraClassIdentifier(engine::datetime::kClass), {timeZone}, {dateString}));
    out.setProperty(0, timeZone, f.createScalar(zone));
    out.setProperty(0, dateString, foundation::veltradata::valueObjects(*text)[0][dateString]);
    return Array(std::move(out));
}

// Nullable numeric and boolean columns (and other extension columns that name a numpy dtype): exact values;
// missing values as NaN in a double column; refused for booleans, which have no missing value.
std::optional<Array> maskedColumn(PyObject* series, PyObject* dtype, char kind, const ConversionState& state) {
    Ref hasnans = getAttribute(series, "hasnans");
    const int missing = hasnans ? PyObject_IsTrue(hasnans.get()) : -1;
    if (missing < 0) return failed();
    if (missing && kind == 'b')
        return fail(PyExc_TypeError, "conversion of pandas.DataFrame '" + utf8Of(dtype) +
                                         "' column with missing values to VELTRA is not supported: logical arrays have "
                                         "no missing value; fill them (fillna) or convert the column to float");
    // Integers with missing values become doubles; floats keep their width.
    Ref target = missing && kind != 'f' ? Ref::steal(PyUnicode_FromString("float64")) : getAttribute(dtype, "numpy_dtype");
    Ref nan = Ref::steal(PyFloat_FromDouble(Py_NAN));
    if (!target || !nan) return failed();
    Ref kwargs = Ref::steal(missing ? Py_BuildValue("{s:O,s:O}", "dtype", target.get(), "na_value", nan.get())
                                    : Py_BuildValue("{s:O}", "dtype", target.get()));
    Ref values = kwargs ? columnValues(series, kwargs.get()) : Ref();
    if (!values) return failed();
    return convertToArray(values.get(), state);
}

// One variable column -> its N-by-1 array.
std::optional<Array> convertColumn(const Modules& m, ArrayFactory& f, PyObject* series, const ConversionState& state) {
    Ref dtype = getAttribute(series, "dtype");
    if (!dtype) return failed();
    const int categorical = isA(dtype.get(), m.categoricalDtype.get());
    if (categorical) return categorical < 0 ? failed() : categoricalFromSeries(f, series, state);
    const std::optional<char> kindOrNone = kindOf(dtype.get());
    if (!kindOrNone) return failed();
    const char kind = *kindOrNone;
    const int zoned = isA(dtype.get(), m.datetimeTZDtype.get());
    if (zoned) return zoned < 0 ? failed() : datetimeColumn(m, f, series, dtype.get(), state);
    const int numpyDtype = isA(dtype.get(), m.numpyDtype.get());
    if (numpyDtype < 0) return failed();
    if (numpyDtype) {
        switch (kind) {
            case 'M': return datetimeColumn(m, f, series, dtype.get(), state);
            case 'b': case 'i': case 'u': case 'f': case 'c': case 'm': {
                Ref values = columnValues(series);
                if (!values) return failed();
                return convertToArray(values.get(), state);
            }
            case 'O': case 'U': case 'S': {
                Ref values = columnValues(series);
                if (!values) return failed();
                return textColumn(f, values.get(), kind, kind == 'O' ? "object" : "str", state);
            }
            default: return failDtype(dtype.get());
        }
    }
    const int text = isA(dtype.get(), m.stringDtype.get());
    if (text < 0) return failed();
    if (text) {
        std::optional<Array> arrow = arrowStringColumn(f, series, state);
        if (arrow || PyErr_Occurred()) return arrow;
        Ref kwargs = Ref::steal(Py_BuildValue("{s:s}", "dtype", "object"));
        Ref values = kwargs ? columnValues(series, kwargs.get()) : Ref();
        if (!values) return failed();
        const std::string name = utf8Of(dtype.get());
        if (PyErr_Occurred()) return failed();
        return textColumn(f, values.get(), 'O', name.c_str(), state);
    }
    const int arrowDtype = pyutil::hasAttribute(dtype.get(), "pyarrow_dtype");
    if (arrowDtype < 0) return failed();
    if (arrowDtype) {  // pandas.ArrowDtype: strings read in place
        std::optional<Array> arrow = arrowStringColumn(f, series, state);
        if (arrow || PyErr_Occurred()) return arrow;
    }
    if (kind == 'b' || kind == 'i' || kind == 'u' || kind == 'f') {
        const int masked = pyutil::hasAttribute(dtype.get(), "numpy_dtype");
        if (masked) return masked < 0 ? failed() : maskedColumn(series, dtype.get(), kind, state);
    }
    return failDtype(dtype.get());
}

bool isReservedName(const std::string& name) {
    static const char* const kReserved[] = {"Properties", "RowNames", "VariableNames", engine::table::kRowDimension,
                                            engine::table::kVariablesDimension, ":"};
    for (const char* r : kReserved)
        if (name == r) return true;
    return false;
}

// The column labels, which must be text: not empty, each once, none of the names a table keeps for itself.
// The first `unnamed.size()` labels are the former index levels, `unnamed` telling those reset_index named.
bool readLabels(PyObject* labels, Py_ssize_t n, const std::vector<bool>& unnamed, std::vector<Column>& out) {
    const auto indexLevels = static_cast<Py_ssize_t>(unnamed.size());
    out.resize(static_cast<std::size_t>(n));
    std::unordered_map<std::string, Py_ssize_t> seen;
    for (Py_ssize_t i = 0; i < n; ++i) {
        Column& c = out[static_cast<std::size_t>(i)];
        PyObject* label = PyList_GetItem(labels, i);
        c.indexLevel = i < indexLevels;
        c.position = c.indexLevel ? i : i - indexLevels;
        c.unnamed = c.indexLevel && unnamed[static_cast<std::size_t>(i)];
        const std::string position = std::to_string(c.position);
        if (!PyUnicode_Check(label)) {
            const std::string value = pyutil::shortRepr(label, 40) + " of type '" + pyutil::typeName(label) + "'";
            if (c.indexLevel)
                return fail(PyExc_ValueError, std::string(kNames) + ": the name " + value + " of index level " + position +
                                                  " is not text; name the index with a str, for example "
                                                  "df = df.rename_axis(index=str)");
            return fail(PyExc_ValueError, std::string(kNames) + ": the label " + value + " at position " + position +
                                              " is not text; make every label a str, for example "
                                              "df.columns = df.columns.astype(str)");
        }
        c.name = Ref::borrow(label);
        Py_ssize_t size = 0;
        const char* text = PyUnicode_AsUTF8AndSize(label, &size);
        if (!text || !pyUnicodeToUtf16(label)) {
            pyutil::replaceError(PyExc_ValueError, std::string(kNames) + ": the " + (c.indexLevel ? "index name " : "label ") +
                                                       pyutil::shortRepr(label, 40) + " is not valid text: ", true);
            return false;
        }
        c.label.assign(text, static_cast<std::size_t>(size));
        if (c.label.empty()) return fail(PyExc_ValueError, std::string(kNames) + ": a column name is empty" + where(c));
        auto [it, fresh] = seen.emplace(c.label, i);
        if (!fresh) {
            const Column& first = out[static_cast<std::size_t>(it->second)];
            return fail(PyExc_ValueError, std::string(kNames) + ": the name '" + c.label + "' is used twice" +
                                              where(first) + where(c) +
                                              (first.indexLevel ? "; rename the index, for example with "
                                                                  "df.rename_axis(index=...)"
                                                                : ""));
        }
        if (isReservedName(c.label))
            return fail(PyExc_ValueError, std::string(kNames) + ": '" + c.label + "' is a name tables keep for themselves; " +
                                              (c.indexLevel ? "rename the index" : "rename the column") + where(c));
    }
    return true;
}

// The name of the columns axis (df.columns.name, which pivot and unstack set) as the name of the variables
// dimension; nothing for none, which the table writes as its default "Variables". False with an error set.
bool readColumnsName(PyObject* columns, const std::vector<Column>& cols, std::optional<Array>& out, ArrayFactory& f) {
    Ref name = getAttribute(columns, "name");
    if (!name) return false;
    if (name.get() == Py_None) return true;
    const std::string prefix = std::string(kNames) + ": the columns' axis name (df.columns.name) ";
    constexpr char kDrop[] = "df = df.rename_axis(columns=None)";
    if (!PyUnicode_Check(name.get()))
        return fail(PyExc_ValueError, prefix + pyutil::shortRepr(name.get(), 40) + " of type '" + pyutil::typeName(name.get()) +
                                          "' is not text; make it a str, for example df = df.rename_axis(columns=str)");
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(name.get(), &size);
    std::optional<std::u16string> units = text ? pyUnicodeToUtf16(name.get()) : std::nullopt;
    if (!units) {
        pyutil::replaceError(PyExc_ValueError, prefix + pyutil::shortRepr(name.get(), 40) + " is not valid text: ", true);
        return false;
    }
    const std::string label(text, static_cast<std::size_t>(size));
    if (label.empty()) return fail(PyExc_ValueError, prefix + "is empty; drop it, for example " + kDrop);
    if (isReservedName(label))
        return fail(PyExc_ValueError, prefix + "'" + label + "' is a name tables keep for themselves; rename or drop it, "
                                                           "for example " + kDrop);
    for (const Column& c : cols)
        if (c.label == label)
            return fail(PyExc_ValueError, prefix + "'" + label + "' is also the name of a column" + where(c) +
                                              "; rename or drop it, for example " + kDrop);
    out = f.createCharArray(*units);
    return true;
}

// Whether each level of the index has no name (reset_index names those "index" or "level_N"). An index whose
// names cannot be read counts as one named level. False with an error that is not ordinary pending.
bool indexLevels(PyObject* index, std::vector<bool>& unnamed) {
    Ref names = index ? Ref::steal(PyObject_GetAttrString(index, "names")) : Ref();
    Ref list = names ? Ref::steal(PySequence_List(names.get())) : Ref();
    if (!list) {
        unnamed.assign(1, false);
        return pyutil::clearOrdinary();
    }
    for (Py_ssize_t i = 0; i < PyList_Size(list.get()); ++i) unnamed.push_back(PyList_GetItem(list.get(), i) == Py_None);
    if (unnamed.empty()) unnamed.push_back(false);
    return true;
}

// A label readLabels has already taken as UTF-16.
Array charRow(ArrayFactory& f, PyObject* str) { return f.createCharArray(pyUnicodeToUtf16(str).value_or(u"")); }

}  // namespace

std::optional<Array> PyDataFrameToTable::doConvert(PyObject* obj, const ConversionState& state) {
    Modules m;
    if (!m.load()) return failed();
    const int real = PyObject_IsInstance(obj, m.dataFrame.get());
    if (real < 0) return failed();
    if (!real) return failUnsupportedType(obj);  // only claims the name

    // An index other than the default becomes the first columns.
    Ref frame = Ref::borrow(obj);
    std::vector<bool> unnamedLevels;  // one per index level made a column
    Ref index = Ref::steal(PyObject_GetAttrString(obj, "index"));
    if (!index && !pyutil::clearOrdinary()) return failed();
    const int isDefault = isDefaultIndex(index.get(), m.rangeIndex.get());
    if (isDefault < 0) return failed();
    if (!isDefault) {
        if (!indexLevels(index.get(), unnamedLevels)) return failed();
        // A level named like a column (or like one that reset_index names level_N) is refused below, naming
        // both, rather than by pandas' own "already exists".
        Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "allow_duplicates", Py_True));
        frame = kwargs ? call(obj, "reset_index", nullptr, kwargs.get()) : Ref();
        if (!frame) return failed();
    }

    Ref columns = getAttribute(frame.get(), "columns");
    if (!columns) return failed();
    const int multi = isA(columns.get(), m.multiIndex.get());
    if (multi < 0) return failed();
    if (multi)
        return fail(PyExc_ValueError, std::string(kNames) +
                                          ": the columns are a MultiIndex; join each column's levels into one label first");
    Ref labels = Ref::steal(PySequence_List(columns.get()));
    Ref empty = labels ? getAttribute(frame.get(), "empty") : Ref();
    const int isEmpty = empty ? PyObject_IsTrue(empty.get()) : -1;
    Ref rowIndex = isEmpty >= 0 ? getAttribute(frame.get(), "index") : Ref();
    const Py_ssize_t rows = rowIndex ? PyObject_Length(rowIndex.get()) : -1;
    if (rows < 0) return failed();
    const Py_ssize_t n = isEmpty ? 0 : PyList_Size(labels.get());
    if (static_cast<Py_ssize_t>(unnamedLevels.size()) > n) unnamedLevels.resize(static_cast<std::size_t>(n));

    std::vector<Column> cols;
    TableColumns parts;
    if (!readLabels(labels.get(), n, unnamedLevels, cols) || !readColumnsName(columns.get(), cols, parts.variablesName, factory()))
        return failed();

    // The row times: the first column of a datetime dtype.
    Ref dtypesAttr = n ? getAttribute(frame.get(), "dtypes") : Ref();
    Ref dtypes = dtypesAttr ? Ref::steal(PySequence_Tuple(dtypesAttr.get())) : Ref();
    if (n && !dtypes) return failed();
    Py_ssize_t timeColumn = -1;
    for (Py_ssize_t i = 0; i < n && i < PyTuple_Size(dtypes.get()); ++i) {
        const std::optional<std::string> kind = kindText(PyTuple_GetItem(dtypes.get(), i));
        if (!kind) return failed();
        if (*kind == "M") {
            timeColumn = i;
            break;
        }
    }

    Ref iloc = n ? getAttribute(frame.get(), "iloc") : Ref();
    if (n && !iloc) return failed();
    const ConversionState inner = state.forElement();
    parts.rows = static_cast<std::uint64_t>(rows);
    std::optional<Array> rowTimes;
    Array rowTimesName;
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (!pollSignals()) return failed();
        const Column& c = cols[static_cast<std::size_t>(i)];
        Ref key = Ref::steal(Py_BuildValue("(Nn)", PySlice_New(nullptr, nullptr, nullptr), i));
        Ref series = key ? Ref::steal(PyObject_GetItem(iloc.get(), key.get())) : Ref();
        if (!series) {
            pyutil::replaceError(PyExc_IndexError, "unable to retrieve object at position " + std::to_string(i));
            return failed();
        }
        if (i == timeColumn) {
            Ref dtype = getAttribute(series.get(), "dtype");
            rowTimes = dtype ? datetimeColumn(m, factory(), series.get(), dtype.get(), inner) : std::nullopt;
            if (!rowTimes) {
                annotate(where(c));
                return failed();
            }
            rowTimesName = charRow(factory(), c.name.get());
            continue;
        }
        std::optional<Array> variable = convertColumn(m, factory(), series.get(), inner);
        if (!variable) {
            annotate(where(c));
            return failed();
        }
        parts.data.push_back(std::move(*variable));
        parts.names.push_back(charRow(factory(), c.name.get()));
    }
    if (rowTimes) return makeTimetable(factory(), std::move(parts), std::move(*rowTimes), std::move(rowTimesName));
    return makeTable(factory(), std::move(parts));
}

}  // namespace PythonVeltraDataArray::detail
