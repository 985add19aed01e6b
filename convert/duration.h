// Lengths of time <-> the engine's "duration" value object: one property, millis, a double array of the
// durations' shape (1x1 for one), NaN for not-a-time. The value object itself is always 1x1.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// datetime.timedelta and pandas timedeltas (anything with days, seconds, microseconds) -> millis 1x1, the
// microseconds below a millisecond dropped toward zero; a pandas timedelta's nanoseconds are not read.
VELTRA_TO_ARRAY_CONVERTER(PyTimedeltaToDuration);

// numpy.timedelta64 scalars, and numpy arrays of kind "m" (with their shape, in column-major order) ->
// millis as numpy's cast to timedelta64[ms] gives them, NaT as NaN, without a Python call per element.
VELTRA_TO_ARRAY_CONVERTER(PyNumpyTimedelta64ToDuration);

// A "duration" value object -> datetime.timedelta for one millisecond count, otherwise a timedelta64[ms]
// array of millis's shape (one-dimensional for a 1-by-N row). Counts beyond what milliseconds can hold in
// 64 bits come back at a coarser unit rather than wrapped; an infinite one is refused with OverflowError.
PyObject* durationToPython(const Array& a);

}  // namespace PythonVeltraDataArray::detail
