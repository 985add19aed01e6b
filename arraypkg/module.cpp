// PyInit_veltramultidimarrayforpython: the eleven types, the private buffer handle type, the capsule `_capi`,
// and a few private hooks (underscore names) through which the package's tests drive the capsule.
#include <Python.h>

#include "arraypkg/buffer_format.h"
#include "arraypkg/buffer_source.h"
#include "arraypkg/capi.h"
#include "arraypkg/typed_array.h"
#include "veltradata/array_factory.h"
#include "veltradata/impl.h"
#include "veltradata/numeric_kinds.h"

namespace PythonVeltraDataArray::arraypkg {

namespace {

ArrayType readKind(PyObject* o) {
    const long v = PyLong_AsLong(o);
    if (v == -1 && PyErr_Occurred()) throw PyErrorSet{};
    if (v < 0 || v > foundation::veltradata::kMaxArrayType) raise(PyExc_ValueError, "not an array type: " + std::to_string(v));
    return static_cast<ArrayType>(v);
}

// _capi_roundtrip(obj, array_type=None): what py_pb does with obj and a result holding it. A typed array goes
// through entry 1 directly; anything else through entries 2, 1 and 3. The handle then comes back through
// entry 0 as a new typed array.
PyObject* capiRoundtrip(PyObject*, PyObject* args) {
    PyObject* obj = nullptr;
    PyObject* typeArg = Py_None;
    if (!PyArg_ParseTuple(args, "O|O:_capi_roundtrip", &obj, &typeArg)) return nullptr;
    const VeltraArrayCapi* capi = capiTable();
    uint32_t type = typeArg == Py_None ? 0 : static_cast<uint32_t>(readKind(typeArg));
    void* handle = nullptr;
    if (isPackageObject(obj)) {
        if (!type) type = static_cast<uint32_t>(kindOf(obj));
        handle = capi->get_array(obj, obj, type);
    } else {
        uint32_t reported = 0;
        PyObject* buffer = capi->acquire_buffer(obj, &reported);
        if (!buffer) return nullptr;
        handle = capi->get_array(buffer, buffer, type ? type : reported);
        capi->release_buffer(buffer);
    }
    if (!handle) return nullptr;
    return capi->wrap_array(handle);
}

// _capi_get(obj, array_type): entry 1 on obj itself (no buffer handle), then entry 0.
PyObject* capiGet(PyObject*, PyObject* args) {
    PyObject *obj, *typeArg;
    if (!PyArg_ParseTuple(args, "OO:_capi_get", &obj, &typeArg)) return nullptr;
    const VeltraArrayCapi* capi = capiTable();
    void* handle = capi->get_array(obj, obj, static_cast<uint32_t>(readKind(typeArg)));
    return handle ? capi->wrap_array(handle) : nullptr;
}

// _capi_acquire(obj): the ArrayType entry 2 reports for obj (the handle is released through entry 3).
PyObject* capiAcquire(PyObject*, PyObject* obj) {
    const VeltraArrayCapi* capi = capiTable();
    uint32_t type = 0;
    PyObject* handle = capi->acquire_buffer(obj, &type);
    if (!handle) return nullptr;
    capi->release_buffer(handle);
    return PyLong_FromUnsignedLong(type);
}

// _capi_is_buffer(obj): entry 4.
PyObject* capiIsBuffer(PyObject*, PyObject* obj) { return PyBool_FromLong(capiTable()->is_buffer(obj)); }

// _capi_wrap_new(array_type, dims): entry 0 on a new all-zero array of any kind.
PyObject* capiWrapNew(PyObject*, PyObject* args) {
    PyObject *typeArg, *dimsArg;
    if (!PyArg_ParseTuple(args, "OO:_capi_wrap_new", &typeArg, &dimsArg)) return nullptr;
    const ArrayType kind = readKind(typeArg);
    const Dims dims = parseSize(dimsArg, "dims");
    foundation::veltradata::ClientArrayFactory f;
    Array a = f.createArray(kind, dims);
    return capiTable()->wrap_array(a.shareHandle());  // entry 0's own hold, as py_pb gives it
}

// _holds(obj): holds on the storage of obj's owner (1 when it is not shared).
PyObject* holds(PyObject*, PyObject* obj) {
    if (!isPackageObject(obj)) {
        PyErr_SetString(PyExc_TypeError, "not a typed array");
        return nullptr;
    }
    const foundation::veltradata::detail::ArrayImpl* impl = ownerOf(obj)->body->array.getImpl();
    return PyLong_FromUnsignedLong(impl ? impl->holds.load() : 0);
}

PyMethodDef kModuleMethods[] = {
    {"_capi_roundtrip", guarded<capiRoundtrip>, METH_VARARGS, "Internal (tests): capsule entries 2, 1, 3 and 0 in turn."},
    {"_capi_get", guarded<capiGet>, METH_VARARGS, "Internal (tests): capsule entry 1 on any object, then entry 0."},
    {"_capi_acquire", capiAcquire, METH_O, "Internal (tests): the array type capsule entry 2 reports."},
    {"_capi_is_buffer", capiIsBuffer, METH_O, "Internal (tests): capsule entry 4."},
    {"_capi_wrap_new", guarded<capiWrapNew>, METH_VARARGS, "Internal (tests): capsule entry 0 on a new array."},
    {"_holds", holds, METH_O, "Internal (tests): holds on an array's storage."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule = {
    PyModuleDef_HEAD_INIT,
    "veltramultidimarrayforpython",
    "The engine's typed N-dimensional arrays (double, single, int8 ... uint64, logical) and their capsule.",
    -1,
    kModuleMethods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// The module's __all__ (the typed array types) and _numeric_kinds, the rows of the one list of numeric kinds as
// the wire inspector reads them: (kind number, its complex kind's number, enumerator name, element format code).
bool addNameLists(PyObject* module) {
    Ref all = Ref::steal(PyList_New(0));
    Ref kinds = Ref::steal(PyList_New(0));
    if (!all || !kinds) return false;
    for (int i = 0; i < kTypeCount; ++i) {
        Ref name = Ref::steal(PyUnicode_FromString(kTypeNames[i]));
        if (!name || PyList_Append(all.get(), name.get()) != 0) return false;
    }
    using foundation::veltradata::complexTypeOf;
#define VELTRA_KIND_ROW(KIND, T, NAME)                                                                    \
    {                                                                                                     \
        Ref row = Ref::steal(Py_BuildValue("(iiss)", static_cast<int>(ArrayType::KIND),                   \
                                           static_cast<int>(complexTypeOf(ArrayType::KIND)), #KIND,       \
                                           exportFormat(ArrayType::KIND)));                               \
        if (!row || PyList_Append(kinds.get(), row.get()) != 0) return false;                             \
    }
    VELTRA_NUMERIC_KINDS(VELTRA_KIND_ROW)
#undef VELTRA_KIND_ROW
    return PyModule_AddObjectRef(module, "__all__", all.get()) == 0 &&
           PyModule_AddObjectRef(module, "_numeric_kinds", kinds.get()) == 0;
}

}  // namespace

}  // namespace PythonVeltraDataArray::arraypkg

PyMODINIT_FUNC PyInit_veltramultidimarrayforpython(void) {
    using namespace PythonVeltraDataArray::arraypkg;
    if (!createTypes()) return nullptr;
    Ref module = Ref::steal(PyModule_Create(&kModule));
    if (!module) return nullptr;
    for (int i = 0; i < kTypeCount; ++i) {
        if (PyModule_AddObjectRef(module.get(), kTypeNames[i], typeObject(i)) != 0) return nullptr;
    }
    if (!addNameLists(module.get()) || !createBufferHandleType(module.get())) return nullptr;
    Ref capsule = Ref::steal(PyCapsule_New(const_cast<VeltraArrayCapi*>(capiTable()), VELTRA_CAPI_CAPSULE_NAME, nullptr));
    if (!capsule || PyModule_AddObjectRef(module.get(), "_capi", capsule.get()) != 0) return nullptr;
    return module.release();
}
