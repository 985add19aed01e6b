#include "convert/dispatch.h"

#include <array>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "convert/bytes.h"
#include "convert/container.h"
#include "convert/datetime.h"
#include "convert/duration.h"
#include "convert/error_converters.h"
#include "convert/module_state.h"
#include "convert/numeric.h"
#include "convert/objects.h"
#include "convert/registration.h"
#include "convert/scalar.h"
#include "convert/text.h"
#include "pyutil/messages.h"
#include "pyutil/type_name.h"

namespace PythonVeltraDataArray {

using detail::Array;
using detail::ArrayFactory;
using detail::ArrayType;
using detail::ConvertToVeltraDataArray;
using detail::ConvertVDAToPyObject;
using pyutil::fail;

namespace {

using ToArrayPtr = std::shared_ptr<ConvertToVeltraDataArray>;
using ToPythonPtr = std::shared_ptr<ConvertVDAToPyObject>;

pyutil::Failure failUnsupportedKind(ArrayType t) {
    return fail(PyExc_TypeError,
                "conversion of VELTRA data type " + std::to_string(static_cast<int>(t)) + " to Python not supported");
}

// Python type name -> converter. Each key has its own converter instance, also where two keys share a class.
struct TypeRegistry {
    std::unordered_map<std::string, ToArrayPtr> byName;
    // The exact builtin types among the keys, found by pointer: their names are their tp_names, so this
    // only skips computing a name that would be looked up anyway.
    std::vector<std::pair<PyTypeObject*, ToArrayPtr>> builtins;
    ToArrayPtr null, buffer;

    template <typename C>
    void add(const std::string& name, const std::shared_ptr<ArrayFactory>& f, PyTypeObject* builtin = nullptr) {
        ToArrayPtr c = std::make_shared<C>(f);
        byName.emplace(name, c);
        if (builtin) builtins.emplace_back(builtin, c);
    }
    // The converter for name; an empty pointer when none is registered.
    const ToArrayPtr& find(const std::string& name) const {
        static const ToArrayPtr kNone;
        auto it = byName.find(name);
        return it == byName.end() ? kNone : it->second;
    }
};

void fillTypeRegistry(TypeRegistry& r, const std::shared_ptr<ArrayFactory>& f) {
    using namespace detail;
    r.add<PyFloatToDouble>("float", f, &PyFloat_Type);
    r.add<PyComplexToDouble>("complex", f, &PyComplex_Type);
    r.add<PyIntToInt64>("int", f, &PyLong_Type);
    r.add<PyBoolToLogical>("bool", f, &PyBool_Type);
    r.add<PyStrToCharOrString>("str", f, &PyUnicode_Type);
    r.add<PyBytesToUint8>("bytes", f, &PyBytes_Type);
    r.add<PyByteArrayToUint8>("bytearray", f, &PyByteArray_Type);
    r.add<PyDictToStruct>("dict", f, &PyDict_Type);
    r.add<PyListToCell>("list", f, &PyList_Type);
    r.add<PyTupleToCell>("tuple", f, &PyTuple_Type);
    r.add<PySetToCell>("set", f, &PySet_Type);
    r.add<PyNoneToError>("NoneType", f, Py_TYPE(Py_None));
    r.add<BufferProtocolObjectToBuffer>("memoryview", f, &PyMemoryView_Type);
    r.add<NullToError>("NULL", f);
    r.add<PyDatetimeToDatetime>("datetime.datetime", f);
    r.add<PyNumpyDatetime64ScalarToDatetime>("numpy.datetime64", f);
    r.add<PyTimedeltaToDuration>("datetime.timedelta", f);
    r.add<PyNumpyTimedelta64ToDuration>("numpy.timedelta64", f);
    r.add<PyDatetimeToDatetime>("pandas.Timestamp", f);
    r.add<PyDatetimeToDatetime>("pandas._libs.tslibs.timestamps.Timestamp", f);
    r.add<PyTimedeltaToDuration>("pandas.Timedelta", f);
    r.add<PyTimedeltaToDuration>("pandas._libs.tslibs.timedeltas.Timedelta", f);
#define VELTRA_ADD_PACKAGE_TYPE(KIND, T, NAME) \
    r.add<VCPyTypedToTyped<ArrayType::KIND>>(std::string("veltra.") + NAME, f);
    VELTRA_NUMERIC_KINDS(VELTRA_ADD_PACKAGE_TYPE)
#undef VELTRA_ADD_PACKAGE_TYPE
    r.add<VCPyLogicalToLogical>("veltra.logical", f);
    r.add<BufferProtocolObjectToBuffer>("<buffer>", f);
    r.add<NumpyNDArrayObjectToBuffer>("numpy.ndarray", f);

    r.null = r.find("NULL");
    r.buffer = r.find("<buffer>");
}

// ArrayType -> converter; one table for one-element arrays, one for all others, indexed by the kind's
// number. An empty slot is a kind without an entry.
struct KindRegistries {
    using Table = std::array<ToPythonPtr, foundation::veltradata::kMaxArrayType + 1>;
    Table scalar, array;

    // One converter for the kind in both tables.
    template <typename C>
    void add(ArrayType t, const std::shared_ptr<ArrayFactory>& f) {
        addScalar<C>(t, f);
        addArray<C>(t, f);
    }
    template <typename C>
    void addScalar(ArrayType t, const std::shared_ptr<ArrayFactory>& f) {
        scalar[static_cast<std::size_t>(t)] = std::make_shared<C>(f);
    }
    template <typename C>
    void addArray(ArrayType t, const std::shared_ptr<ArrayFactory>& f) {
        array[static_cast<std::size_t>(t)] = std::make_shared<C>(f);
    }
    // A real numeric kind and its complex kind. The scalar converters read element 0 as complex for a complex
    // kind and return a Python complex; arrays of both become package objects.
    template <ArrayType Real>
    void addNumeric(const std::shared_ptr<ArrayFactory>& f) {
        constexpr ArrayType complex = foundation::veltradata::complexTypeOf(Real);
        addScalar<detail::NumericToPyScalar<Real>>(Real, f);
        addScalar<detail::NumericToPyScalar<Real>>(complex, f);
        addArray<detail::ConvertVDAToVCPyArray>(Real, f);
        addArray<detail::ConvertVDAToVCPyArray>(complex, f);
    }
};

void fillKindRegistries(KindRegistries& r, const std::shared_ptr<ArrayFactory>& f) {
    using namespace detail;
    r.addScalar<LogicalToPyBool>(ArrayType::LOGICAL, f);
    r.addArray<ConvertVDAToVCPyArray>(ArrayType::LOGICAL, f);  // veltra.logical
    r.add<CharToPyStr>(ArrayType::CHAR, f);
    r.addScalar<VLStringToPyStr>(ArrayType::VELTRA_STRING, f);
    r.addArray<VLStringToPyList>(ArrayType::VELTRA_STRING, f);
#define VELTRA_ADD_NUMERIC(KIND, T, NAME) r.addNumeric<ArrayType::KIND>(f);
    VELTRA_NUMERIC_KINDS(VELTRA_ADD_NUMERIC)
#undef VELTRA_ADD_NUMERIC
    r.add<CellToPyList>(ArrayType::CELL, f);
    r.add<StructToPyDict>(ArrayType::STRUCT, f);
    r.add<VeltraObjectToPyObject>(ArrayType::VALUE_OBJECT, f);
    r.add<VeltraObjectToPyObject>(ArrayType::HANDLE_OBJECT_REF, f);
}

std::once_flag g_registriesOnce;
TypeRegistry* g_types = nullptr;
KindRegistries* g_kinds = nullptr;

// Both directions' registries, filled together on first use and never changed (nor freed) afterwards.
void ensureRegistries(const std::shared_ptr<ArrayFactory>& f) {
    std::call_once(g_registriesOnce, [&f] {
        auto types = std::make_unique<TypeRegistry>();
        auto kinds = std::make_unique<KindRegistries>();
        fillTypeRegistry(*types, f);
        fillKindRegistries(*kinds, f);
        g_types = types.release();
        g_kinds = kinds.release();
    });
}

// A DataFrame of a subclass (its own name is not registered) is a table, not the mapping it also is. Only
// pandas itself can have made one, so pandas is not imported for the question.
// 1 yes, 0 no, -1 with an error that is not ordinary pending.
int isDataFrameSubclass(PyObject* obj) {
    static PyObject* kName = PyUnicode_InternFromString("pandas");
    pyutil::Ref pandas = pyutil::Ref::steal(kName ? PyImport_GetModule(kName) : nullptr);
    pyutil::Ref frame = pandas ? pyutil::Ref::steal(PyObject_GetAttrString(pandas.get(), "DataFrame")) : pyutil::Ref();
    const int is = frame ? PyObject_IsInstance(obj, frame.get()) : 0;
    if (!pyutil::clearOrdinary()) return -1;
    return is == 1;
}

// The registered converter for obj (or for a), without taking a new shared reference: the registries live
// for the whole process. An empty pointer has a Python exception set.
const ToArrayPtr& lookup(PyObject* obj) {
    static const ToArrayPtr kNone;
    const TypeRegistry& r = *g_types;
    if (!obj) return r.null;

    PyTypeObject* type = Py_TYPE(obj);
    for (const auto& [builtin, converter] : r.builtins)
        if (type == builtin) return converter;

    const std::string name = pyutil::typeName(obj);
    if (name.empty()) return r.null;
    // "NULL" and "<buffer>" are the registry's own keys, not names a type may claim.
    auto it = r.byName.find(name);
    if (it != r.byName.end() && it->second != r.null && it->second != r.buffer) return it->second;

    const VeltraArrayCapi* capi = detail::capsule();
    if (!capi) {
        fail(PyExc_TypeError, pyutil::kCapsuleIsNull);
        return kNone;
    }
    if (capi->is_buffer(obj)) return r.buffer;
    if (PyMapping_Check(obj)) {
        const int frame = isDataFrameSubclass(obj);
        if (frame < 0) return kNone;
        const ToArrayPtr& converter = r.find(frame ? "pandas.DataFrame" : "veltra.dictionary");
        if (converter) return converter;
    }
    fail(PyExc_TypeError, detail::unsupportedTypeText(name));
    return kNone;
}

const ToPythonPtr& lookup(const Array& a) {
    static const ToPythonPtr kNone;
    if (foundation::veltradata::isSparse(a)) {
        fail(PyExc_TypeError, pyutil::kSparseToPython);
        return kNone;
    }
    const ArrayType type = a.getType();
    const auto& registry = a.getNumberOfElements() != 1 ? g_kinds->array : g_kinds->scalar;
    const int index = static_cast<int>(type);
    if (foundation::veltradata::isValidArrayType(index)) {
        const ToPythonPtr& converter = registry[static_cast<std::size_t>(index)];
        if (converter) return converter;
    }
    failUnsupportedKind(type);
    return kNone;
}

}  // namespace

namespace detail {

const std::shared_ptr<ArrayFactory>& sharedArrayFactory() {
    static const std::shared_ptr<ArrayFactory> factory = [] {
        std::shared_ptr<ArrayFactory> f = std::make_shared<foundation::veltradata::ClientArrayFactory>();
        ensureRegistries(f);
        return f;
    }();
    return factory;
}

void registerToArray(const std::string& typeName, ToArrayPtr converter) {
    sharedArrayFactory();  // the registries exist before anything is added
    g_types->byName.emplace(typeName, std::move(converter));
}

std::optional<Array> convertToArray(PyObject* obj, const ConversionState& state) {
    sharedArrayFactory();  // fills the registries on first use
    const ToArrayPtr& converter = lookup(obj);
    if (!converter) return std::nullopt;
    return converter->convert(obj, state);
}

PyObject* convertToPython(const Array& a) {
    sharedArrayFactory();  // fills the registries on first use
    const ToPythonPtr& converter = lookup(a);
    if (!converter) return nullptr;
    return converter->convert(a);
}

PyObject* toPython(const Array& a) {
    const ArrayType type = a.getType();
    if (foundation::veltradata::isSparseType(type)) return fail(PyExc_TypeError, pyutil::kSparseToPython);
    if (type == ArrayType::UNKNOWN || type == ArrayType::ENUM) return failUnsupportedKind(type);
    return convertToPython(a);
}

}  // namespace detail

}  // namespace PythonVeltraDataArray
