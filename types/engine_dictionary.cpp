#include "types/engine_dictionary.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "convert/dispatch.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"
#include "envelope/engine_names.h"
#include "pyutil/numbers.h"
#include "types/dictionary.h"
#include "types/object.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::Struct;
using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
using foundation::veltradata::VeltraString;
namespace engine = foundation::veltradata::engine;

constexpr char kUnconfigured[] = "Unconfigured";
constexpr char kNotSupported[] = "conversion of this dictionary to a veltra.dictionary not supported";
constexpr char kShapes[] = "dimensions of the key and value must be the same, or the value must be scalar";
constexpr char kPairSize[] = "invalid number of elements in object to be converted to a VELTRA dictionary: ";
constexpr char kNoContents[] = "unable to iterate over veltra.dictionary object";
constexpr char kKeyKinds[] = "keys of a dictionary passed to VELTRA must be all str or all numbers, not ";
constexpr char kBeyondInt64[] =
    " does not fit the int64 keys of an engine dictionary: keep int keys from -2**63 to 2**63-1, or use str keys";
constexpr char kNotADouble[] =
    " is not exactly a double, and number keys go as doubles when one of them is a float: use int keys only "
    "(from -2**63 to 2**63-1), or str keys";

struct DictionaryIds {
    VeltraClassIdentifier cls{engine::dictionary::kClass};
    VeltraPropertyIdentifier version{engine::dictionary::kVersion}, keyCombined{engine::dictionary::kIsKeyCombined},
        valueCombined{engine::dictionary::kIsValueCombined}, value{engine::dictionary::kValue};
    std::vector<VeltraPropertyIdentifier> list{version, keyCombined, valueCombined, value};
};
const DictionaryIds& ids() {
    static const DictionaryIds kIds;
    return kIds;
}

// 1 when obj's type has that __name__, 0 when not, -1 with an error set.
int typeNamed(PyObject* obj, const char* name) {
    Ref type = Ref::steal(PyType_GetName(Py_TYPE(obj)));
    if (!type) return -1;
    return PyUnicode_CompareWithASCIIString(type.get(), name) == 0;
}

// The pairs of a mapping as a list of (key, value) tuples: a snapshot, so that value conversions that run
// Python code and change the mapping cannot upset the walk. Null with an error set.
Ref pairsOf(PyObject* obj, PyObject* veltraPairs) {
    if (veltraPairs) return Ref::steal(PyDict_Items(veltraPairs));
    const int chainMap = typeNamed(obj, "ChainMap");
    if (chainMap < 0) return Ref();
    if (chainMap) {
        Ref items = Ref::steal(PyMapping_Items(obj));
        if (!items) {
            pyutil::replaceError(PyExc_ValueError, "unable to retrieve contents of ChainMap object");
            return Ref();
        }
        Ref merged = Ref::steal(PyDict_New());  // without overriding: the first map wins, as in the ChainMap
        if (!merged || PyDict_MergeFromSeq2(merged.get(), items.get(), 0) < 0) return Ref();
        return Ref::steal(PyDict_Items(merged.get()));
    }
    const int userDict = typeNamed(obj, "UserDict");
    if (userDict < 0) return Ref();
    if (userDict) {
        Ref data = Ref::steal(PyObject_GetAttrString(obj, "data"));
        if (data && PyDict_Check(data.get())) return Ref::steal(PyDict_Items(data.get()));
        // No data of its own: read it as the mapping it is.
        if (!data && (!PyErr_ExceptionMatches(PyExc_AttributeError) || !pyutil::clearOrdinary())) return Ref();
    }
    if (PyDict_Check(obj)) return Ref::steal(PyDict_Items(obj));  // a dict subclass: its own storage
    Ref items = Ref::steal(PyMapping_Items(obj));
    if (!items) failProtocol(obj);
    return items;
}

enum class KeyKind { None, Str, Int, Float, Bool };

KeyKind kindOf(PyObject* key) {
    if (PyUnicode_Check(key)) return KeyKind::Str;
    if (PyBool_Check(key)) return KeyKind::Bool;
    if (PyLong_Check(key)) return KeyKind::Int;
    if (PyFloat_Check(key)) return KeyKind::Float;
    return KeyKind::None;
}

// Number keys as one N-by-1 array of T, each read by `read(key, out)`, which fails returning false with an
// error set.
template <typename T, typename Read>
std::optional<Array> numericKeys(ArrayFactory& f, const std::vector<PyObject*>& keys, Read read) {
    Array a = f.createArray(foundation::veltradata::ElementKind<T>::value, {keys.size(), 1});
    auto* out = reinterpret_cast<T*>(foundation::veltradata::mutableElementBytes(a));
    for (std::size_t i = 0; i < keys.size(); ++i)
        if (!read(keys[i], out[i])) return failed();
    return a;
}

// A key the int64 array cannot hold is refused rather than cut.
bool int64Key(PyObject* key, std::int64_t& out) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(key, &overflow);
    if (v == -1 && PyErr_Occurred()) return false;
    if (overflow) return fail(PyExc_ValueError, "dictionary key " + pyutil::shortRepr(key) + kBeyondInt64);
    out = v;
    return true;
}

// A key the double array would round is refused: it would come back as another number, or as the same key
// as its neighbour.
bool doubleKey(PyObject* key, double& out) {
    if (PyFloat_Check(key)) {
        out = PyFloat_AsDouble(key);  // a float's own value, which cannot fail
        return true;
    }
    int exact = 0;
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(key, &overflow);
    if (v == -1 && PyErr_Occurred()) return false;
    if (!overflow) {
        out = static_cast<double>(v);
        constexpr long long kWhole = 1LL << 53;  // every int this far from 0 is a double
        exact = (v >= -kWhole && v <= kWhole) || (out < 0x1p63 && static_cast<long long>(out) == v);
    } else {
        out = PyLong_AsDouble(key);
        if (out == -1.0 && PyErr_Occurred()) {
            if (!pyutil::clearOrdinary()) return false;  // OverflowError: beyond every double
        } else {
            // Both of type int exactly, so == is the integers' own.
            const Ref whole = Ref::steal(PyNumber_Index(key));
            const Ref back = whole ? Ref::steal(PyLong_FromDouble(out)) : Ref();
            if (!back) return false;
            exact = PyObject_RichCompareBool(whole.get(), back.get(), Py_EQ);
            if (exact < 0) return false;
        }
    }
    if (!exact) return fail(PyExc_ValueError, "dictionary key " + pyutil::shortRepr(key) + kNotADouble);
    return true;
}

// The keys as one N-by-1 array of the kind they all share: str, bool, or numbers (int, with a float among
// them float).
std::optional<Array> keysArray(ArrayFactory& f, const std::vector<PyObject*>& keys) {
    const std::uint64_t n = keys.size();
    auto family = [](KeyKind k) { return k == KeyKind::Float ? KeyKind::Int : k; };
    KeyKind kind = KeyKind::None;
    for (PyObject* k : keys) {
        const KeyKind mine = kindOf(k);
        if (mine == KeyKind::None || (kind != KeyKind::None && family(mine) != family(kind)))
            return fail(PyExc_TypeError, kKeyKinds + pyutil::shortRepr(k));
        if (kind == KeyKind::None || mine == KeyKind::Float) kind = mine;
    }
    switch (kind) {
        case KeyKind::Str: {
            std::vector<VeltraString> texts;
            texts.reserve(n);
            for (PyObject* k : keys) {
                std::optional<std::u16string> units = pyUnicodeToUtf16(k);
                if (!units) return failed();
                texts.emplace_back(std::move(*units));
            }
            return Array(f.createStringArray({n, 1}, std::move(texts)));
        }
        case KeyKind::Int: return numericKeys<std::int64_t>(f, keys, int64Key);
        case KeyKind::Float: return numericKeys<double>(f, keys, doubleKey);
        case KeyKind::Bool: {
            Array a = f.createArray(ArrayType::LOGICAL, {n, 1});
            std::uint8_t* out = foundation::veltradata::mutableElementBytes(a);
            for (std::uint64_t i = 0; i < n; ++i) out[i] = keys[i] == Py_True;
            return a;
        }
        default: return Array(f.createStringArray({0, 1}, {}));
    }
}

// How many keys an engine dictionary read before holds (0 when empty or of a layout not ours).
std::uint64_t keyCount(const Array& a) {
    const ValueObject& v = foundation::veltradata::valueObjects(a)[0];
    if (!v.hasProperty(ids().value)) return 0;
    const Array& payload = v[ids().value];
    if (payload.getType() != ArrayType::STRUCT || payload.getNumberOfElements() != 1) return 0;
    const Struct s = payload[0].getValue<Struct>();
    return s.hasField(engine::dictionary::kKeys) ? s[engine::dictionary::kKeys].getNumberOfElements() : 0;
}

// Whether type is exactly one of the time scalar types (datetime.datetime, numpy.datetime64 ...), none of
// whose values can change: 1 yes, 0 no, -1 with an error set. The types are looked up where they live, so that
// a class merely named alike does not pass; a module not imported has made none.
int isTimeScalarType(PyTypeObject* type) {
    struct Home {
        const char* module;
        std::vector<const char*> types;
    };
    static const Home kHomes[] = {{"datetime", {"datetime", "date", "time", "timedelta"}},
                                  {"numpy", {"datetime64", "timedelta64"}}};
    for (const Home& home : kHomes) {
        const Ref name = Ref::steal(PyUnicode_FromString(home.module));
        const Ref module = name ? Ref::steal(PyImport_GetModule(name.get())) : Ref();
        if (!module) {
            if (PyErr_Occurred()) return -1;
            continue;
        }
        for (const char* t : home.types) {
            const Ref candidate = Ref::steal(PyObject_GetAttrString(module.get(), t));
            if (!candidate && !pyutil::clearOrdinary()) return -1;
            if (candidate.get() == reinterpret_cast<PyObject*>(type)) return 1;
        }
    }
    return 0;
}

// What one walk over a dictionary's values has learnt, so that it asks about a type once.
struct Walk {
    Ref objectType;             // veltra.object
    std::vector<Ref> fixed;     // time scalar types met
    std::vector<Ref> notFixed;  // other types met
};

// Whether v cannot change and holds nothing that can: a number, str, bytes, None, a time scalar or a
// veltra.object (which never changes once made). 1 yes, 0 no, -1 with an error set.
int fixedScalar(PyObject* v, Walk& walk) {
    if (v == Py_None || PyBool_Check(v) || PyLong_CheckExact(v) || PyFloat_CheckExact(v) || PyUnicode_CheckExact(v) ||
        PyComplex_CheckExact(v) || PyBytes_CheckExact(v))
        return 1;
    if (PyList_Check(v) || PyDict_Check(v)) return 0;
    PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(v));
    const auto met = [type](const std::vector<Ref>& types) {
        return std::any_of(types.begin(), types.end(), [type](const Ref& t) { return t.get() == type; });
    };
    if (met(walk.fixed)) return 1;
    if (met(walk.notFixed)) return 0;
    if (!walk.objectType) {
        walk.objectType = Ref::steal(types::objectType());
        if (!walk.objectType) return -1;
    }
    const int fixed = type == walk.objectType.get() ? 1 : isTimeScalarType(Py_TYPE(v));
    if (fixed < 0) return -1;
    (fixed ? walk.fixed : walk.notFixed).push_back(Ref::borrow(type));
    return fixed;
}

constexpr int kNestingChecked = 32;  // deeper values are written anew: correct, only slower
int mayGoAsItCame(PyObject* pairs, const Array& source, bool valuesFixed, Walk& walk, int depth);

// Whether nothing reachable from a value read from the engine can have changed since: 1 yes, 0 no, -1 with
// an error set. Fixed scalars cannot, nor a tuple of such; a veltra.dictionary is asked the same about itself;
// a list, dict or array may have been changed in place.
int unchangeable(PyObject* v, Walk& walk, int depth) {
    if (PyTuple_CheckExact(v)) {
        if (depth >= kNestingChecked) return 0;
        for (Py_ssize_t i = 0, n = PyTuple_Size(v); i < n; ++i) {
            const int fixed = unchangeable(PyTuple_GetItem(v, i), walk, depth + 1);
            if (fixed != 1) return fixed;
        }
        return 1;
    }
    PyObject* pairs = nullptr;
    std::optional<Array> source;
    bool valuesFixed = false;
    if (types::dictionaryContents(v, pairs, source, valuesFixed))
        return pairs && source ? mayGoAsItCame(pairs, *source, valuesFixed, walk, depth + 1) : 0;
    return fixedScalar(v, walk);
}

// Whether a veltra.dictionary read from the engine may go back as the array it came as (the caller has that
// array only while no item was assigned or deleted): 1 yes, 0 no, -1 with an error set. Not when clear()
// emptied it (which leaves that as it is), nor when a value may have been changed in place. Values found
// fixed when read need no second look: only assignment and deletion replace them.
int mayGoAsItCame(PyObject* pairs, const Array& source, bool valuesFixed, Walk& walk, int depth) {
    if (PyDict_Size(pairs) != static_cast<Py_ssize_t>(keyCount(source))) return 0;
    if (valuesFixed) return 1;
    if (depth >= kNestingChecked) return 0;
    const Ref hold = Ref::borrow(pairs);
    Py_ssize_t pos = 0;
    PyObject *key, *value;
    while (PyDict_Next(pairs, &pos, &key, &value)) {
        const int fixed = unchangeable(Ref::borrow(value).get(), walk, depth);
        if (fixed != 1) return fixed;
    }
    return 1;
}

// Element i of a keys or values array as a Python object; null with an error set.
PyObject* elementToPython(const Array& a, std::uint64_t i) {
    switch (a.getType()) {
        case ArrayType::CELL: {
            const Array& e = foundation::veltradata::cellElements(a)[i];
            return e.isEmpty() ? PyList_New(0) : convertToPython(e);
        }
        case ArrayType::VELTRA_STRING: {
            const VeltraString& s = foundation::veltradata::stringElements(a)[i];
            if (!s) Py_RETURN_NONE;
            return utf16ToPyStr(s->data(), s->size());
        }
        case ArrayType::LOGICAL: return PyBool_FromLong(a[i].castTo<bool>());
#define VELTRA_NUMBER_CASE(KIND, T, NAME) \
    case ArrayType::KIND: return pyutil::numberToPython(a[i].castTo<T>());
        VELTRA_NUMERIC_KINDS(VELTRA_NUMBER_CASE)
#undef VELTRA_NUMBER_CASE
        default: return fail(PyExc_ValueError, kNotSupported);
    }
}

}  // namespace

std::optional<Array> PyDictionaryToDictionary::doConvert(PyObject* obj, const ConversionState& state) {
    RecursionGuard guard(" while converting a Python object to VELTRA");
    if (!guard) return failed();

    PyObject* veltraPairs = nullptr;
    std::optional<Array> unchanged;
    bool valuesFixed = false;
    if (types::dictionaryContents(obj, veltraPairs, unchanged, valuesFixed)) {
        if (!veltraPairs) return fail(PyExc_ValueError, kNoContents);
        Walk walk;
        const int asItCame = unchanged ? mayGoAsItCame(veltraPairs, *unchanged, valuesFixed, walk, 0) : 0;
        if (asItCame < 0) return failed();
        if (asItCame) return unchanged;
    }
    const Ref pairs = pairsOf(obj, veltraPairs);
    if (!pairs) return failed();
    // items() gives a list (PyMapping_Items makes one of whatever a mapping's items() returns).
    if (!PyList_Check(pairs.get())) return failUnsupportedType(obj);
    const Py_ssize_t n = PyList_Size(pairs.get());

    std::vector<PyObject*> keys;  // borrowed from the snapshot, which lives to the end
    std::vector<Array> values;
    keys.reserve(static_cast<std::size_t>(n));
    values.reserve(static_cast<std::size_t>(n));
    const ConversionState inner = state.forElement();
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* pair = PyList_GetItem(pairs.get(), i);
        if (!PyTuple_Check(pair) || PyTuple_Size(pair) != 2) {
            const Py_ssize_t size = PyObject_Length(pair);
            if (!pyutil::clearOrdinary()) return failed();
            return fail(PyExc_ValueError, kPairSize + std::to_string(size));
        }
        keys.push_back(PyTuple_GetItem(pair, 0));
        std::optional<Array> value = convertToArray(PyTuple_GetItem(pair, 1), inner);
        if (!value) return failed();
        values.push_back(std::move(*value));
    }

    const DictionaryIds& id = ids();
    Array payload;
    if (n == 0) {
        payload = factory().createCharArray(std::string(kUnconfigured));
    } else {
        std::optional<Array> keyArray = keysArray(factory(), keys);
        if (!keyArray) return failed();
        const auto count = static_cast<std::uint64_t>(n);
        foundation::veltradata::StructArray s =
            factory().createStructArray({1, 1}, {engine::dictionary::kKeys, engine::dictionary::kValues});
        s[0][engine::dictionary::kKeys] = *keyArray;
        s[0][engine::dictionary::kValues] = Array(factory().createCellArray({count, 1}, std::move(values)));
        payload = std::move(s);
    }
    ValueObjectArray out = factory().createValueObjectScalar(id.cls, id.list);
    out.setProperty(0, id.version, factory().createScalar<double>(1.0));
    out.setProperty(0, id.keyCombined, factory().createScalar<bool>(true));
    out.setProperty(0, id.valueCombined, factory().createScalar<bool>(false));
    out.setProperty(0, id.value, payload);
    return Array(std::move(out));
}

PyObject* dictionaryToPython(const Array& a) {
    RecursionGuard guard(" while converting a VELTRA array to Python");
    if (!guard) return nullptr;
    const DictionaryIds& id = ids();
    if (a.getType() != ArrayType::VALUE_OBJECT || a.getNumberOfElements() != 1) return fail(PyExc_ValueError, kNotSupported);
    const ValueObject& v = foundation::veltradata::valueObjects(a)[0];
    if (!v.hasProperty(id.value)) return fail(PyExc_ValueError, kNotSupported);
    const Array& payload = v[id.value];

    Ref dict = Ref::steal(PyDict_New());
    if (!dict) return nullptr;
    Walk walk;
    bool valuesFixed = true;  // until a value that may change is met
    if (payload.getType() == ArrayType::STRUCT && payload.getNumberOfElements() == 1) {
        const Struct s = payload[0].getValue<Struct>();
        if (!s.hasField(engine::dictionary::kKeys) || !s.hasField(engine::dictionary::kValues))
            return fail(PyExc_ValueError, kNotSupported);
        const Array& keys = s[engine::dictionary::kKeys];
        const Array& values = s[engine::dictionary::kValues];
        const std::uint64_t nk = keys.getNumberOfElements(), nv = values.getNumberOfElements();
        if (nv != nk && nv != 1) return fail(PyExc_ValueError, kShapes);
        for (std::uint64_t i = 0; i < nk; ++i) {
            if (!pollSignals()) return nullptr;
            Ref key = Ref::steal(elementToPython(keys, i));
            Ref value = key ? Ref::steal(elementToPython(values, nv == 1 ? 0 : i)) : Ref();
            if (!value || PyDict_SetItem(dict.get(), key.get(), value.get()) < 0) return nullptr;
            if (valuesFixed) {
                const int fixed = fixedScalar(value.get(), walk);
                if (fixed < 0) return nullptr;
                valuesFixed = fixed == 1;
            }
        }
    } else if (!(payload.isEmpty() || payload.getType() == ArrayType::CHAR)) {
        return fail(PyExc_ValueError, kNotSupported);  // "Unconfigured", or nothing at all: empty
    }
    return types::newDictionaryFromEngine(dict.release(), a, valuesFixed);
}

}  // namespace PythonVeltraDataArray::detail
