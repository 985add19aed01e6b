#include "convert/py_helpers.h"

namespace PythonVeltraDataArray::detail {

std::string attributeErrorText(const char* name) {
    return std::string("unable to retrieve attribute '") + name + "'";
}

std::string methodErrorText(const char* name) {
    return std::string("unable to call method '") + name + "'";
}

PyRef getAttribute(PyObject* obj, const char* name, PyObject* excType) {
    PyRef value = PyRef::steal(PyObject_GetAttrString(obj, name));
    if (!value) {
        // Keep an error the attribute itself raised: it says more than ours would.
        if (!PyErr_Occurred() || PyErr_ExceptionMatches(PyExc_AttributeError)) {
            PyErr_Clear();
            PyErr_SetString(excType ? excType : PyExc_AttributeError, attributeErrorText(name).c_str());
        }
    }
    return value;
}

bool getLongLongAttribute(PyObject* obj, const char* name, long long& out) {
    PyRef value = getAttribute(obj, name, PyExc_IndexError);
    if (!value) return false;
    long long v = PyLong_AsLongLong(value.get());
    if (v == -1 && PyErr_Occurred()) return false;
    out = v;
    return true;
}

PyRef callMethod(PyObject* obj, const char* name) {
    PyRef result = PyRef::steal(PyObject_CallMethod(obj, name, nullptr));
    if (!result) {
        PyErr_Clear();
        PyErr_SetString(PyExc_AttributeError, methodErrorText(name).c_str());
    }
    return result;
}

PyRef callMethod(PyObject* obj, const char* name, PyObject* args, PyObject* kwargs) {
    PyRef method = PyRef::steal(PyObject_GetAttrString(obj, name));
    if (!method) {
        PyErr_Clear();
        PyErr_SetString(PyExc_AttributeError, methodErrorText(name).c_str());
        return method;
    }
    return PyRef::steal(PyObject_Call(method.get(), args, kwargs));
}

PyRef importModule(const char* name) {
    PyRef module = PyRef::steal(PyImport_ImportModule(name));
    if (!module) {
        PyErr_Clear();
        PyErr_SetString(PyExc_ImportError, (std::string("failed to import module '") + name + "'").c_str());
    }
    return module;
}

}  // namespace PythonVeltraDataArray::detail
