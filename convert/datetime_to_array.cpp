#include <cstdio>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/numpy_time.h"
#include "convert/py_helpers.h"
#include "convert/text.h"
#include "envelope/engine_names.h"
#include "pyutil/type_name.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraString;
namespace engine = foundation::veltradata::engine;

// The identifiers of both forms, made once.
struct DatetimeIds {
    VeltraClassIdentifier cls{engine::datetime::kClass};
    VeltraPropertyIdentifier timeZone{engine::datetime::kTimeZone}, dateString{engine::datetime::kDateString};
    std::vector<VeltraPropertyIdentifier> zoneList{timeZone};
    std::vector<VeltraPropertyIdentifier> fieldList{
        VeltraPropertyIdentifier(engine::datetime::kYear),   VeltraPropertyIdentifier(engine::datetime::kMonth),
        VeltraPropertyIdentifier(engine::datetime::kDay),    VeltraPropertyIdentifier(engine::datetime::kHour),
        VeltraPropertyIdentifier(engine::datetime::kMinute), VeltraPropertyIdentifier(engine::datetime::kSecond)};
    std::vector<VeltraPropertyIdentifier> textList{dateString};
};
const DatetimeIds& ids() {
    static const DatetimeIds kIds;
    return kIds;
}

// The parts of a UTC offset (a timedelta). Refuses a fraction of a second, which the zone text cannot carry.
bool offsetParts(PyObject* dt, PyObject* offset, long long& days, long long& seconds, long long& microseconds) {
    if (!getInt64Attribute(offset, "days", days) || !getInt64Attribute(offset, "seconds", seconds) ||
        !getInt64Attribute(offset, "microseconds", microseconds))
        return false;
    if (microseconds == 0) return true;
    return fail(PyExc_TypeError, "datetime " + pyutil::shortRepr(dt) +
                                     " has a UTC offset with a fraction of a second, which the engine's time zone "
                                     "cannot carry: round the offset to whole seconds, or convert the value with "
                                     ".astimezone(datetime.timezone.utc)");
}

// For a datetime in a named zone: when its fold picks another offset than the same wall-clock time with fold 0
// would (the second of two equal times, or the later side of a gap), the zone's name alone would move the
// instant; `out` becomes that offset instead and `fixed` is set. The offset must also read back as itself: the
// text's sign belongs to its hours, so a negative offset that is not whole hours is refused.
bool foldOffset(PyObject* dt, std::u16string& out, bool& fixed) {
    fixed = false;
    Ref fold = Ref::steal(PyObject_GetAttrString(dt, "fold"));
    if (!fold) return pyutil::clearOrdinary();  // no fold at all: the wall-clock time says everything
    const int later = PyObject_IsTrue(fold.get());
    if (later <= 0) return later == 0;
    Ref offset = callMethod(dt, "utcoffset");
    if (!offset) return false;
    Ref replace = Ref::steal(PyObject_GetAttrString(dt, "replace"));
    Ref args = Ref::steal(PyTuple_New(0));
    Ref kwargs = Ref::steal(Py_BuildValue("{s:i}", "fold", 0));
    if (!replace || !args || !kwargs) return false;
    Ref twin = Ref::steal(PyObject_Call(replace.get(), args.get(), kwargs.get()));
    Ref twinOffset = twin ? callMethod(twin.get(), "utcoffset") : Ref();
    if (!twinOffset) return false;
    const int same = PyObject_RichCompareBool(offset.get(), twinOffset.get(), Py_EQ);
    if (same != 0) return same > 0;
    long long days = 0, seconds = 0, microseconds = 0;
    if (!offsetParts(dt, offset.get(), days, seconds, microseconds)) return false;
    const __int128 total = static_cast<__int128>(days) * 86400 + seconds;
    if (total < 0 && total % 3600 != 0)
        return fail(PyExc_TypeError, "datetime " + pyutil::shortRepr(dt) +
                                         " is the later of two equal wall-clock times (fold=1) at a UTC offset that "
                                         "neither its zone's name nor an offset text carries exactly: convert the "
                                         "value with .astimezone(datetime.timezone.utc)");
    out = offsetText(days, seconds, microseconds);
    fixed = true;
    return true;
}

// The TimeZone text of datetime `dt`; false with the error set.
bool timeZoneText(PyObject* dt, std::u16string& out) {
    out.clear();
    Ref tz = Ref::steal(PyObject_GetAttrString(dt, "tzinfo"));
    if (!tz) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return false;
        return pyutil::clearOrdinary();  // no tzinfo at all: naive
    }
    const std::string type = pyutil::typeName(tz.get());
    if (type == "NoneType") return true;
    if (type == "zoneinfo.ZoneInfo") {
        Ref key = Ref::steal(PyObject_GetAttrString(tz.get(), "key"));
        if (!key && !pyutil::clearOrdinary()) return false;
        std::optional<std::u16string> name;
        if (key && PyUnicode_Check(key.get())) {
            name = pyUnicodeToUtf16(key.get());
            if (!name) return false;
        }
        // Without its name the zone cannot cross: the engine would read the time as naive.
        if (!name || name->empty())
            return fail(PyExc_TypeError, "datetime " + pyutil::shortRepr(dt) +
                                             " has a zoneinfo.ZoneInfo without a key (one read from a file), which "
                                             "the engine cannot name: make the zone with zoneinfo.ZoneInfo(name), or "
                                             "convert the value with .astimezone(datetime.timezone.utc)");
        bool fixed = false;
        if (!foldOffset(dt, out, fixed)) return false;
        if (!fixed) out = std::move(*name);
        return true;
    }
    if (type == "datetime.timezone") {
        Ref offset = callMethod(dt, "utcoffset");
        if (!offset) return false;
        long long days = 0, seconds = 0, microseconds = 0;
        if (!offsetParts(dt, offset.get(), days, seconds, microseconds)) return false;
        out = offsetText(days, seconds, microseconds);
        return true;
    }
    return fail(PyExc_TypeError,
                "conversion of VELTRA datetime object with time zone with type '" + type + "' to Python not supported");
}

// Upper bound of the UTF-16 text numpy prints per element at a unit (years of four digits), for the budget.
std::uint64_t textUnits(TimeUnit unit) {
    static constexpr std::uint8_t kUnits[] = {4, 7, 10, 10, 13, 16, 19, 23, 26, 29, 32, 35, 38, 3};
    return kUnits[static_cast<int>(unit)];
}

}  // namespace

std::u16string offsetText(long long days, long long seconds, long long microseconds) {
    const __int128 ms128 = (static_cast<__int128>(days) * 86400 + seconds) * 1000 + microseconds / 1000;
    const __int128 h = ms128 / 3600000, m = (ms128 - h * 3600000) / 60000, s = (ms128 - h * 3600000 - m * 60000) / 1000;
    auto abs = [](__int128 v) { return static_cast<unsigned long long>(v < 0 ? -v : v); };
    char buf[96];
    std::snprintf(buf, sizeof buf, "%c%02llu:%02llu:%02llu", h < 0 ? '-' : '+', abs(h), abs(m), abs(s));
    return std::u16string(buf, buf + std::char_traits<char>::length(buf));
}

std::optional<Array> PyDatetimeToDatetime::doConvert(PyObject* obj, const ConversionState&) {
    const DatetimeIds& id = ids();
    ValueObjectArray value = factory().createValueObjectScalar(factory().createClassInfo(id.cls, id.zoneList, id.fieldList));

    std::u16string zone;
    if (!timeZoneText(obj, zone)) return failed();
    value.setProperty(0, id.timeZone, factory().createScalar(zone));

    static const char* const kFields[] = {"year", "month", "day", "hour", "minute"};
    for (int k = 0; k < 5; ++k) {
        long long v = 0;
        if (!getInt64Attribute(obj, kFields[k], v)) return failed();
        value.setProperty(0, id.fieldList[static_cast<std::size_t>(k)], factory().createScalar<std::int64_t>(v));
    }
    long long second = 0, microsecond = 0;
    if (!getInt64Attribute(obj, "second", second) || !getInt64Attribute(obj, "microsecond", microsecond))
        return failed();
    const double seconds = static_cast<double>(microsecond) / 1e6 + static_cast<double>(second);
    value.setProperty(0, id.fieldList[5], factory().createScalar<double>(seconds));
    return Array(std::move(value));
}

std::optional<Array> PyNumpyDatetime64ScalarToDatetime::doConvert(PyObject* obj, const ConversionState&) {
    // Only numpy's own scalars: any other text would reach the engine as a date it cannot read.
    Ref numpy = importNumpy();
    Ref type = numpy ? Ref::steal(PyObject_GetAttrString(numpy.get(), "datetime64")) : Ref();
    const int real = type ? PyObject_IsInstance(obj, type.get()) : -1;
    if (real < 0) return failed();
    if (!real) return failUnsupportedType(obj);
    Ref text = callMethod(obj, "__str__");
    if (!text) return failed();
    if (!PyUnicode_Check(text.get())) return fail(PyExc_TypeError, "__str__ returned non-string");
    std::optional<std::u16string> units = pyUnicodeToUtf16(text.get());
    if (!units) return failed();
    const DatetimeIds& id = ids();
    ValueObjectArray value = factory().createValueObjectScalar(id.cls, id.textList);
    value.setProperty(0, id.dateString, factory().createScalar(*units));
    return Array(std::move(value));
}

std::optional<Array> PyNumpyDatetime64ArrayToDatetime::doConvert(PyObject* obj, const ConversionState& state) {
    // Charged before anything is copied: a byte-swapped broadcast view is copied whole to native order.
    std::uint64_t claimed = 0, itemsize = 0;
    if (!numpySize(obj, claimed, itemsize)) return failed();
    // The claimed size is the array's own word (a subclass may say anything): counts that do not fit 64 bits
    // saturate, and are refused, rather than wrap to a small charge.
    using foundation::veltradata::saturatingProduct;
    if (state.budget && !state.budget->chargeBytes(saturatingProduct(claimed, 8))) return failed();
    TimeArrayValues values;
    if (!values.open(obj)) return failed();
    const std::uint64_t n = values.size();
    // Each text in place of its eight bytes (textUnits is at least 3, so the difference is not negative).
    if (state.budget && !state.budget->chargeBytes(saturatingProduct(n, 2 * textUnits(values.unit()) + 2 - 8)))
        return failed();

    std::vector<VeltraString> texts;
    texts.reserve(n);
    Ref int64Type;  // numpy.int64, for the elements numpy must print itself
    std::u16string text;
    const bool ok = values.forEachColumnMajor([&](std::int64_t v) {
        if (!pollSignals()) return false;
        text.clear();
        if (!formatDatetime(v, values.unit(), values.count(), text)) {
            if (!int64Type) {
                Ref numpy = importNumpy();
                if (!numpy) return false;
                int64Type = Ref::steal(PyObject_GetAttrString(numpy.get(), "int64"));
                if (!int64Type) return false;
            }
            Ref raw = Ref::steal(PyObject_CallFunction(int64Type.get(), "L", static_cast<long long>(v)));
            Ref scalar = raw ? Ref::steal(PyObject_CallMethod(raw.get(), "view", "O", values.dtype())) : Ref();
            // numpy's own error when it cannot print the value (a multiplied unit past its range).
            Ref str = scalar ? Ref::steal(PyObject_Str(scalar.get())) : Ref();
            if (!str) return false;
            std::optional<std::u16string> units = pyUnicodeToUtf16(str.get());
            if (!units) return false;
            text = std::move(*units);
        }
        texts.emplace_back(text);
        return true;
    });
    if (!ok) return failed();

    const DatetimeIds& id = ids();
    ValueObjectArray value = factory().createValueObjectScalar(id.cls, id.textList);
    value.setProperty(0, id.dateString, factory().createStringArray(values.dims(), std::move(texts)));
    return Array(std::move(value));
}

}  // namespace PythonVeltraDataArray::detail
