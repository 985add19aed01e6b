// The module py_pb: its definition and initialisation.
#include <Python.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "convert/arguments.h"
#include "convert/dispatch.h"
#include "convert/module_state.h"
#include "convert/registration.h"
#include "envelope/engine_names.h"
#include "module/entry_points.h"
#include "pyutil/error.h"
#include "pyutil/exceptions.h"
#include "pyutil/ref.h"
#include "tables/dataframe_to_table.h"
#include "tables/table_to_dataframe.h"
#include "types/dictionary.h"
#include "types/engine_dictionary.h"
#include "types/object.h"
#include "arraypkg/veltra_capi.h"

namespace {

namespace engine = foundation::veltradata::engine;
using PythonVeltraDataArray::pyutil::Ref;

// The Python text of an object for a message; "" when it cannot be printed.
std::string textOf(PyObject* obj) {
    Ref s = Ref::steal(PyObject_Str(obj));
    const char* utf8 = s ? PyUnicode_AsUTF8AndSize(s.get(), nullptr) : nullptr;
    if (!utf8) {
        PythonVeltraDataArray::pyutil::clearOrdinary();
        return std::string();
    }
    return utf8;
}

// A start-up step failed with a Python error pending: the step's message replaces an ordinary error, while an
// interrupt (or out of memory) is the outcome as it stands.
[[noreturn]] void throwStep(const char* text) {
    if (!PythonVeltraDataArray::pyutil::clearOrdinary()) throw PythonVeltraDataArray::pyutil::PyErrorSet{};
    throw std::runtime_error(text);
}

// Step 1: the module's own types go into the package `veltra`, once per process: a second import of py_pb,
// or a reload, finds them there and does not replace them. Throws std::runtime_error with the step's
// message, leaving no Python error behind.
void injectTypes() {
    static bool injected = false;  // under the import lock
    if (injected) return;
    Ref package = Ref::steal(PyImport_ImportModule("veltra"));
    if (!package) {
        if (PyErr_Occurred()) {
            if (!PythonVeltraDataArray::pyutil::pendingIsOrdinary()) throw PythonVeltraDataArray::pyutil::PyErrorSet{};
            PyErr_Print();
            throw std::runtime_error("Failed to initialize 'veltra' module.");
        }
        throw std::runtime_error("Failed to import 'veltra' module.");
    }
    Ref objectType = Ref::steal(PythonVeltraDataArray::types::objectType());
    if (!objectType) {
        throwStep("PyType_Ready(&veltraObjectType) failed.");
    }
    if (PyModule_AddObjectRef(package.get(), "object", objectType.get()) < 0) {
        throwStep("PyModule_AddObject() failed for 'object'.");
    }
    Ref dictionaryType = Ref::steal(PythonVeltraDataArray::types::dictionaryType());
    if (!dictionaryType) {
        throwStep("PyType_Ready(&veltraDictionaryType) failed.");
    }
    if (PyModule_AddObjectRef(package.get(), "dictionary", dictionaryType.get()) < 0) {
        throwStep("PyModule_AddObject() failed for 'dictionary'.");
    }
    Ref iterType = Ref::steal(PythonVeltraDataArray::types::dictionaryIterType());  // readied, not added
    if (!iterType) {
        throwStep("PyType_Ready(&veltraDictionaryIter_Type) failed.");
    }
    // The type objects live as long as the process, whatever becomes of the package attribute.
    Py_INCREF(objectType.get());
    Py_INCREF(dictionaryType.get());
    Py_INCREF(iterType.get());
    injected = true;
}

// The capsule's table, when it is the version this module was built against and holds every entry it calls;
// otherwise ImportError naming both versions (a package from another build calls entries that are not there,
// or not what they were). A table from before tables carried a version begins with entry 0's address, which
// reads as a size no table has.
const VeltraArrayCapi* checkedTable(const void* table) {
    const auto* t = static_cast<const VeltraArrayCapi*>(table);
    constexpr std::uint32_t kNeeded = sizeof(VeltraArrayCapi);
    if (t->version == VELTRA_CAPI_VERSION && t->table_size >= kNeeded) return t;
    const bool versioned = t->table_size >= 2 * sizeof(std::uint32_t) && t->table_size <= (1u << 16) &&
                           t->table_size % sizeof(void*) == 0;
    const std::string theirs = versioned ? "version " + std::to_string(t->version) + " (" +
                                               std::to_string(t->table_size) + " bytes)"
                                         : "no version (a build older than versioned tables)";
    PythonVeltraDataArray::pyutil::raise(
        PyExc_ImportError, "the capsule " VELTRA_CAPI_CAPSULE_NAME " has a function table of " + theirs +
                               ", but py_pb needs version " + std::to_string(VELTRA_CAPI_VERSION) + " (at least " +
                               std::to_string(kNeeded) +
                               " bytes): install py_pb and veltramultidimarrayforpython from the same build");
}

// Step 2: the typed array package, its capsule (the function table the numeric converters use) and its
// `double` type. Throws std::runtime_error with the step's message, leaving no Python error behind, except
// for a table of another version: ImportError.
void importArrayPackage() {
    Ref package = Ref::steal(PyImport_ImportModule("veltramultidimarrayforpython"));
    if (!package) {
        if (!PythonVeltraDataArray::pyutil::clearOrdinary()) throw PythonVeltraDataArray::pyutil::PyErrorSet{};
        std::string message = "Unable to import veltramultidimarrayforpython; sys.path: \n";
        PyObject* path = PySys_GetObject("path");  // borrowed
        if (path && PyList_Check(path)) {
            for (Py_ssize_t i = 0, n = PyList_Size(path); i < n; ++i)
                message += textOf(PyList_GetItem(path, i)) + "\n";
        }
        throw std::runtime_error(message);
    }

    void* table = PyCapsule_Import(VELTRA_CAPI_CAPSULE_NAME, 0);
    if (!table) {
        throwStep("Unable to import capsule");
    }
    const VeltraArrayCapi* capi = checkedTable(table);

    // Only checked: the converters reach the types through the capsule.
    if (!PythonVeltraDataArray::pyutil::Ref::steal(PyObject_GetAttrString(package.get(), "double"))) {
        throwStep("unable to retrieve type object 'double'");
    }
    PythonVeltraDataArray::detail::setCapsule(capi);
}

// The converters of the folders above convert/ go into its dispatchers once per process, whatever becomes of
// the module (a failed import tried again, a second import). A registration that threw is tried again with
// the next import; what it had registered stays.
void registerConverters() {
    static std::once_flag registered;
    std::call_once(registered, [] {
        using namespace PythonVeltraDataArray::detail;
        const auto& factory = sharedArrayFactory();
        // One instance per name, as for the dispatcher's own entries.
        registerToArray("veltra.object", std::make_shared<PyObjectToObject>(factory));
        registerToArray("veltra.dictionary", std::make_shared<PyDictionaryToDictionary>(factory));
        registerToArray("pandas.DataFrame", std::make_shared<PyDataFrameToTable>(factory));
        registerToArray("pandas.core.frame.DataFrame", std::make_shared<PyDataFrameToTable>(factory));

        registerClassToPython(engine::dictionary::kClass, dictionaryToPython);
        registerClassToPython(engine::table::kClass, [](const Array& a) { return tableToPython(a, false); });
        registerClassToPython(engine::timetable::kClass, [](const Array& a) { return tableToPython(a, true); });
        registerOtherObjectsToPython(PythonVeltraDataArray::types::wrapObjectArray);
    });
}

PyObject* py_to_serialized_str(PyObject* module, PyObject* args, PyObject* kwargs) {
    return PythonVeltraDataArray::module::pyToSerializedStr(module, args, kwargs);
}

PyObject* serialized_str_to_py(PyObject* module, PyObject* args, PyObject* kwargs) {
    return PythonVeltraDataArray::module::serializedStrToPy(module, args, kwargs);
}

// _plain_case(on): for tests, turns the plain values' way in both directions on or off (every value then goes
// through its converter); returns the setting it replaced.
PyObject* plain_case(PyObject*, PyObject* on) {
    const int wanted = PyObject_IsTrue(on);
    if (wanted < 0) return nullptr;
    const bool before = PythonVeltraDataArray::detail::plainCaseOn();
    PythonVeltraDataArray::detail::setPlainCase(wanted != 0);
    return PyBool_FromLong(before);
}

// Not in the method table, which holds the two functions users call.
PyMethodDef g_plainCase = {"_plain_case", plain_case, METH_O,
                           "For tests: turn the plain values' way on or off; returns the old setting."};

PyMethodDef g_methods[] = {
    {"py_to_serialized_str", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(py_to_serialized_str)),
     METH_VARARGS | METH_KEYWORDS, "Convert tuple of Python objects to protobuf-serialized byte string."},
    {"serialized_str_to_py", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(serialized_str_to_py)),
     METH_VARARGS | METH_KEYWORDS, "Convert protobuf-serialized byte string to tuple of Python objects."},
    {nullptr, nullptr, 0, nullptr},
};

// No per-module state (size -1): what the module keeps is process-wide (module_state.h, the registries).
PyModuleDef g_module = {
    PyModuleDef_HEAD_INIT,
    "py_pb",
    "py_pb",
    -1,
    g_methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_py_pb(void) {
    try {
        injectTypes();         // step 1
        importArrayPackage();  // step 2
        registerConverters();  // before anything converts
    } catch (...) {
        return PythonVeltraDataArray::pyutil::failFromCurrentException("Unable to initialize py_pb. Details: ");
    }

    // Step 3.
    PyObject* module = PyModule_Create2(&g_module, 1013);
    if (!module) {
        if (!PythonVeltraDataArray::pyutil::clearOrdinary()) return nullptr;
        PyErr_SetString(PyExc_ValueError, "Unable to create module");
        return nullptr;
    }
    const Ref switchFunction = Ref::steal(PyCFunction_New(&g_plainCase, nullptr));
    if (!switchFunction || PyModule_AddObjectRef(module, g_plainCase.ml_name, switchFunction.get()) < 0) {
        Py_DECREF(module);
        return nullptr;
    }
    return module;
}
