// The two module functions. C++ exceptions stop here: none reaches the interpreter.
#pragma once

#include <Python.h>

namespace PythonVeltraDataArray::module {

// py_to_serialized_str(obj, schema=..., nargout=...) -> bytes of a VELTRA_Params message.
PyObject* pyToSerializedStr(PyObject* module, PyObject* args, PyObject* kwargs) noexcept;

// serialized_str_to_py(data, schema=...) -> the outputs of a VELTRA_Result (a list), or its error as a dict.
PyObject* serializedStrToPy(PyObject* module, PyObject* args, PyObject* kwargs) noexcept;

}  // namespace PythonVeltraDataArray::module
