// veltra.dictionary: the engine's dictionary on the Python side, a mapping over one ordinary dict, plus the
// engine array it came from (if it came from the engine) so that an unchanged dictionary can go back as it
// came. Its iterator type, veltra.dictionary_iter, yields the keys.
#pragma once

#include <Python.h>

namespace PythonVeltraDataArray::types {

// The two types, created once per process; new references, or null with an error set.
PyObject* dictionaryType();
PyObject* dictionaryIterType();

}  // namespace PythonVeltraDataArray::types
