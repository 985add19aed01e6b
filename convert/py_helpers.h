// Small Python helpers shared by the converters: attribute reads, method calls and imports that fail with the
// module's own messages. Each returns an empty PyRef (or false) with exactly one Python exception set.
#pragma once

#include <Python.h>

#include <string>

#include "convert/py_ref.h"

namespace PythonVeltraDataArray::detail {

// "unable to retrieve attribute '" + name + "'"
std::string attributeErrorText(const char* name);
// "unable to call method '" + name + "'"
std::string methodErrorText(const char* name);

// obj.name. A missing attribute becomes `excType` (AttributeError unless given) with attributeErrorText; any
// other error raised while reading it (a failing property) is left standing.
PyRef getAttribute(PyObject* obj, const char* name, PyObject* excType = nullptr);

// obj.name read as a C long long. Missing: IndexError with attributeErrorText; a failed conversion leaves its
// own Python error standing.
bool getLongLongAttribute(PyObject* obj, const char* name, long long& out);

// obj.name() without arguments; any failure becomes AttributeError with methodErrorText.
PyRef callMethod(PyObject* obj, const char* name);

// obj.name(*args, **kwargs); args must be a tuple, kwargs may be null. A missing method becomes
// AttributeError with methodErrorText; an error raised by the call itself is passed on as it is.
PyRef callMethod(PyObject* obj, const char* name, PyObject* args, PyObject* kwargs);

// import name; failure: ImportError "failed to import module '" + name + "'".
PyRef importModule(const char* name);

}  // namespace PythonVeltraDataArray::detail
