// Lengths of time <-> the engine's "duration" value object: one property, millis, a double array of the
// durations' shape (1x1 for one), NaN for not-a-time. The value object itself is always 1x1.
#pragma once

#include <optional>

#include "convert/converter.h"
#include "convert/time_text.h"

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

// Milliseconds (a real numeric array, NaN for not-a-time) as a numpy timedelta64 array shaped as `dims` (one-
// dimensional for a 1-by-N row): in `finest` (Nano, Micro or Milli) when every count fits it, else in the
// first coarser unit, down to weeks, that holds them all. Without `finest`: microseconds when a count has a
// fraction of a millisecond, milliseconds otherwise, which is what a single duration keeps. Counts are
// rounded to the unit, halves to even, as datetime.timedelta rounds to its microsecond. ValueError for
// millis of another kind, OverflowError for an infinite duration or one too long for weeks.
PyObject* millisToTimedelta64(const Array& millis, const foundation::veltradata::Dims& dims, std::optional<TimeUnit> finest);

}  // namespace PythonVeltraDataArray::detail
