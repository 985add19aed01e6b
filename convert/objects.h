// Engine objects both ways: value objects routed by their class, everything Python has no type for held in a
// veltra.object (types/object.h).
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// "datetime" and "duration" value objects to their time values (datetime.h, duration.h), dictionaries to
// veltra.dictionary, tables and timetables to pandas.DataFrame; handle object arrays and value objects of
// other classes to a veltra.object.
VELTRA_TO_PYTHON_CONVERTER(VeltraObjectToPyObject);

// veltra.object -> the array it holds: the whole array, or the element it was indexed down to. IndexError
// for an object indexed in some dimensions only.
VELTRA_TO_ARRAY_CONVERTER(PyObjectToObject);

}  // namespace PythonVeltraDataArray::detail
