#include "convert/time_text.h"

#include <array>
#include <cmath>

namespace PythonVeltraDataArray::detail {

namespace {

using i128 = __int128;

constexpr std::array<const char*, 14> kUnitNames = {"Y",  "M",  "W",  "D",  "h",  "m",  "s",
                                                   "ms", "us", "ns", "ps", "fs", "as", "generic"};

// Dates this far from 1970 are printed here; numpy's own arithmetic stays exact well beyond.
constexpr std::int64_t kDayLimit = std::int64_t{1} << 40;

constexpr std::array<std::uint64_t, 19> kPow10 = [] {
    std::array<std::uint64_t, 19> p{};
    p[0] = 1;
    for (std::size_t k = 1; k < p.size(); ++k) p[k] = p[k - 1] * 10;
    return p;
}();
// 10^n for 0 <= n <= 36.
constexpr i128 pow10(int n) { return n <= 18 ? i128(kPow10[static_cast<std::size_t>(n)]) : i128(kPow10[18]) * kPow10[static_cast<std::size_t>(n - 18)]; }

// Fraction digits of the second-or-finer units (Second has none).
constexpr int fractionDigitsOf(TimeUnit u) { return 3 * (static_cast<int>(u) - static_cast<int>(TimeUnit::Second)); }

i128 floorDiv(i128 a, i128 b) {
    i128 q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

// Days since 1970-01-01 and the proleptic Gregorian date, both ways (the era-based civil algorithms).
void civilFromDays(std::int64_t z, std::int64_t& y, int& m, int& d) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
}

i128 daysFromCivil(std::int64_t y, int m, int d) {
    const i128 yy = static_cast<i128>(y) - (m <= 2);
    const i128 era = (yy >= 0 ? yy : yy - 399) / 400;
    const auto yoe = static_cast<unsigned>(yy - era * 400);
    const unsigned doy = (153 * static_cast<unsigned>(m > 2 ? m - 3 : m + 9) + 2) / 5 + static_cast<unsigned>(d) - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

bool isLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }
int daysInMonth(std::int64_t y, int m) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Writes the decimal digits of v (>= 0), at least `width` of them, zero-padded; returns the new end.
char16_t* putDigits(char16_t* p, std::uint64_t v, int width) {
    int n = 1;
    for (std::uint64_t t = v / 10; t; t /= 10) ++n;
    if (n < width) n = width;
    for (int k = n - 1; k >= 0; --k) {
        p[k] = static_cast<char16_t>(u'0' + v % 10);
        v /= 10;
    }
    return p + n;
}
char16_t* putTwo(char16_t* p, unsigned v) {
    p[0] = static_cast<char16_t>(u'0' + v / 10);
    p[1] = static_cast<char16_t>(u'0' + v % 10);
    return p + 2;
}

// A year as C's "%04lld" writes it: the sign counts toward the width ("-030").
char16_t* putYear(char16_t* p, std::int64_t y) {
    if (y < 0) {
        *p++ = u'-';
        return putDigits(p, static_cast<std::uint64_t>(-y), 3);
    }
    return putDigits(p, static_cast<std::uint64_t>(y), 4);
}

}  // namespace

std::optional<TimeUnit> timeUnitFromName(std::string_view name) {
    for (std::size_t i = 0; i < kUnitNames.size(); ++i)
        if (name == kUnitNames[i]) return static_cast<TimeUnit>(i);
    return std::nullopt;
}

const char* timeUnitName(TimeUnit unit) { return kUnitNames[static_cast<std::size_t>(unit)]; }

bool formatDatetime(std::int64_t value, TimeUnit unit, std::int64_t count, std::u16string& out) {
    if (value == kNaT) {
        out.append(u"NaT");
        return true;
    }
    if (unit == TimeUnit::Generic || count < 1) return false;
    const i128 total = static_cast<i128>(value) * count;  // in the base unit
    // numpy multiplies in 64 bits: where that wraps, only its own str() prints what it prints.
    if (total > std::numeric_limits<std::int64_t>::max() || total < std::numeric_limits<std::int64_t>::min())
        return false;
    char16_t buf[64];
    char16_t* p = buf;

    if (unit == TimeUnit::Year || unit == TimeUnit::Month) {
        const i128 years = unit == TimeUnit::Year ? total : floorDiv(total, 12);
        if (years > kDayLimit || years < -kDayLimit) return false;
        p = putYear(p, static_cast<std::int64_t>(years) + 1970);
        if (unit == TimeUnit::Month) {
            *p++ = u'-';
            p = putTwo(p, static_cast<unsigned>(total - years * 12) + 1);
        }
        out.append(buf, p);
        return true;
    }

    // Whole days and what is left of the last one, in the base unit (a week is printed as its first day).
    i128 perDay = 1;
    switch (unit) {
        case TimeUnit::Week: perDay = 1; break;
        case TimeUnit::Day: perDay = 1; break;
        case TimeUnit::Hour: perDay = 24; break;
        case TimeUnit::Minute: perDay = 1440; break;
        default: perDay = 86400 * pow10(fractionDigitsOf(unit)); break;
    }
    i128 days = 0, rest = 0;
    if (unit == TimeUnit::Week) {
        days = total * 7;
    } else if (perDay <= std::numeric_limits<std::int64_t>::max() && total > std::numeric_limits<std::int64_t>::min() &&
               total <= std::numeric_limits<std::int64_t>::max()) {
        // 64-bit division where it suffices: this loop runs once per element of large arrays.
        const auto t64 = static_cast<std::int64_t>(total), d64 = static_cast<std::int64_t>(perDay);
        std::int64_t q = t64 / d64, r = t64 % d64;
        if (r < 0) {
            --q;
            r += d64;
        }
        days = q;
        rest = r;
    } else {
        days = floorDiv(total, perDay);
        rest = total - days * perDay;
    }
    if (days > kDayLimit || days < -kDayLimit) return false;

    std::int64_t y = 0;
    int m = 0, d = 0;
    civilFromDays(static_cast<std::int64_t>(days), y, m, d);
    p = putYear(p, y);
    *p++ = u'-';
    p = putTwo(p, static_cast<unsigned>(m));
    *p++ = u'-';
    p = putTwo(p, static_cast<unsigned>(d));
    if (unit > TimeUnit::Day) {
        // rest is below one day: a second count and a fraction below 10^18 both fit 64 bits.
        std::uint64_t s = 0, fraction = 0;
        const int digits = unit >= TimeUnit::Second ? fractionDigitsOf(unit) : 0;
        if (unit == TimeUnit::Hour) {
            s = static_cast<std::uint64_t>(rest) * 3600;
        } else if (unit == TimeUnit::Minute) {
            s = static_cast<std::uint64_t>(rest) * 60;
        } else if (digits <= 18 && rest <= std::numeric_limits<std::int64_t>::max()) {
            const auto scale = static_cast<std::uint64_t>(pow10(digits));
            s = static_cast<std::uint64_t>(rest) / scale;
            fraction = static_cast<std::uint64_t>(rest) % scale;
        } else {
            s = static_cast<std::uint64_t>(rest / pow10(digits));
            fraction = static_cast<std::uint64_t>(rest % pow10(digits));
        }
        *p++ = u'T';
        p = putTwo(p, static_cast<unsigned>(s / 3600));
        if (unit >= TimeUnit::Minute) {
            *p++ = u':';
            p = putTwo(p, static_cast<unsigned>(s / 60 % 60));
        }
        if (unit >= TimeUnit::Second) {
            *p++ = u':';
            p = putTwo(p, static_cast<unsigned>(s % 60));
        }
        if (digits) {
            *p++ = u'.';
            p = putDigits(p, fraction, digits);
        }
    }
    out.append(buf, p);
    return true;
}

bool parseDatetime(std::u16string_view text, DatetimeText& out) {
    out = DatetimeText{};
    if (text.empty() ||
        (text.size() == 3 && (text[0] | 0x20) == u'n' && (text[1] | 0x20) == u'a' && (text[2] | 0x20) == u't')) {
        out.nat = true;
        return true;
    }
    std::size_t i = 0;
    const std::size_t n = text.size();
    auto digit = [&](std::size_t k) { return k < n && text[k] >= u'0' && text[k] <= u'9'; };
    // Exactly two digits at i.
    auto fixed = [&](int /*width: always 2*/, int& v) {
        if (!digit(i) || !digit(i + 1)) return false;
        v = (text[i] - u'0') * 10 + (text[i + 1] - u'0');
        i += 2;
        return true;
    };

    bool negative = false;
    if (text[0] == u'-' || text[0] == u'+') {
        negative = text[0] == u'-';
        ++i;
    }
    const std::size_t yearStart = i;
    std::int64_t year = 0;
    while (digit(i)) {
        // Up to what an int64 year holds, as numpy prints for the coarse units.
        if (year > (std::numeric_limits<std::int64_t>::max() - 9) / 10) return false;
        year = year * 10 + (text[i++] - u'0');
    }
    if (i == yearStart) return false;
    out.year = negative ? -year : year;
    out.unit = TimeUnit::Year;
    if (i == n) return true;

    if (text[i++] != u'-' || !fixed(2, out.month) || out.month < 1 || out.month > 12) return false;
    out.unit = TimeUnit::Month;
    if (i == n) return true;

    if (text[i++] != u'-' || !fixed(2, out.day) || out.day < 1 || out.day > daysInMonth(out.year, out.month))
        return false;
    out.unit = TimeUnit::Day;
    if (i == n) return true;

    if (text[i] != u'T' && text[i] != u' ') return false;
    ++i;
    if (!fixed(2, out.hour) || out.hour > 23) return false;
    out.unit = TimeUnit::Hour;
    if (i == n) return true;

    if (text[i++] != u':' || !fixed(2, out.minute) || out.minute > 59) return false;
    out.unit = TimeUnit::Minute;
    if (i == n) return true;

    if (text[i++] != u':' || !fixed(2, out.second) || out.second > 59) return false;
    out.unit = TimeUnit::Second;
    if (i == n) return true;

    if (text[i++] != u'.') return false;
    while (digit(i)) {
        if (out.fractionDigits == 18) return false;
        out.fraction = out.fraction * 10 + static_cast<std::uint64_t>(text[i++] - u'0');
        ++out.fractionDigits;
    }
    if (i != n || out.fractionDigits == 0) return false;
    out.unit = static_cast<TimeUnit>(static_cast<int>(TimeUnit::Second) + (out.fractionDigits + 2) / 3);
    return true;
}

bool datetimeValue(const DatetimeText& t, TimeUnit unit, std::int64_t& value) {
    i128 v = 0;
    if (t.nat) {
        value = kNaT;
        return true;
    }
    if (unit == TimeUnit::Week || unit == TimeUnit::Generic) return false;
    if (unit == TimeUnit::Year || unit == TimeUnit::Month) {
        if (t.unit > unit) return false;
        v = static_cast<i128>(t.year) - 1970;
        if (unit == TimeUnit::Month) v = v * 12 + (t.month - 1);
    } else {
        const i128 days = daysFromCivil(t.year, t.month, t.day);
        if (unit == TimeUnit::Day) {
            v = days;
        } else if (unit == TimeUnit::Hour) {
            v = days * 24 + t.hour;
        } else if (unit == TimeUnit::Minute) {
            v = (days * 24 + t.hour) * 60 + t.minute;
        } else {
            const int digits = fractionDigitsOf(unit);
            const i128 seconds = ((days * 24 + t.hour) * 60 + t.minute) * 60 + t.second;
            const i128 fraction = t.fractionDigits <= digits
                                      ? static_cast<i128>(t.fraction) * pow10(digits - t.fractionDigits)
                                      : static_cast<i128>(t.fraction) / pow10(t.fractionDigits - digits);
            // Beyond 10^20 seconds no unit from seconds down fits 64 bits, and the product below could pass
            // even 128.
            if (seconds > i128(kPow10[18]) * 100 || seconds < -i128(kPow10[18]) * 100) return false;
            v = seconds * pow10(digits) + fraction;
        }
    }
    if (v > std::numeric_limits<std::int64_t>::max() || v <= std::numeric_limits<std::int64_t>::min()) return false;
    value = static_cast<std::int64_t>(v);
    return true;
}

bool datetimeExact(const DatetimeText& t, TimeUnit unit) {
    if (t.nat) return true;
    if (unit == TimeUnit::Week || unit == TimeUnit::Generic) return false;
    if (t.unit <= unit) return true;
    if (unit >= TimeUnit::Second) {
        const int dropped = t.fractionDigits - fractionDigitsOf(unit);
        return dropped <= 0 || t.fraction % kPow10[static_cast<std::size_t>(dropped)] == 0;
    }
    return t.fraction == 0 && t.second == 0 && (unit >= TimeUnit::Minute || t.minute == 0) &&
           (unit >= TimeUnit::Hour || t.hour == 0) && (unit >= TimeUnit::Day || t.day == 1) &&
           (unit >= TimeUnit::Month || t.month == 1);
}

double durationMillis(std::int64_t value, TimeUnit unit, std::int64_t count) {
    if (value == kNaT) return std::nan("");
    const i128 total = static_cast<i128>(value) * count;
    switch (unit) {
        case TimeUnit::Year: return static_cast<double>(total * 31556952000);
        case TimeUnit::Month: return static_cast<double>(total * 2629746000);
        case TimeUnit::Week: return static_cast<double>(total * 604800000);
        case TimeUnit::Day: return static_cast<double>(total * 86400000);
        case TimeUnit::Hour: return static_cast<double>(total * 3600000);
        case TimeUnit::Minute: return static_cast<double>(total * 60000);
        case TimeUnit::Second: return static_cast<double>(total * 1000);
        case TimeUnit::Milli:
        case TimeUnit::Generic: return static_cast<double>(total);
        default: return static_cast<double>(floorDiv(total, pow10(fractionDigitsOf(unit) - 3)));
    }
}

}  // namespace PythonVeltraDataArray::detail
