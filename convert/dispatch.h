// The two dispatchers: a Python object to its converter by type name, an array to its converter by kind and
// scalar-ness. Both registries are filled once, on first use, take what module/ registers at start-up
// (registration.h), and are only read afterwards.
#pragma once

#include <Python.h>

#include <memory>
#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray {

namespace detail {

// The array factory every registered converter shares, made with the registries on first use.
const std::shared_ptr<ArrayFactory>& sharedArrayFactory();

// Runs the converter registered for obj's type name: the "NULL" converter for a null object (or a type whose
// name cannot be computed), the "<buffer>" converter for anything else the capsule reads as a buffer, the
// one registered for "veltra.dictionary" for any other mapping (for a DataFrame subclass, the one for
// "pandas.DataFrame"). Absent with exactly one Python exception set.
std::optional<Array> convertToArray(PyObject* obj, const ConversionState& state);

// Runs the converter the scalar registry (one-element arrays) or the array registry (all others) holds for
// `a` (nested values: cell elements, struct fields). A new reference, or null with a Python exception set:
// TypeError for sparse arrays and kinds without an entry.
PyObject* convertToPython(const Array& a);

// What serialized_str_to_py returns for the array read from a result: sparse kinds, UNKNOWN and ENUM are
// refused with TypeError before a converter is chosen.
PyObject* toPython(const Array& a);

}  // namespace detail

}  // namespace PythonVeltraDataArray
