// The two functions' way for plain values (envelope/plain_values.h): arguments made of float, int, bool, str
// and lists, tuples and dicts of them are written straight from the Python objects into the parameters
// bytes, and results made of plain arrays are read straight into Python objects, without an Array per value.
// Either way the whole call is done here, or the shortcut declines before anything a caller could see has
// happened and the general path runs as if it had not been tried: values and errors are the general path's.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>

namespace PythonVeltraDataArray::module {

// What a shortcut did: `value` is the call's result, or null with a Python exception set when the call
// failed (a signal handler raised); `declined` leaves the call to the general path, with no error set.
struct Shortcut {
    PyObject* value = nullptr;
    bool declined = false;
};

// py_to_serialized_str for `obj` (the one positional argument) and nargout.
Shortcut plainParams(PyObject* obj, std::int32_t nargout);
// serialized_str_to_py for the result bytes.
Shortcut plainResult(const std::uint8_t* data, std::size_t size);

}  // namespace PythonVeltraDataArray::module
