// Attribute reads that fail with the module's own message.
#pragma once

#include <Python.h>

#include "pyutil/ref.h"

namespace PythonVeltraDataArray::detail {

// import name; ImportError "failed to import module '" + name + "'", with the import's own error as its cause.
pyutil::Ref importModule(const char* name);

// obj.name. A missing attribute becomes AttributeError "unable to retrieve attribute '" + name + "'"; any
// other error raised while reading it (a failing property) is left standing: it says more than ours would.
pyutil::Ref getAttribute(PyObject* obj, const char* name);

// obj.name as a 64-bit integer. A missing attribute: IndexError "unable to retrieve attribute '" + name + "'";
// a value PyLong_AsLongLong refuses: its own error. False with the error set.
bool getInt64Attribute(PyObject* obj, const char* name, long long& out);

// obj.name(). When the call fails: AttributeError "unable to call method '" + name + "'", with the call's own
// error as its cause.
pyutil::Ref callMethod(PyObject* obj, const char* name);

}  // namespace PythonVeltraDataArray::detail
