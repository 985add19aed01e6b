// The name under which a Python object's type is looked up in the Python-to-array registry and shown in
// messages: "float", "numpy.ndarray", "datetime.datetime", "__main__.MyInt", "pandas.DataFrame".
#pragma once

#include <Python.h>

#include <optional>
#include <string>

namespace PythonVeltraDataArray::detail {

// The type name of `obj` (not null). Nothing when it cannot be computed: then the name came out empty and
// TypeError "conversion of Python data type '' to VELTRA not supported" is set.
std::optional<std::string> pythonTypeName(PyObject* obj);

// "conversion of Python data type '" + name + "' to VELTRA not supported"
std::string unsupportedTypeText(const std::string& name);

}  // namespace PythonVeltraDataArray::detail
