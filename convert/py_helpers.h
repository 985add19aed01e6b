// Attribute reads that fail with the module's own message.
#pragma once

#include <Python.h>

#include "pyutil/ref.h"

namespace PythonVeltraDataArray::detail {

// obj.name. A missing attribute becomes AttributeError "unable to retrieve attribute '" + name + "'"; any
// other error raised while reading it (a failing property) is left standing: it says more than ours would.
pyutil::Ref getAttribute(PyObject* obj, const char* name);

}  // namespace PythonVeltraDataArray::detail
