// Results made of plain arrays (envelope/plain_values.h) read straight into Python objects, without an Array
// per value. The whole result is read here, or this declines before anything a caller could see has happened
// and the general reader runs as if it had not been tried: values and errors are the general reader's.
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

// serialized_str_to_py for the result bytes.
Shortcut plainResult(const std::uint8_t* data, std::size_t size);

}  // namespace PythonVeltraDataArray::module
