#include "tables/table_to_dataframe.h"

#include <array>
#include <cmath>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/dispatch.h"
#include "convert/duration.h"
#include "convert/module_state.h"
#include "convert/numpy_time.h"
#include "convert/py_helpers.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"
#include "envelope/engine_names.h"
#include "pyutil/messages.h"
#include "tables/categorical.h"
#include "tables/table_layout.h"
#include "types/engine_dictionary.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::Dims;
using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
namespace engine = foundation::veltradata::engine;

constexpr char kCustom[] =
    "custom VELTRA object conversion not supported. Extract the custom VELTRA object's properties and manually "
    "convert each property to an equivalent Python object";
constexpr char kCreate[] = "unable to create pandas.DataFrame object";

struct Modules {
    Ref numpy, pandas;
    bool load() {
        numpy = importNumpy();
        if (!numpy) return false;
        pandas = importModule("pandas");
        return static_cast<bool>(pandas);
    }
};

// [item]
Ref listOf(PyObject* item) {
    Ref list = Ref::steal(PyList_New(1));
    if (list) PyList_SetItem(list.get(), 0, Py_NewRef(item));
    return list;
}

std::string kindText(ArrayType t) { return std::to_string(static_cast<int>(t)); }

std::string classOf(const Array& a) {
    return ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
}

// A column array: one column (N-by-1), or nothing at all.
bool isColumn(const Array& a) {
    const Dims& d = a.getDimensions();
    return d.size() == 2 && (d[1] == 1 || a.isEmpty());
}


// numpy's name for the dtype of T, or of std::complex<T>; "" where numpy has none (complex integers).
template <typename T>
std::string dtypeName(bool complex) {
    const std::string bits = std::to_string(8 * sizeof(T) * (complex ? 2 : 1));
    if constexpr (std::is_floating_point_v<T>) return (complex ? "complex" : "float") + bits;
    else return complex ? "" : (std::is_signed_v<T> ? "int" : "uint") + bits;
}

// The dtype of a numeric or logical column; null for kinds numpy cannot view.
const char* dtypeOf(ArrayType t) {
    static const auto kDtypes = [] {
        std::array<std::string, foundation::veltradata::kMaxArrayType + 1> out;
        out[static_cast<std::size_t>(ArrayType::LOGICAL)] = "bool";
#define VELTRA_DTYPE(KIND, T, NAME)                                                                    \
    out[static_cast<std::size_t>(ArrayType::KIND)] = dtypeName<T>(false);                              \
    out[static_cast<std::size_t>(foundation::veltradata::complexTypeOf(ArrayType::KIND))] = dtypeName<T>(true);
        VELTRA_NUMERIC_KINDS(VELTRA_DTYPE)
#undef VELTRA_DTYPE
        return out;
    }();
    const int v = static_cast<int>(t);
    if (!foundation::veltradata::isValidArrayType(v) || kDtypes[static_cast<std::size_t>(v)].empty()) return nullptr;
    return kDtypes[static_cast<std::size_t>(v)].c_str();
}

// A numeric or logical column -> a one-dimensional numpy array viewing the array's own storage.
Ref numericColumn(const Modules& m, const Array& a) {
    const char* dtype = dtypeOf(a.getType());
    if (!dtype)
        return fail(PyExc_TypeError, "conversion of VELTRA data type " + kindText(a.getType()) + " to Python not supported");
    const VeltraArrayCapi* capi = capsule();
    if (!capi) return fail(PyExc_ValueError, pyutil::kCapsuleIsNull);
    void* handle = a.shareHandle();
    Ref wrapped = handle ? Ref::steal(capi->wrap_array(handle)) : Ref();
    if (!wrapped) return handle ? Ref() : fail(PyExc_ValueError, "array has no contents");
    Ref kwargs = Ref::steal(Py_BuildValue("{s:s}", "dtype", dtype));
    Ref asarray = Ref::steal(PyObject_GetAttrString(m.numpy.get(), "asarray"));
    Ref args = Ref::steal(PyTuple_Pack(1, wrapped.get()));
    Ref values = kwargs && asarray && args ? Ref::steal(PyObject_Call(asarray.get(), args.get(), kwargs.get())) : Ref();
    return values ? Ref::steal(PyObject_CallMethod(values.get(), "reshape", "(i)", -1)) : Ref();
}

// Any array of datetime64 values (or one datetime) as a one-dimensional array, localised to `zone` (the
// wall-clock times in it) unless zone is None. Repeated wall-clock times at the end of summer time read as
// the first of the two.
Ref localized(const Modules& m, PyObject* times, PyObject* zone) {
    Ref flat = Ref::steal(PyObject_CallMethod(m.numpy.get(), "asarray", "(O)", times));
    flat = flat ? Ref::steal(PyObject_CallMethod(flat.get(), "reshape", "(i)", -1)) : Ref();
    if (!flat || zone == Py_None) return flat;
    Ref index = Ref::steal(PyObject_CallMethod(m.pandas.get(), "DatetimeIndex", "(O)", flat.get()));
    const Py_ssize_t n = flat ? PyObject_Length(flat.get()) : -1;
    Ref ambiguous = index && n >= 0 ? Ref::steal(PyObject_CallMethod(m.numpy.get(), "ones", "(ns)", n, "bool")) : Ref();
    Ref method = index ? Ref::steal(PyObject_GetAttrString(index.get(), "tz_localize")) : Ref();
    Ref args = Ref::steal(PyTuple_Pack(1, zone));
    Ref kwargs = ambiguous ? Ref::steal(Py_BuildValue("{s:O,s:s}", "ambiguous", ambiguous.get(), "nonexistent", "shift_forward"))
                           : Ref();
    if (!method || !args || !kwargs) return Ref();
    return Ref::steal(PyObject_Call(method.get(), args.get(), kwargs.get()));
}

Ref datetimeColumn(const Modules& m, const Array& a) {
    Ref times = Ref::steal(datetimeToPython(a));
    if (!times) return Ref();
    Ref zone = Ref::steal(timeZoneForPandas(a));
    if (!zone) return Ref();
    const int array = pyutil::hasAttribute(times.get(), "dtype");
    if (array < 0) return Ref();
    if (!array) return listOf(times.get());  // one datetime.datetime, with its tzinfo
    Ref values = localized(m, times.get(), zone.get());
    if (!values || zone.get() == Py_None) return values;
    return Ref::steal(PyObject_GetAttrString(values.get(), "array"));
}

// The unit pandas gives a column of timedelta objects (nanoseconds before pandas 3, microseconds since),
// found once per process. Nothing with an error that is not ordinary pending (and nothing kept, so that the
// next call asks again).
std::optional<TimeUnit> pandasDurationUnit(const Modules& m) {
    static std::optional<TimeUnit> found;
    if (found) return found;
    TimeUnit unit = TimeUnit::Nano;
    Ref datetimeModule = Ref::steal(PyImport_ImportModule("datetime"));
    Ref zero = datetimeModule ? Ref::steal(PyObject_CallMethod(datetimeModule.get(), "timedelta", nullptr)) : Ref();
    Ref list = zero ? listOf(zero.get()) : Ref();
    Ref series = list ? Ref::steal(PyObject_CallMethod(m.pandas.get(), "Series", "(O)", list.get())) : Ref();
    Ref dtype = series ? Ref::steal(PyObject_GetAttrString(series.get(), "dtype")) : Ref();
    Ref text = dtype ? Ref::steal(PyObject_Str(dtype.get())) : Ref();
    const char* name = text ? PyUnicode_AsUTF8AndSize(text.get(), nullptr) : nullptr;
    if (name && std::string(name) == "timedelta64[us]") unit = TimeUnit::Micro;
    if (!pyutil::clearOrdinary()) return std::nullopt;
    found = unit;
    return found;
}

// Durations as a one-dimensional timedelta64 array in pandas' own unit (NaN as NaT), or a coarser one when a
// value does not fit it, one row as any other number of rows.
Ref durationColumn(const Modules& m, const Array& a) {
    const foundation::veltradata::VeltraPropertyIdentifier millisId(engine::duration::kMillis);
    if (a.getNumberOfElements() != 1 || !foundation::veltradata::valueObjects(a)[0].hasProperty(millisId))
        return Ref::steal(durationToPython(a));  // refuses it, saying why
    const Array& millis = foundation::veltradata::valueObjects(a)[0][millisId];
    const std::optional<TimeUnit> unit = pandasDurationUnit(m);
    if (!unit) return Ref();
    return Ref::steal(millisToTimedelta64(millis, Dims{1, millis.getNumberOfElements()}, unit));
}

// Every element of a dictionary array as a veltra.dictionary.
Ref dictionaryColumn(const Array& a) {
    const std::uint64_t n = a.getNumberOfElements();
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(n)));
    if (!list) return Ref();
    ValueObjectArray all(a);
    ArrayFactory& f = *sharedArrayFactory();
    for (std::uint64_t i = 0; i < n; ++i) {
        PyObject* d;
        if (n == 1) {
            d = dictionaryToPython(a);
        } else {
            const ValueObject element = *all[i];
            ValueObjectArray one = f.createValueObjectScalar(element.getClassInfo());
            one[0] = element;
            d = dictionaryToPython(one);
        }
        if (!d) return Ref();
        PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), d);
    }
    return list;
}

// Texts (str or None) as a column. pandas infers its own string dtype from the texts, but not from missing
// values alone: a column without a text is given that dtype, as the one pandas infers from a text.
Ref stringColumn(const Modules& m, PyObject* texts) {
    for (Py_ssize_t i = 0; i < PyList_Size(texts); ++i)
        if (PyList_GetItem(texts, i) != Py_None) return Ref::borrow(texts);
    Ref sample = Ref::steal(Py_BuildValue("[s]", "a"));
    Ref series = sample ? Ref::steal(PyObject_CallMethod(m.pandas.get(), "Series", "(O)", sample.get())) : Ref();
    Ref dtype = series ? Ref::steal(PyObject_GetAttrString(series.get(), "dtype")) : Ref();
    Ref numpyDtype = dtype ? Ref::steal(PyObject_GetAttrString(m.numpy.get(), "dtype")) : Ref();
    const int plain = numpyDtype ? PyObject_IsInstance(dtype.get(), numpyDtype.get()) : -1;
    if (plain < 0) return Ref();
    if (plain) return Ref::borrow(texts);  // pandas 2: text is object
    Ref array = Ref::steal(PyObject_GetAttrString(m.pandas.get(), "array"));
    Ref args = Ref::steal(PyTuple_Pack(1, texts));
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "dtype", dtype.get()));
    if (!array || !args || !kwargs) return Ref();
    return Ref::steal(PyObject_Call(array.get(), args.get(), kwargs.get()));
}

// One variable -> what pandas.DataFrame takes as a column.
Ref variableToColumn(const Modules& m, const Array& v) {
    const ArrayType t = v.getType();
    if (foundation::veltradata::isSparse(v)) return fail(PyExc_TypeError, pyutil::kSparseToPython);
    if (foundation::veltradata::isNumericOrLogicalType(t) || t == ArrayType::VELTRA_STRING) {
        if (!isColumn(v)) return fail(PyExc_TypeError, "unable to flatten multidimensional array");
        if (t == ArrayType::VELTRA_STRING) {
            Ref texts = Ref::steal(convertToPython(v));  // one element comes as itself
            if (texts && !PyList_Check(texts.get())) texts = listOf(texts.get());
            return texts ? stringColumn(m, texts.get()) : Ref();
        }
        return numericColumn(m, v);
    }
    if (t == ArrayType::CHAR) {
        if (!isRowOrColumn(v)) return fail(PyExc_ValueError, "char arrays returned from VELTRA must be 1-by-N or M-by-1");
        Ref text = Ref::steal(convertToPython(v));
        if (!text) return Ref();
        if (v.getDimensions()[0] <= 1) return listOf(text.get());
        return Ref::steal(PySequence_List(text.get()));  // M-by-1: one character per row
    }
    if (t == ArrayType::VALUE_OBJECT) {
        const std::string cls = classOf(v);
        if (cls == engine::table::kClass || cls == engine::timetable::kClass)
            return fail(PyExc_TypeError, "conversion of this nested VELTRA " + cls +
                                             " is not supported. Use 'splitvars' to flatten it");
        if (cls == engine::categorical::kClass) return Ref::steal(categoricalToPython(v));
        if (cls == engine::datetime::kClass) return datetimeColumn(m, v);
        if (cls == engine::duration::kClass) return durationColumn(m, v);
        if (cls == engine::dictionary::kClass) return dictionaryColumn(v);
        return fail(PyExc_TypeError, kCustom);
    }
    if (t == ArrayType::HANDLE_OBJECT_REF || t == ArrayType::ENUM) {
        const std::string cls = t == ArrayType::ENUM ? foundation::veltradata::EnumArray(v).getClassName()
                                                     : (v.isEmpty() ? std::string("handle")
                                                                    : v[0].getValue<foundation::veltradata::HandleObjectRef>().className);
        return fail(PyExc_TypeError, "conversion of VELTRA '" + cls + "' array to Python is not supported");
    }
    return fail(PyExc_TypeError, "conversion of VELTRA data type " + kindText(t) + " to Python not supported");
}

// The text of a name (a char row, or a string scalar); null with an error set.
Ref nameText(const Array& name, const std::string& what) {
    if (name.getType() == ArrayType::CHAR && isRowOrColumn(name)) return Ref::steal(convertToPython(name));
    if (name.getType() == ArrayType::VELTRA_STRING && name.getNumberOfElements() == 1) {
        Ref s = Ref::steal(convertToPython(name));
        if (s && s.get() != Py_None) return s;
    }
    if (name.isEmpty()) return Ref::steal(PyUnicode_FromString(""));
    return fail(PyExc_ValueError, what + " must be char arrays");
}

// Counts that travel as doubles.
std::optional<std::uint64_t> countOf(const std::optional<Array>& a) {
    if (!a || a->getNumberOfElements() != 1 || !foundation::veltradata::isNumericOrLogicalType(a->getType())) return std::nullopt;
    const double x = (*a)[0].castTo<double>();
    if (!(x >= 0 && x < 9.0e15) || x != std::floor(x)) return std::nullopt;
    return static_cast<std::uint64_t>(x);
}

// The name of the variables dimension as the name of the columns axis: None for the default "Variables" (and
// for none at all).
Ref variablesName(const TableParts& p, const std::string& cls) {
    if (!p.dimNames || p.dimNames->getType() != ArrayType::CELL || p.dimNames->getNumberOfElements() < 2)
        return Ref::borrow(Py_None);
    Ref name = nameText(foundation::veltradata::cellElements(*p.dimNames)[1], "VELTRA " + cls + " dimension names");
    if (!name) return Ref();
    if (PyUnicode_GetLength(name.get()) == 0 ||
        PyUnicode_CompareWithASCIIString(name.get(), engine::table::kVariablesDimension) == 0)
        return Ref::borrow(Py_None);
    return name;
}

Ref rowTimesIndex(const Modules& m, const TableParts& p) {
    constexpr char kInvalid[] = "invalid 'RowTimes' index in timetable for conversion to pandas.DataFrame object";
    Ref name;
    if (p.dimNames && p.dimNames->getType() == ArrayType::CELL && !p.dimNames->isEmpty()) {
        name = nameText(foundation::veltradata::cellElements(*p.dimNames)[0], "VELTRA timetable dimension names");
        if (!name) return Ref();
    }
    if (!p.rowTimes || p.rowTimes->getType() != ArrayType::VALUE_OBJECT ||
        classOf(*p.rowTimes) != engine::datetime::kClass)
        return fail(PyExc_TypeError, kInvalid);
    Ref times = datetimeColumn(m, *p.rowTimes);
    if (!times) {
        pyutil::replaceError(PyExc_TypeError, kInvalid);
        return Ref();
    }
    Ref args = Ref::steal(PyTuple_Pack(1, times.get()));
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O}", "name", name ? name.get() : Py_None));
    Ref type = Ref::steal(PyObject_GetAttrString(m.pandas.get(), "DatetimeIndex"));
    if (!args || !kwargs || !type) return Ref();
    Ref index = Ref::steal(PyObject_Call(type.get(), args.get(), kwargs.get()));
    if (!index) pyutil::replaceError(PyExc_TypeError, kInvalid);
    return index;
}

}  // namespace

bool namesOf(const Array& names, const std::string& what, std::vector<Ref>& out) {
    const std::uint64_t n = names.getNumberOfElements();
    if (names.getType() == ArrayType::VELTRA_STRING) {
        Ref list = Ref::steal(convertToPython(names));
        if (!list) return false;
        if (!PyList_Check(list.get())) list = listOf(list.get());
        for (Py_ssize_t i = 0; list && i < PyList_Size(list.get()); ++i) {
            PyObject* s = PyList_GetItem(list.get(), i);
            if (s == Py_None) return fail(PyExc_ValueError, what + " must not be missing");
            out.push_back(Ref::borrow(s));
        }
        return static_cast<bool>(list);
    }
    if (names.getType() != ArrayType::CELL)
        return fail(PyExc_ValueError, what + " must be a cell of char arrays or a string array");
    const Array* cells = foundation::veltradata::cellElements(names);
    for (std::uint64_t i = 0; i < n; ++i) {
        Ref s = nameText(cells[i], what);
        if (!s) return false;
        out.push_back(std::move(s));
    }
    return true;
}

PyObject* tableToPython(const Array& a, bool timetable) {
    RecursionGuard guard(" while converting a VELTRA array to Python");
    if (!guard) return nullptr;
    const std::string cls = timetable ? engine::timetable::kClass : engine::table::kClass;
    if (a.getNumberOfElements() != 1)
        return fail(PyExc_TypeError, "conversion of VELTRA '" + cls + "' array to Python is not supported");
    const TableParts p = readTableParts(a, timetable);
    if (!p.data || !p.names || p.data->getType() != ArrayType::CELL)
        return fail(PyExc_ValueError, "VELTRA " + cls + " does not hold its variables in the layout Python reads");
    Modules m;
    if (!m.load()) return nullptr;

    std::vector<Ref> names;
    if (!namesOf(*p.names, "VELTRA " + cls + " variable names", names)) return nullptr;
    const std::uint64_t n = p.data->getNumberOfElements();
    if (names.size() != n)
        return fail(PyExc_ValueError, "VELTRA " + cls + " has " + std::to_string(n) + " variables and " +
                                          std::to_string(names.size()) + " variable names");

    Ref columns = Ref::steal(PyDict_New());
    if (!columns) return nullptr;
    const Array* data = foundation::veltradata::cellElements(*p.data);
    for (std::uint64_t k = 0; k < n; ++k) {
        if (!pollSignals()) return nullptr;
        Ref column = variableToColumn(m, data[k]);
        Ref key = Ref::steal(PyLong_FromUnsignedLongLong(k));
        if (!column || !key || PyDict_SetItem(columns.get(), key.get(), column.get()) < 0) return nullptr;
    }

    Ref index;
    if (timetable) {
        index = rowTimesIndex(m, p);
        if (!index) return nullptr;
    } else if (p.rowNames && !p.rowNames->isEmpty()) {
        std::vector<Ref> rowNames;
        if (!namesOf(*p.rowNames, "VELTRA table row names", rowNames)) return nullptr;
        Ref list = Ref::steal(PyList_New(0));
        for (Ref& r : rowNames)
            if (!list || PyList_Append(list.get(), r.get()) < 0) return nullptr;
        index = Ref::steal(PyObject_CallMethod(m.pandas.get(), "Index", "(O)", list.get()));
        if (!index) return nullptr;
    } else if (n == 0) {
        // No variables: the rows are only a count.
        const std::optional<std::uint64_t> rows = countOf(p.rows);
        index = Ref::steal(PyObject_CallMethod(m.pandas.get(), "RangeIndex", "(K)",
                                               static_cast<unsigned long long>(rows.value_or(0))));
        if (!index) return nullptr;
    }

    // Keyed by position, then named: names may repeat, and a dict keyed by them would drop columns.
    Ref type = Ref::steal(PyObject_GetAttrString(m.pandas.get(), "DataFrame"));
    Ref args = Ref::steal(PyTuple_Pack(1, columns.get()));
    Ref kwargs = Ref::steal(Py_BuildValue("{s:O,s:O}", "index", index ? index.get() : Py_None, "copy", Py_False));
    if (!type || !args || !kwargs) return nullptr;
    Ref frame = Ref::steal(PyObject_Call(type.get(), args.get(), kwargs.get()));
    Ref labels = Ref::steal(PyList_New(0));
    for (Ref& name : names)
        if (!labels || PyList_Append(labels.get(), name.get()) < 0) return nullptr;
    if (!frame || PyObject_SetAttrString(frame.get(), "columns", labels.get()) < 0) {
        pyutil::replaceError(PyExc_ValueError, kCreate);
        return nullptr;
    }
    Ref columnsName = variablesName(p, cls);
    if (!columnsName) return nullptr;
    if (columnsName.get() != Py_None) {
        Ref axis = Ref::steal(PyObject_GetAttrString(frame.get(), "columns"));
        if (!axis || PyObject_SetAttrString(axis.get(), "name", columnsName.get()) < 0) {
            pyutil::replaceError(PyExc_ValueError, kCreate);
            return nullptr;
        }
    }
    return frame.release();
}

}  // namespace PythonVeltraDataArray::detail
