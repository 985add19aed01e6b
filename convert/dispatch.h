// The two dispatchers: a Python object to its converter by type name, an array to its converter by kind and
// scalar-ness. Both registries are filled once, on first use, and only read afterwards.
#pragma once

#include <Python.h>

#include <memory>
#include <optional>

#include "convert/converter.h"

namespace PythonVeltraDataArray {

namespace VDAPBConverter {

// The process-wide factory through which the module and the container converters ask for converters. It owns
// the standalone array factory that every registered converter shares.
class Factory {
public:
    static const std::shared_ptr<Factory>& instance();

    // The converter registered for obj's type name, the "NULL" converter for a null object (or a type whose
    // name cannot be computed), the "<buffer>" converter for anything the capsule reads as a buffer, the
    // dictionary converter for any other mapping. Empty with a Python exception set otherwise.
    std::shared_ptr<detail::ConvertToVeltraDataArray> getConverter(PyObject* obj);

    // The scalar registry's converter for a one-element array (or always, with forceScalar), the array
    // registry's otherwise. Empty with TypeError set for sparse arrays and kinds without an entry.
    std::shared_ptr<detail::ConvertVDAToPyObject> getConverter(const detail::Array& a, bool forceScalar);

    const std::shared_ptr<detail::ArrayFactory>& arrayFactory() const { return arrayFactory_; }

    Factory();

private:
    std::shared_ptr<detail::ArrayFactory> arrayFactory_;
};

}  // namespace VDAPBConverter

namespace detail {

// Runs obj's converter. Absent with exactly one Python exception set when the converter fails, and also when
// it produced an array but left a Python error pending (an int beyond 64 bits, a failing truth test): that
// error is reported rather than the placeholder value.
std::optional<Array> convertToArray(PyObject* obj, const ConversionState& state);

// Runs the converter the array registry or the scalar registry holds for `a` (nested values: cell elements,
// struct fields). A new reference, or null with a Python exception set.
PyObject* convertToPython(const Array& a);

// What serialized_str_to_py returns for the array read from a result: sparse kinds, UNKNOWN and ENUM are
// refused with TypeError before a converter is chosen.
PyObject* toPython(const Array& a);

}  // namespace detail

}  // namespace PythonVeltraDataArray
