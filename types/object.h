// veltra.object: an opaque, indexable hold on an engine object array (handle objects, or value objects of a
// class Python has no type for), kept unchanged so that it, or one element of it, can go back to the engine.
// Indexing walks the dimensions one index at a time, column-major, and always makes a new instance.
#pragma once

#include <Python.h>

#include <optional>

#include "convert/converter.h"
#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::types {

// Creates the type once per process; a new reference to it, or null with an error set.
PyObject* objectType();

// A new unindexed veltra.object holding `a`; null with an error set.
PyObject* wrapObjectArray(const foundation::veltradata::Array& a);

// What `obj` stands for on its way back to the engine: the whole array when unindexed, the selected 1x1
// element when indexed in every dimension. IndexError "number of indices (N) not equal to the number of
// dimensions (M)" for a partly indexed one; TypeError when obj is no veltra.object. Nothing with the error set.
std::optional<foundation::veltradata::Array> objectArray(PyObject* obj);

}  // namespace PythonVeltraDataArray::types

namespace PythonVeltraDataArray::detail {

// veltra.object -> the array it holds: the whole array, or the element it was indexed down to (objectArray).
VELTRA_TO_ARRAY_CONVERTER(PyObjectToObject);

}  // namespace PythonVeltraDataArray::detail
