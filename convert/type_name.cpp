#include "convert/type_name.h"

#include "convert/py_ref.h"

namespace PythonVeltraDataArray::detail {

namespace {

// A str object's text, or nothing (with no Python error left behind) when it is not a str or not encodable.
std::optional<std::string> strText(PyObject* s) {
    if (!s || !PyUnicode_Check(s)) return std::nullopt;
    Py_ssize_t n = 0;
    const char* p = PyUnicode_AsUTF8AndSize(s, &n);
    if (!p) {
        PyErr_Clear();
        return std::nullopt;
    }
    return std::string(p, static_cast<std::size_t>(n));
}

// `__module__` as held in the type's own dictionary (not inherited), or nothing.
std::optional<std::string> ownModule(PyObject* type) {
    PyRef dict = PyRef::steal(PyObject_GetAttrString(type, "__dict__"));
    if (!dict) {
        PyErr_Clear();
        return std::nullopt;
    }
    PyRef module = PyRef::steal(PyMapping_GetItemString(dict.get(), "__module__"));
    if (!module) {
        PyErr_Clear();
        return std::nullopt;
    }
    return strText(module.get());
}

// What the type's tp_name holds. The limited API does not expose tp_name, so it is rebuilt from what it is
// made of: a static type's tp_name is "module.name" (plain "name" for builtins), and type.__module__ and
// type.__name__ are exactly those two parts of it. A heap type's name is its __name__: a class statement sets
// tp_name to it, and a type made from a spec with a dotted name already keeps the module in its dict, which
// the caller prefixes.
std::string tpName(PyTypeObject* type) {
    PyRef name = PyRef::steal(PyType_GetName(type));
    std::optional<std::string> text = strText(name.get());
    if (!name) PyErr_Clear();
    std::string result = text.value_or(std::string());
    if (PyType_GetFlags(type) & Py_TPFLAGS_HEAPTYPE) return result;

    PyRef module = PyRef::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), "__module__"));
    if (!module) {
        PyErr_Clear();
        return result;
    }
    std::optional<std::string> moduleText = strText(module.get());
    if (moduleText && !moduleText->empty() && *moduleText != "builtins") return *moduleText + "." + result;
    return result;
}

}  // namespace

std::string unsupportedTypeText(const std::string& name) {
    return "conversion of Python data type '" + name + "' to VELTRA not supported";
}

std::optional<std::string> pythonTypeName(PyObject* obj) {
    PyTypeObject* type = Py_TYPE(obj);
    std::string name = tpName(type);
    std::optional<std::string> module = ownModule(reinterpret_cast<PyObject*>(type));
    if (module && !module->empty() && *module != "builtins") name = *module + "." + name;
    if (name.empty()) {
        PyErr_SetString(PyExc_TypeError, unsupportedTypeText(name).c_str());
        return std::nullopt;
    }
    return name;
}

}  // namespace PythonVeltraDataArray::detail
