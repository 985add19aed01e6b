#include "convert/py_helpers.h"

#include <string>

#include "pyutil/error.h"

namespace PythonVeltraDataArray::detail {

pyutil::Ref importModule(const char* name) {
    pyutil::Ref module = pyutil::Ref::steal(PyImport_ImportModule(name));
    if (!module) pyutil::replaceError(PyExc_ImportError, std::string("failed to import module '") + name + "'");
    return module;
}

pyutil::Ref getAttribute(PyObject* obj, const char* name) {
    pyutil::Ref value = pyutil::Ref::steal(PyObject_GetAttrString(obj, name));
    if (!value && (!PyErr_Occurred() || PyErr_ExceptionMatches(PyExc_AttributeError))) {
        PyErr_Clear();
        PyErr_SetString(PyExc_AttributeError, (std::string("unable to retrieve attribute '") + name + "'").c_str());
    }
    return value;
}

bool getInt64Attribute(PyObject* obj, const char* name, long long& out) {
    pyutil::Ref value = pyutil::Ref::steal(PyObject_GetAttrString(obj, name));
    if (!value) {
        if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
            PyErr_Clear();
            PyErr_SetString(PyExc_IndexError, (std::string("unable to retrieve attribute '") + name + "'").c_str());
        }
        return false;
    }
    out = PyLong_AsLongLong(value.get());
    return !(out == -1 && PyErr_Occurred());
}

pyutil::Ref callMethod(PyObject* obj, const char* name) {
    pyutil::Ref result = pyutil::Ref::steal(PyObject_CallMethod(obj, name, nullptr));
    if (!result) pyutil::replaceError(PyExc_AttributeError, std::string("unable to call method '") + name + "'");
    return result;
}

}  // namespace PythonVeltraDataArray::detail
