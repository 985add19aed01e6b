// Where the converters that live above convert/ plug into its dispatchers: tables, veltra.object and
// veltra.dictionary. module/ registers them once, at start-up, before anything converts; the dispatchers only
// read them afterwards.
#pragma once

#include <Python.h>

#include <memory>
#include <string>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// Python -> engine: `converter` takes the objects whose type is named `typeName`, spelt as pyutil::typeName
// spells it ("pandas.DataFrame"). The one for "veltra.dictionary" also takes every mapping that has no converter
// of its own, and the one for "pandas.DataFrame" every DataFrame subclass. A name already taken keeps its
// converter.
void registerToArray(const std::string& typeName, std::shared_ptr<ConvertToVeltraDataArray> converter);

// Engine -> Python for object arrays: a new reference, or null with a Python exception set.
using ObjectToPython = PyObject* (*)(const Array& a);

// `toPython` converts value objects of the engine class `className` ("table"). A class already taken keeps
// its converter.
void registerClassToPython(const std::string& className, ObjectToPython toPython);

// `toPython` converts handle objects and value objects of every class without a converter of its own. The
// first one registered stays.
void registerOtherObjectsToPython(ObjectToPython toPython);

}  // namespace PythonVeltraDataArray::detail
