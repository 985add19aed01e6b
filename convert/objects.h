// Value objects and handle object references -> Python, routed by the value object's class.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// "datetime" and "duration" value objects to their time values (datetime.h, duration.h). Other classes and
// handle references are refused with TypeError naming the class, or the handle kind.
VELTRA_TO_PYTHON_CONVERTER(VeltraObjectToPyObject);

}  // namespace PythonVeltraDataArray::detail
