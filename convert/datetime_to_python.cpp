#include <functional>
#include <algorithm>
#include <cmath>
#include <regex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/dispatch.h"
#include "convert/numpy_time.h"
#include "convert/scalar.h"
#include "convert/text.h"
#include "envelope/engine_names.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::ValueObject;
using foundation::veltradata::VeltraPropertyIdentifier;
using foundation::veltradata::VeltraString;

constexpr char kNaTScalar[] = "conversion of VELTRA datetime scalar 'NaT' to Python not supported";

namespace engine = foundation::veltradata::engine;

// The properties read in this direction, made once: the calendar fields, the zone and DateString (the engine's
// own time stamps beside them are not read).
struct ReadIds {
    VeltraPropertyIdentifier fields[5] = {
        VeltraPropertyIdentifier(engine::datetime::kYear), VeltraPropertyIdentifier(engine::datetime::kMonth),
        VeltraPropertyIdentifier(engine::datetime::kDay), VeltraPropertyIdentifier(engine::datetime::kHour),
        VeltraPropertyIdentifier(engine::datetime::kMinute)};
    VeltraPropertyIdentifier second{engine::datetime::kSecond}, timeZone{engine::datetime::kTimeZone},
        dateString{engine::datetime::kDateString};
};
const ReadIds& ids() {
    static const ReadIds kIds;
    return kIds;
}

// The process-wide helper converters.
struct Helpers {
    NumericToPyScalar<ArrayType::INT64> int64ToLong;
    DoubleToPyLong doubleToLong;
    DoubleToPySecondsAndMicroseconds seconds;
    CharToPyStr charToStr;
    VLStringToPyStr stringToStr;
    explicit Helpers(const std::shared_ptr<ArrayFactory>& f)
        : int64ToLong(f), doubleToLong(f), seconds(f), charToStr(f), stringToStr(f) {}
};
Helpers& helpers() {
    static Helpers kHelpers(sharedArrayFactory());
    return kHelpers;
}

std::string dimsText(const Array& a) {
    std::string out;
    for (std::uint64_t d : a.getDimensions()) out += (out.empty() ? "" : "x") + std::to_string(d);
    return out;
}

// A calendar field (Year ... Second) must be one real number; what else the message holds is refused rather
// than read as its first element or its first character's code.
bool checkField(const Array& field, const std::string& name) {
    if (!foundation::veltradata::isRealNumericType(field.getType()))
        return fail(PyExc_ValueError, "conversion of VELTRA datetime object with " + name + " of type '" +
                                          std::to_string(static_cast<int>(field.getType())) +
                                          "' to Python not supported: it must hold one number");
    if (field.getNumberOfElements() > 1)
        return fail(PyExc_ValueError, "conversion of VELTRA datetime object with " + name + " of size " +
                                          dimsText(field) + " to Python not supported: it must hold one number");
    return true;
}

// Element 0 of a numeric array as double; false with ValueError for an empty one.
bool firstAsDouble(const Array& a, double& x) {
    if (a.isEmpty()) return fail(PyExc_ValueError, "array is empty");
    x = a[0].castTo<double>();
    if (std::isnan(x)) return fail(PyExc_ValueError, kNaTScalar);
    return true;
}

// ---- the time zone of a scalar ----

struct TimeZoneDescription {
    Ref name, hours, minutes, seconds;
    bool failed = false;
};

pyutil::Failure zoneNotSupported(const std::string& what) {
    return fail(PyExc_ValueError, "conversion of VELTRA datetime object with time zone " + what + " to Python not supported");
}

TimeZoneDescription readTimeZone(const ValueObject& v) {
    TimeZoneDescription d;
    const ReadIds& id = ids();
    if (!v.hasProperty(id.timeZone)) return d;
    const Array& zone = v[id.timeZone];
    if (zone.isEmpty()) return d;
    if (zone.getType() == ArrayType::CHAR) {
        d.name = Ref::steal(helpers().charToStr.convert(zone));
    } else if (zone.getType() == ArrayType::VELTRA_STRING) {
        if (zone.getNumberOfElements() != 1) {
            fail(PyExc_ValueError, "conversion of VELTRA datetime object with time zone of size " + dimsText(zone) +
                                       " to Python not supported: it must hold one text");
            d.failed = true;
            return d;
        }
        if (!foundation::veltradata::stringElements(zone)[0]) {
            zoneNotSupported("'<missing>'");
            d.failed = true;
            return d;
        }
        d.name = Ref::steal(helpers().stringToStr.convert(zone));
    } else {
        zoneNotSupported("with type '" + std::to_string(static_cast<int>(zone.getType())) + "'");
        d.failed = true;
        return d;
    }
    if (!d.name) {
        d.failed = true;
        return d;
    }
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(d.name.get(), &size);
    if (!utf8) {
        d.name.reset();
        d.failed = true;
        return d;
    }
    const std::string text(utf8, static_cast<std::size_t>(size));
    if (text.empty()) {
        d.name.reset();
        return d;
    }
    if (text == "UTC") return d;  // a zoneinfo zone, not a fixed offset
    if (text == "UTCLeapSeconds") {
        zoneNotSupported("'UTCLeapSeconds'");
        d.name.reset();
        d.failed = true;
        return d;
    }
    static const std::regex kOffset("^([-+]?\\d{1,2})[:]?(\\d{1,2})?[:]?(\\d{1,2})?", std::regex::ECMAScript);
    std::smatch m;
    if (!std::regex_search(text, m, kOffset)) return d;  // a zone name
    if (m.size() < 2 || m.size() > 4) {
        fail(PyExc_ValueError, "time zone of VELTRA datetime object does not match the expected format '[+-]HH[:mm[:ss]]'");
        d.failed = true;
        return d;
    }
    // The sign belongs to the hours alone: "-05:30" is minus five hours plus thirty minutes.
    auto group = [&m](std::size_t k) { return k < m.size() && m[k].matched ? std::stol(m[k].str()) : 0L; };
    d.hours = Ref::steal(PyLong_FromLong(group(1)));
    d.minutes = Ref::steal(PyLong_FromLong(group(2)));
    d.seconds = Ref::steal(PyLong_FromLong(group(3)));
    d.name.reset();
    if (!d.hours || !d.minutes || !d.seconds) d.failed = true;
    return d;
}

// The tzinfo the description asks for (null without an error when it asks for none).
Ref makeTzinfo(const TimeZoneDescription& d, PyObject* datetimeModule) {
    if (d.hours) {
        Ref timedelta = Ref::steal(PyObject_GetAttrString(datetimeModule, "timedelta"));
        Ref timezone = Ref::steal(PyObject_GetAttrString(datetimeModule, "timezone"));
        Ref args = Ref::steal(PyTuple_New(0));
        Ref kwargs = Ref::steal(Py_BuildValue("{s:O,s:O,s:O}", "hours", d.hours.get(), "minutes", d.minutes.get(),
                                              "seconds", d.seconds.get()));
        if (!timedelta || !timezone || !args || !kwargs) return Ref();
        Ref delta = Ref::steal(PyObject_Call(timedelta.get(), args.get(), kwargs.get()));
        if (!delta) return Ref();
        return Ref::steal(PyObject_CallFunction(timezone.get(), "(O)", delta.get()));
    }
    Ref zoneinfo = Ref::steal(PyImport_ImportModule("zoneinfo"));
    if (!zoneinfo) return Ref();
    Ref zone = Ref::steal(PyObject_CallMethod(zoneinfo.get(), "ZoneInfo", "(O)", d.name.get()));
    if (zone || !pyutil::pendingIsOrdinary()) return zone;
    // A name the database has no file for reaches the file system as it stands: a directory ("America") or a
    // name too long for a file is no zone either. Names zoneinfo refuses outright say so with the name.
    const std::string name = pyutil::shortRepr(d.name.get());
    if (PyErr_ExceptionMatches(PyExc_OSError)) {
        Ref notFound = Ref::steal(PyObject_GetAttrString(zoneinfo.get(), "ZoneInfoNotFoundError"));
        if (notFound) pyutil::replaceError(notFound.get(), "No time zone found with key " + name);
    } else if (PyErr_ExceptionMatches(PyExc_ValueError)) {
        pyutil::replaceError(PyExc_ValueError, "conversion of VELTRA datetime object with time zone " + name +
                                                   " to Python not supported: ", true);
    }
    return Ref();
}

// ---- texts of the text form ----

Ref pyText(std::u16string_view text) {
    return Ref::steal(utf16ToPyStr(text.data(), text.size()));
}

pyutil::Failure outOfRange(std::u16string_view text) {
    Ref str = pyText(text);
    if (!str) return failed();
    return fail(PyExc_ValueError,
                "datetime " + pyutil::shortRepr(str.get()) + " is outside the range numpy datetime64 arrays can hold");
}

// The one text of a DateString that holds one: a 1-by-1 string or a char row or column. An empty one, or a
// missing string, is not-a-time (an empty view). ValueError for anything else.
bool singleDateString(const Array& prop, std::u16string_view& out) {
    const std::uint64_t n = prop.getNumberOfElements();
    out = std::u16string_view();
    if ((prop.getType() == ArrayType::VELTRA_STRING && n > 1) ||
        (prop.getType() == ArrayType::CHAR && n > 0 && !isRowOrColumn(prop)))
        return fail(PyExc_ValueError, "conversion of VELTRA datetime object with DateString of size " + dimsText(prop) +
                                          " to Python not supported: it must hold one text");
    if (prop.getType() == ArrayType::VELTRA_STRING) {
        const VeltraString* s = n ? &foundation::veltradata::stringElements(prop)[0] : nullptr;
        if (s && *s) out = std::u16string_view(**s);
        return true;
    }
    if (prop.getType() == ArrayType::CHAR) {
        if (n) out = std::u16string_view(reinterpret_cast<const char16_t*>(foundation::veltradata::elementBytes(prop)),
                                         static_cast<std::size_t>(n));
        return true;
    }
    return fail(PyExc_ValueError, "conversion of VELTRA datetime object with DateString of type '" +
                                      std::to_string(static_cast<int>(prop.getType())) + "' to Python not supported");
}

// Whether the year a text starts with ([-+]digits) is beyond `limit`.
bool yearBeyond(std::u16string_view text, std::uint64_t limit) {
    std::size_t i = !text.empty() && (text[0] == u'-' || text[0] == u'+') ? 1 : 0;
    std::uint64_t year = 0;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
        year = year * 10 + static_cast<std::uint64_t>(text[i] - u'0');
        if (year > limit) return true;
    }
    return false;
}

// The int64 count numpy holds for a datetime64 scalar; false with an error set.
bool numpyCount(PyObject* value, std::int64_t& count) {
    Ref c = Ref::steal(PyObject_CallMethod(value, "astype", "s", "int64"));
    const long long v = c ? PyLong_AsLongLong(c.get()) : -1;
    if (!c || (v == -1 && PyErr_Occurred())) return false;
    count = v;
    return true;
}

// A text in a form numpy reads but does not print (a zone suffix, "today"), rewritten in numpy's own form, at
// the unit numpy infers for it or, where that unit cannot count the date, at the next coarser one that can
// (down to seconds) when that drops only zeros. numpy reads a year's digits and multiplies out a unit in 64
// bits without a check, so what it makes is compared with the same text read at seconds, which cannot wrap
// for the years let through. What a coarser unit drops is read from the wrapped count: numpy makes both
// counts from the same fields by adding and multiplying, so the wrapped one is the exact one modulo 2^64,
// and the dropped digits (below 10^18) are zero exactly when the coarse count times 10^k matches it there.
bool numpyForm(PyObject* numpy, std::u16string_view text, std::u16string& out, DatetimeText& t) {
    if (yearBeyond(text, 100000000000ULL)) return outOfRange(text);
    Ref str = pyText(text);
    Ref datetime64 = str ? Ref::steal(PyObject_GetAttrString(numpy, "datetime64")) : Ref();
    if (!datetime64) return false;
    std::optional<std::int64_t> seconds;
    std::optional<TimeUnit> unit;
    Ref inferred;                              // the value at the unit numpy infers, wrapped or not
    TimeUnit inferredUnit = TimeUnit::Generic;
    for (;;) {
        Ref value = Ref::steal(unit ? PyObject_CallFunction(datetime64.get(), "Os", str.get(), timeUnitName(*unit))
                                    : PyObject_CallFunctionObjArgs(datetime64.get(), str.get(), nullptr));
        Ref printed = value ? Ref::steal(PyObject_Str(value.get())) : Ref();
        if (!printed) return false;
        std::optional<std::u16string> units = pyUnicodeToUtf16(printed.get());
        if (!units) return false;
        if (!parseDatetime(*units, t)) return outOfRange(text);
        if (!unit) {
            inferred = Ref::borrow(value.get());
            inferredUnit = t.unit;
        }
        if (!t.nat && t.unit > TimeUnit::Second) {
            if (!seconds) {
                Ref s = Ref::steal(PyObject_CallFunction(datetime64.get(), "Os", str.get(), "s"));
                std::int64_t c = 0;
                if (!s || !numpyCount(s.get(), c)) return false;
                seconds = c;
            }
            std::int64_t whole = 0;
            if (!datetimeValue(t, TimeUnit::Second, whole) || whole != *seconds) {
                unit = static_cast<TimeUnit>(static_cast<int>(t.unit) - 1);
                continue;
            }
        }
        if (unit) {
            std::int64_t wrapped = 0, coarse = 0;
            if (t.nat) return outOfRange(text);  // a wrapped count that happens to be NaT's
            if (!numpyCount(inferred.get(), wrapped) || !numpyCount(value.get(), coarse)) return false;
            const int k = 3 * (static_cast<int>(inferredUnit) - static_cast<int>(t.unit));
            std::uint64_t scale = 1;
            for (int j = 0; j < k; ++j) scale *= 10;
            if (static_cast<std::uint64_t>(coarse) * scale != static_cast<std::uint64_t>(wrapped)) return outOfRange(text);
        }
        out = std::move(*units);
        return true;
    }
}

// The texts of a datetime array as one numpy datetime64 array. `text(i, view)` yields element i's text.
// The unit: `start` when given (the engine's arrays: nanoseconds), otherwise the finest unit any text has, as
// numpy infers it, and nanoseconds when none has one (all not-a-time, or none at all); made coarser, one unit
// at a time down to seconds, while a date lies beyond what the unit can count, so that nothing wraps. A
// coarser unit may drop only zeros: a text with digits the unit cannot keep is refused, naming the date that
// asked for the coarser unit. Texts in other forms than numpy's own are read by numpy, one by one.
template <typename TextAt>
PyObject* datetimeArray(std::uint64_t n, const foundation::veltradata::Dims& dims, std::optional<TimeUnit> start,
                        TextAt&& textAt) {
    std::unordered_map<std::uint64_t, std::u16string> rewritten;  // numpy's own form of texts we do not read
    Ref numpy;
    std::u16string_view text;  // the text of the element parsed last, as it came
    auto parse = [&](std::uint64_t i, DatetimeText& t) -> bool {
        if (!textAt(i, text)) return false;
        std::u16string_view form = text;
        if (!rewritten.empty()) {
            auto it = rewritten.find(i);
            if (it != rewritten.end()) form = it->second;
        }
        if (parseDatetime(form, t)) return true;
        if (!numpy && !(numpy = importNumpy())) return false;
        std::u16string numpyText;
        if (!numpyForm(numpy.get(), text, numpyText, t)) return false;
        rewritten.emplace(i, std::move(numpyText));
        return true;
    };

    // The unit: given, or the finest any text has (one pass over the texts).
    TimeUnit unit = start.value_or(TimeUnit::Year);
    DatetimeText t;
    if (!start) {
        bool any = false;
        for (std::uint64_t i = 0; i < n; ++i) {
            if (!pollSignals() || !parse(i, t)) return nullptr;
            if (t.nat) continue;
            any = true;
            if (t.unit > unit) unit = t.unit;
        }
        if (!any) unit = TimeUnit::Nano;  // nothing to infer it from: the unit of the engine's arrays
    }
    // The counts; a date the unit cannot count makes it coarser, and the pass starts again.
    TimeArrayBuilder out;
    if (!out.start(n)) return nullptr;
    std::int64_t* values = out.data();
    bool polling = start.has_value();
    std::optional<std::u16string> tooFar;  // the date that made the unit coarser, as it came
    for (std::uint64_t i = 0; i < n; ++i) {
        if ((polling && !pollSignals()) || !parse(i, t)) return nullptr;
        if (!datetimeValue(t, unit, values[i])) {
            if (unit <= TimeUnit::Second) return outOfRange(text);
            tooFar.emplace(text);
            unit = static_cast<TimeUnit>(static_cast<int>(unit) - 1);
            polling = true;
            i = static_cast<std::uint64_t>(-1);
            continue;
        }
        if (t.unit > unit && !datetimeExact(t, unit))
            return outOfRange(tooFar ? std::u16string_view(*tooFar) : text);
    }
    return out.finish((std::string("datetime64[") + timeUnitName(unit) + "]").c_str(), dims);
}

// A 1x1 value object in the text form: one text gives a numpy.datetime64 at the unit the array rules give it.
PyObject* textFormScalar(const Array& dateString) {
    const std::uint64_t n = dateString.getNumberOfElements();
    if (dateString.getType() == ArrayType::VELTRA_STRING && n != 1) {
        const VeltraString* strings = foundation::veltradata::stringElements(dateString);
        return datetimeArray(n, dateString.getDimensions(), std::nullopt, [&](std::uint64_t i, std::u16string_view& text) {
            text = strings[i] ? std::u16string_view(*strings[i]) : std::u16string_view();
            return true;
        });
    }
    std::u16string_view one;
    if (!singleDateString(dateString, one)) return nullptr;
    Ref array = Ref::steal(datetimeArray(1, foundation::veltradata::Dims{1, 1}, std::nullopt,
                                         [&](std::uint64_t, std::u16string_view& text) {
                                             text = one;
                                             return true;
                                         }));
    return array ? PySequence_GetItem(array.get(), 0) : nullptr;
}

// A 1x1 value object in the field form.
PyObject* fieldFormScalar(const ValueObject& v, const TimeZoneDescription& zone) {
    const ReadIds& id = ids();
    Ref datetimeModule = Ref::steal(PyImport_ImportModule("datetime"));
    if (!datetimeModule) return nullptr;
    Ref datetimeType = Ref::steal(PyObject_GetAttrString(datetimeModule.get(), "datetime"));
    if (!datetimeType) return nullptr;

    Ref parts[7];
    for (int k = 0; k < 5; ++k) {
        if (!v.hasProperty(id.fields[k]))
            return fail(PyExc_ValueError, "unable to find property '" + id.fields[k].getPropertyName() + "' in 'datetime' object");
        const Array& field = v[id.fields[k]];
        if (!checkField(field, id.fields[k].getPropertyName())) return nullptr;
        parts[k] = Ref::steal(field.getType() == ArrayType::INT64 ? helpers().int64ToLong.convert(field)
                                                                  : helpers().doubleToLong.convert(field));
        if (!parts[k]) return nullptr;
    }
    if (v.hasProperty(id.second)) {
        if (!checkField(v[id.second], engine::datetime::kSecond)) return nullptr;
        Ref pair = Ref::steal(helpers().seconds.convert(v[id.second]));
        if (!pair) return nullptr;
        parts[5] = Ref::borrow(PyTuple_GetItem(pair.get(), 0));
        parts[6] = Ref::borrow(PyTuple_GetItem(pair.get(), 1));
    } else {
        parts[5] = Ref::steal(PyLong_FromLong(0));
        parts[6] = Ref::steal(PyLong_FromLong(0));
    }
    if (!parts[5] || !parts[6]) return nullptr;
    Ref args = Ref::steal(Py_BuildValue("OOOOOOO", parts[0].get(), parts[1].get(), parts[2].get(), parts[3].get(),
                                        parts[4].get(), parts[5].get(), parts[6].get()));
    if (!args) return nullptr;
    Ref kwargs;
    if (zone.hours || zone.name) {
        Ref tzinfo = makeTzinfo(zone, datetimeModule.get());
        if (!tzinfo) return nullptr;
        kwargs = Ref::steal(Py_BuildValue("{s:O}", "tzinfo", tzinfo.get()));
        if (!kwargs) return nullptr;
    }
    return PyObject_Call(datetimeType.get(), args.get(), kwargs.get());
}

}  // namespace

PyObject* DoubleToPyLong::doConvert(const Array& a) {
    double x = 0;
    if (!firstAsDouble(a, x)) return nullptr;
    const double r = std::round(x);  // halves away from zero
    if (std::fabs(r) < 9.2e18) return PyLong_FromLongLong(static_cast<long long>(r));
    return PyLong_FromDouble(r);  // OverflowError for an infinity; datetime refuses the rest itself
}

PyObject* DoubleToPySecondsAndMicroseconds::doConvert(const Array& a) {
    double x = 0;
    if (!firstAsDouble(a, x)) return nullptr;
    const double us = std::round(x * 1e6);
    if (!(std::fabs(us) < 9.2e18)) {
        Ref s = Ref::steal(PyLong_FromDouble(std::trunc(x)));
        return s ? Py_BuildValue("(Oi)", s.get(), 0) : nullptr;
    }
    const long long whole = static_cast<long long>(us);
    const long long s = whole / 1000000;
    Ref seconds = Ref::steal(PyLong_FromLongLong(s));
    Ref micro = Ref::steal(PyLong_FromLongLong(whole - s * 1000000));
    if (!seconds || !micro) return nullptr;
    return Py_BuildValue("OO", seconds.get(), micro.get());
}

PyObject* timeZoneForPandas(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT || a.isEmpty()) Py_RETURN_NONE;
    const TimeZoneDescription zone = readTimeZone(foundation::veltradata::valueObjects(a)[0]);
    if (zone.failed) return nullptr;
    if (zone.name) {
        // The name as zoneinfo knows it, or the same refusal a single datetime gets.
        if (!makeTzinfo(zone, nullptr)) return nullptr;
        return Ref::borrow(zone.name.get()).release();
    }
    if (!zone.hours) Py_RETURN_NONE;
    Ref datetimeModule = Ref::steal(PyImport_ImportModule("datetime"));
    return datetimeModule ? makeTzinfo(zone, datetimeModule.get()).release() : nullptr;
}

PyObject* datetimeArrayFromTexts(std::uint64_t n, const foundation::veltradata::Dims& dims,
                                 const std::function<bool(std::uint64_t, std::u16string_view&)>& textAt) {
    return datetimeArray(n, dims, TimeUnit::Nano, textAt);
}

PyObject* datetimeToPython(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return nullptr;
    const ReadIds& id = ids();
    const ValueObject* objects = foundation::veltradata::valueObjects(a);
    const std::uint64_t n = a.getNumberOfElements();
    if (n != 1) {
        return datetimeArrayFromTexts(n, a.getDimensions(), [&](std::uint64_t i, std::u16string_view& text) {
            if (!objects[i].hasProperty(id.dateString))
                return static_cast<bool>(fail(PyExc_ValueError, "unable to find property 'DateString' in 'datetime' object"));
            return singleDateString(objects[i][id.dateString], text);
        });
    }
    const ValueObject& v = objects[0];
    const TimeZoneDescription zone = readTimeZone(v);
    if (zone.failed) return nullptr;
    bool fields = false;
    for (const auto& f : id.fields) fields = fields || v.hasProperty(f);
    if (!fields && v.hasProperty(id.dateString)) return textFormScalar(v[id.dateString]);
    return fieldFormScalar(v, zone);
}

}  // namespace PythonVeltraDataArray::detail
