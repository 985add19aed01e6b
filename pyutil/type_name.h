// The name of an object's type as users write it, for registry lookups and messages: "float", "numpy.ndarray",
// "datetime.datetime", "__main__.MyInt", "pandas.core.frame.DataFrame".
//
// A type whose own dictionary (not an inherited one) holds a non-empty `__module__` other than "builtins" is
// named module + "." + its tp_name; any other type by its tp_name alone. So a class statement in module m
// gives "m.Name", a built-in type "float", and an extension type with a dotted tp_name keeps that name.
#pragma once

#include <Python.h>

#include <optional>
#include <string>

#include "pyutil/error.h"
#include "pyutil/ref.h"

namespace PythonVeltraDataArray::pyutil {

namespace type_name_detail {

// The text of a str object; nothing (and no error left behind) for anything else.
inline std::optional<std::string> strText(PyObject* s) {
    if (!s || !PyUnicode_Check(s)) return std::nullopt;
    Py_ssize_t n = 0;
    const char* p = PyUnicode_AsUTF8AndSize(s, &n);
    if (!p) {
        clearOrdinary();
        return std::nullopt;
    }
    return std::string(p, static_cast<std::size_t>(n));
}

inline bool isModulePrefix(const std::optional<std::string>& m) { return m && !m->empty() && *m != "builtins"; }

// What the type's tp_name holds. The limited API does not expose tp_name, so it is rebuilt from its parts: a
// static type's tp_name is "module.name" ("name" for builtins), which type.__module__ and type.__name__ give;
// a heap type's tp_name is its __name__ (a class statement sets it so; a type made from a spec with a dotted
// name keeps the module in its dict, which the caller adds).
inline std::string tpName(PyTypeObject* type) {
    const std::string name = strText(Ref::steal(PyType_GetName(type)).get()).value_or(std::string());
    if (!clearOrdinary() || (PyType_GetFlags(type) & Py_TPFLAGS_HEAPTYPE)) return name;
    Ref module = Ref::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), "__module__"));
    if (!clearOrdinary()) return name;
    const std::optional<std::string> moduleText = strText(module.get());
    return isModulePrefix(moduleText) ? *moduleText + "." + name : name;
}

// `__module__` as the type's own dictionary holds it.
inline std::optional<std::string> ownModule(PyTypeObject* type) {
    Ref dict = Ref::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), "__dict__"));
    Ref module = dict ? Ref::steal(PyMapping_GetItemString(dict.get(), "__module__")) : Ref();
    if (!clearOrdinary()) return std::nullopt;
    return strText(module.get());
}

}  // namespace type_name_detail

// Never fails and leaves the error indicator as it was, but for an error that is not ordinary raised while
// looking (a KeyboardInterrupt), which stands; "" when no name can be made.
inline std::string typeName(PyObject* obj) {
    ErrorAside aside;
    PyTypeObject* type = Py_TYPE(obj);
    std::string name = type_name_detail::tpName(type);
    if (PyErr_Occurred()) return name;  // an interrupt: it stands, and the caller's failure follows
    const std::optional<std::string> module = type_name_detail::ownModule(type);
    if (type_name_detail::isModulePrefix(module)) name = *module + "." + name;
    return name;
}

}  // namespace PythonVeltraDataArray::pyutil
