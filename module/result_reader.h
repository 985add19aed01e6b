// A result message into Python, one array at a time: plain arrays (envelope/plain_values.h: real and logical
// scalars, char rows, cells and structs of them, the engine's datetime texts) straight from the bytes into
// Python objects, any other array decoded by the array codec and handed to its converter.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>

namespace PythonVeltraDataArray::module {

// serialized_str_to_py's value for the bytes of a VELTRA_Result: the outputs as a list, or the error as a dict.
// A new reference, or null with a Python exception set. Throws the codec's std::exception for bytes that are
// no valid result (the caller reports those); the bytes must not change while this runs.
PyObject* readResultToPython(const std::uint8_t* data, std::size_t size);

}  // namespace PythonVeltraDataArray::module
