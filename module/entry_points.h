// The two module functions. C++ exceptions stop here: none reaches the interpreter.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>

#include "pyutil/ref.h"

namespace PythonVeltraDataArray::module {

// py_to_serialized_str(obj, schema=..., nargout=...) -> bytes of a VELTRA_Params message.
PyObject* pyToSerializedStr(PyObject* module, PyObject* args, PyObject* kwargs) noexcept;

// serialized_str_to_py(data, schema=...) -> the outputs of a VELTRA_Result (a list), or its error as a dict.
PyObject* serializedStrToPy(PyObject* module, PyObject* args, PyObject* kwargs) noexcept;

// A new bytes object of `size` bytes for a message that is then written at `out`, once: large ones are
// written into fresh memory, where huge pages halve the cost of first touch. Null with an error set.
pyutil::Ref newMessageBytes(std::size_t size, std::uint8_t*& out);

}  // namespace PythonVeltraDataArray::module
