// veltra.dictionary: the engine's dictionary on the Python side, a mapping over one ordinary dict, plus the
// engine array it came from (if it came from the engine) so that an unchanged dictionary can go back as it
// came. Its iterator type, veltra.dictionary_iter, yields the keys.
#pragma once

#include <Python.h>

#include <optional>

#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::types {

// The two types, created once per process; new references, or null with an error set.
PyObject* dictionaryType();
PyObject* dictionaryIterType();

// A new veltra.dictionary over `pairs` (a dict, taken over: the caller's reference is stolen) that remembers
// `source`, the engine dictionary it was read from, and counts as unchanged until an item is assigned or
// deleted. `valuesFixed` records that every value is one that cannot change in place and holds nothing that
// can (a number, a str ...), so that the pairs are still what `source` holds for as long as none is assigned
// or deleted. Null with an error set.
PyObject* newDictionaryFromEngine(PyObject* pairs, const foundation::veltradata::Array& source, bool valuesFixed);

// For a veltra.dictionary (checked by its real type): true, with its inner dict (borrowed) and, when no item
// was assigned or deleted since it was read from the engine, that array and whether its values were all fixed
// then. False, with nothing set, for any other object. The inner dict is null for a dictionary the garbage
// collector has cleared.
bool dictionaryContents(PyObject* obj, PyObject*& pairs, std::optional<foundation::veltradata::Array>& unchangedSource,
                        bool& valuesFixed);

}  // namespace PythonVeltraDataArray::types
