// Engine objects to Python: value objects routed by their class, everything Python has no type for held in
// whatever registration.h was given for it (a veltra.object).
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// "datetime" and "duration" value objects to their time values (datetime.h, duration.h); value objects of a
// class registered with registerClassToPython (dictionaries, tables, timetables) by that converter; handle
// object arrays and value objects of other classes by the one registered with registerOtherObjectsToPython.
VELTRA_TO_PYTHON_CONVERTER(VeltraObjectToPyObject);

}  // namespace PythonVeltraDataArray::detail
