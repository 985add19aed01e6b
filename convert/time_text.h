// numpy's datetime64 and timedelta64 values without Python: the ISO text numpy prints for a datetime, the
// value numpy reads from such a text, and the milliseconds of a timedelta. Plain C++, so that a million
// elements cost one loop rather than a million Python calls; each function gives exactly what numpy gives,
// or declines (returns false) and leaves the element to numpy itself.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace PythonVeltraDataArray::detail {

// numpy's units, coarsest first.
enum class TimeUnit : std::int8_t { Year, Month, Week, Day, Hour, Minute, Second, Milli, Micro, Nano, Pico, Femto, Atto, Generic };

// The int64 pattern numpy stores for not-a-time.
inline constexpr std::int64_t kNaT = std::numeric_limits<std::int64_t>::min();

// The unit as numpy names it ("Y", "ms", "generic", ...); nothing for other names.
std::optional<TimeUnit> timeUnitFromName(std::string_view name);
const char* timeUnitName(TimeUnit unit);

// Appends what str() of a datetime64 holding `value` in units of `count` x `unit` gives ("2024-01-02",
// "2024-01-02T03:04:05.250", "NaT") as UTF-16. False, with nothing appended, where numpy's own str() must
// answer: generic units, and dates more than about three billion years from 1970.
bool formatDatetime(std::int64_t value, TimeUnit unit, std::int64_t count, std::u16string& out);

// A date-time text in the forms numpy writes: "NaT" (in any case) or "" for not-a-time, otherwise
// [-]YYYY[-MM[-DD[Thh[:mm[:ss[.f...]]]]]] with 1 to 18 fraction digits (a space may stand for the T).
struct DatetimeText {
    bool nat = false;
    TimeUnit unit = TimeUnit::Generic;  // the unit numpy infers from the text
    std::int64_t year = 1970;
    int month = 1, day = 1, hour = 0, minute = 0, second = 0;
    std::uint64_t fraction = 0;  // the fraction digits as an integer
    int fractionDigits = 0;
};
// False for any other text (time zones, other separators, fields out of range): numpy decides those.
bool parseDatetime(std::u16string_view text, DatetimeText& out);

// The parsed point in time as a count of `unit` (Year to Atto, not Week or Generic) since 1970, parts finer
// than the unit dropped toward the past, as numpy's casts drop them. False when the count does not fit an
// int64 (or would read as NaT). A Year or Month unit needs a text no finer than it.
bool datetimeValue(const DatetimeText& text, TimeUnit unit, std::int64_t& value);

// Whether the parsed point in time is a whole count of `unit` (Year to Atto, not Week or Generic): every part
// finer than the unit is zero, so that datetimeValue drops nothing.
bool datetimeExact(const DatetimeText& text, TimeUnit unit);

// The milliseconds numpy's cast to timedelta64[ms] gives for `value` in units of `count` x `unit` (finer
// units rounded toward the past, a year 365.2425 days, a month a twelfth of that), as a double and without
// the wrap-around numpy's int64 cast has for huge values. NaN for NaT.
double durationMillis(std::int64_t value, TimeUnit unit, std::int64_t count);

}  // namespace PythonVeltraDataArray::detail
