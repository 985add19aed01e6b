// Points in time <-> the engine's "datetime" value object. Two forms travel:
//  - field form: TimeZone (1x1 string) and Year, Month, Day, Hour, Minute (int64), Second (double), written
//    for standard-library and pandas datetimes and read back as datetime.datetime;
//  - text form: DateString, a string array holding the ISO text numpy prints for each element (or "NaT"),
//    written for numpy datetime64 scalars and arrays and read back as numpy datetime64 values.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

// The TimeZone text of a fixed offset, "+HH:MM:SS". Each part truncates toward zero and the sign is the
// hours' alone, so minus thirty minutes reads "+00:30:00".
std::u16string offsetText(long long days, long long seconds, long long microseconds);

// The zone a "datetime" value object's TimeZone names, as pandas takes it in tz_localize: the zone's name (a
// str, "UTC" included), a datetime.timezone for a fixed offset, None when it names none. Null with an error.
PyObject* timeZoneForPandas(const Array& a);

// datetime.datetime and pandas timestamps (anything with the datetime attributes) -> field form. The zone:
// a ZoneInfo's key, a fixed offset as "+HH:MM:SS" (the sign taken from the hours alone), "" when naive;
// TypeError for other tzinfo classes. Sub-microsecond parts are not read.
VELTRA_TO_ARRAY_CONVERTER(PyDatetimeToDatetime);

// numpy.datetime64 -> text form, DateString 1x1: str() of the scalar.
VELTRA_TO_ARRAY_CONVERTER(PyNumpyDatetime64ScalarToDatetime);

// A numpy array of kind "M" -> text form, DateString of the array's shape in column-major order; the same
// texts str() gives per element, made without a Python call per element.
VELTRA_TO_ARRAY_CONVERTER(PyNumpyDatetime64ArrayToDatetime);

// Element 0 as double -> int, rounded half away from zero. ValueError "array is empty"; NaN: ValueError
// "conversion of VELTRA datetime scalar 'NaT' to Python not supported".
VELTRA_TO_PYTHON_CONVERTER(DoubleToPyLong);

// Element 0 as double seconds -> (seconds, microseconds), microseconds rounded half away from zero.
// ValueError "array is empty"; NaN as in DoubleToPyLong.
VELTRA_TO_PYTHON_CONVERTER(DoubleToPySecondsAndMicroseconds);

// A "datetime" value object -> Python. One element: datetime.datetime from the field form (with a tzinfo
// when the zone says so), or, in the text form, numpy.datetime64 for a 1x1 DateString and a datetime64 array
// of its shape otherwise. Other element counts: a datetime64[ns] array of the engine's shape (coarser, from
// datetime64[us] on, when a date lies outside what nanoseconds can count and no text loses a nonzero digit by
// it; ValueError "outside the range" otherwise), NaT for missing texts.
PyObject* datetimeToPython(const Array& a);

// The engine's datetime array of n elements (any shape but 1-by-1) as datetime64[ns], from each element's
// DateString: `textAt(i, text)` sets element i's text (empty for a missing one), or returns false with an
// error set.
PyObject* datetimeArrayFromTexts(std::uint64_t n, const foundation::veltradata::Dims& dims,
                                 const std::function<bool(std::uint64_t, std::u16string_view&)>& textAt);

}  // namespace PythonVeltraDataArray::detail
