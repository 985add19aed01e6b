#include "convert/duration.h"

#include <cmath>
#include <limits>
#include <string>

#include "convert/budget.h"
#include "convert/dispatch.h"
#include "convert/numpy_time.h"
#include "convert/py_helpers.h"
#include "convert/scalar.h"
#include "envelope/engine_names.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
namespace engine = foundation::veltradata::engine;

struct DurationIds {
    VeltraClassIdentifier cls{engine::duration::kClass};
    VeltraPropertyIdentifier millis{engine::duration::kMillis};
    std::vector<VeltraPropertyIdentifier> list{millis};
};
const DurationIds& ids() {
    static const DurationIds kIds;
    return kIds;
}

Array durationOf(ArrayFactory& f, Array millis) {
    ValueObjectArray value = f.createValueObjectScalar(ids().cls, ids().list);
    value.setProperty(0, ids().millis, millis);
    return Array(std::move(value));
}

// Whether numpy's `name` type (timedelta64, ndarray) is obj's type or a base of it; -1 with an error set.
int isNumpyInstance(PyObject* obj, const char* name) {
    Ref numpy = importNumpy();
    Ref type = numpy ? Ref::steal(PyObject_GetAttrString(numpy.get(), name)) : Ref();
    return type ? PyObject_IsInstance(obj, type.get()) : -1;
}

// The units durations come back in, finest first: `per` counts per millisecond for the units down from
// milliseconds, and the milliseconds of one for the coarser ones.
struct Unit {
    TimeUnit unit;
    const char* dtype;
    std::int64_t per;
    double millis;
};
constexpr Unit kUnits[] = {{TimeUnit::Nano, "timedelta64[ns]", 1000000, 1e-6}, {TimeUnit::Micro, "timedelta64[us]", 1000, 1e-3},
                           {TimeUnit::Milli, "timedelta64[ms]", 1, 1},          {TimeUnit::Second, "timedelta64[s]", 0, 1e3},
                           {TimeUnit::Minute, "timedelta64[m]", 0, 6e4},        {TimeUnit::Hour, "timedelta64[h]", 0, 3.6e6},
                           {TimeUnit::Day, "timedelta64[D]", 0, 8.64e7},        {TimeUnit::Week, "timedelta64[W]", 0, 6.048e8}};
constexpr std::size_t kMilli = 2;

// Rounded to the nearest integer, halves to even, as datetime.timedelta rounds to its microsecond. Beyond
// 2^52 a double has no fraction.
inline double roundHalfEven(double x) {
    constexpr double kNoFraction = 4503599627370496.0;
    if (!(std::fabs(x) < kNoFraction)) return x;
    const double big = std::copysign(kNoFraction, x);
    return (x + big) - big;
}

// x milliseconds (finite) as a count of unit k, or nothing when the count is no int64 numpy stores (NaT's
// pattern excluded). Down from milliseconds the whole milliseconds scale exactly and only the fraction is
// rounded, as timedelta(milliseconds=x) does; coarser units round the quotient.
std::optional<std::int64_t> countIn(double x, std::size_t k) {
    constexpr double kLimit = 9.2233720368547758e18;  // 2^63
    if (kUnits[k].per == 0) {
        const double c = roundHalfEven(x / kUnits[k].millis);
        if (!(c > -kLimit && c < kLimit)) return std::nullopt;
        return static_cast<std::int64_t>(c);
    }
    if (!(std::fabs(x) < kLimit / static_cast<double>(kUnits[k].per))) return std::nullopt;
    const double whole = std::trunc(x);
    const __int128 c = static_cast<__int128>(whole) * kUnits[k].per + static_cast<__int128>(roundHalfEven((x - whole) * kUnits[k].per));
    if (c <= std::numeric_limits<std::int64_t>::min() || c > std::numeric_limits<std::int64_t>::max()) return std::nullopt;
    return static_cast<std::int64_t>(c);
}

bool checkMillis(const Array& millis) {
    if (foundation::veltradata::isRealNumericType(millis.getType())) return true;
    return fail(PyExc_ValueError, "conversion of VELTRA duration object with millis of type '" +
                                      std::to_string(static_cast<int>(millis.getType())) +
                                      "' to Python not supported: it must hold numbers of milliseconds");
}

}  // namespace

std::optional<Array> PyTimedeltaToDuration::doConvert(PyObject* obj, const ConversionState&) {
    long long days = 0, seconds = 0, microseconds = 0;
    if (!getInt64Attribute(obj, "days", days) || !getInt64Attribute(obj, "seconds", seconds) ||
        !getInt64Attribute(obj, "microseconds", microseconds))
        return failed();
    const __int128 ms = (static_cast<__int128>(days) * 86400 + seconds) * 1000 + microseconds / 1000;
    return durationOf(factory(), factory().createScalar<double>(static_cast<double>(ms)));
}

std::optional<Array> PyNumpyTimedelta64ToDuration::doConvert(PyObject* obj, const ConversionState& state) {
    Ref array;
    const int isArray = isNumpyInstance(obj, "ndarray");
    if (isArray < 0) return failed();
    if (isArray) {
        array = Ref::borrow(obj);
    } else {
        const int isScalar = isNumpyInstance(obj, "timedelta64");
        if (isScalar < 0) return failed();
        if (!isScalar) return failUnsupportedType(obj);
        Ref numpy = importNumpy();
        if (!numpy) return failed();
        array = Ref::steal(PyObject_CallMethod(numpy.get(), "asarray", "(O)", obj));
        if (!array) return failed();
    }

    // Charged before anything is copied: a byte-swapped broadcast view is copied whole to native order.
    std::uint64_t claimed = 0, itemsize = 0;
    if (!numpySize(array.get(), claimed, itemsize)) return failed();
    if (state.budget && !state.budget->chargeBytes(foundation::veltradata::saturatingProduct(claimed, sizeof(double))))
        return failed();
    TimeArrayValues values;
    if (!values.open(array.get())) return failed();
    Array millis = factory().createArray(ArrayType::DOUBLE, values.dims());
    auto* out = reinterpret_cast<double*>(foundation::veltradata::mutableElementBytes(millis));
    const bool ok = values.forEachColumnMajor([&](std::int64_t v) {
        *out++ = durationMillis(v, values.unit(), values.count());
        return true;
    });
    if (!ok) return failed();
    return durationOf(factory(), std::move(millis));
}

PyObject* millisToTimedelta64(const Array& millis, const foundation::veltradata::Dims& dims, std::optional<TimeUnit> finest) {
    if (!checkMillis(millis)) return nullptr;
    // Read as double whatever real kind millis has; one pass picks the unit, one writes the counts.
    const std::uint64_t count = millis.getNumberOfElements();
    const double* doubles = millis.getType() == ArrayType::DOUBLE
                                ? reinterpret_cast<const double*>(foundation::veltradata::elementBytes(millis))
                                : nullptr;
    auto at = [&](std::uint64_t i) { return doubles ? doubles[i] : millis[i].castTo<double>(); };
    bool fraction = false;
    double longest = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const double x = at(i);
        if (std::isnan(x)) continue;
        if (std::isinf(x)) return fail(PyExc_OverflowError, "cannot convert an infinite duration to numpy timedelta64");
        const double size = std::fabs(x);
        if (size > longest) longest = size;
        // Below 2^52 the cast is exact for whole counts; above, a double has no fraction.
        fraction = fraction || (size < 4503599627370496.0 && static_cast<double>(static_cast<std::int64_t>(x)) != x);
    }
    std::size_t unit = 0;
    const TimeUnit first = finest.value_or(fraction ? TimeUnit::Micro : TimeUnit::Milli);
    while (kUnits[unit].unit != first) ++unit;
    while (!countIn(longest, unit)) {
        if (++unit == std::size(kUnits)) return fail(PyExc_OverflowError, "duration too long for numpy timedelta64");
    }
    TimeArrayBuilder out;
    if (!out.start(count)) return nullptr;
    std::int64_t* values = out.data();
    for (std::uint64_t i = 0; i < count; ++i) {
        const double x = at(i);
        if (std::isnan(x)) values[i] = kNaT;
        else if (unit == kMilli && !fraction) values[i] = static_cast<std::int64_t>(x);  // whole already
        else values[i] = *countIn(x, unit);  // |x| <= longest, whose count fits
    }
    return out.finish(kUnits[unit].dtype, dims);
}

PyObject* durationToPython(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return nullptr;
    const std::uint64_t n = a.getNumberOfElements();
    if (n != 1)
        return fail(PyExc_ValueError, "conversion of VELTRA duration object array with " + std::to_string(n) +
                                          " elements to Python not supported");
    const ValueObject& v = foundation::veltradata::valueObjects(a)[0];
    if (!v.hasProperty(ids().millis)) return fail(PyExc_ValueError, "unable to find property 'millis' in 'duration' object");
    const Array& millis = v[ids().millis];
    if (millis.getNumberOfElements() != 1) return millisToTimedelta64(millis, millis.getDimensions(), std::nullopt);
    if (!checkMillis(millis)) return nullptr;
    Ref ms = Ref::steal(PyFloat_FromDouble(millis[0].castTo<double>()));
    Ref datetimeModule = ms ? Ref::steal(PyImport_ImportModule("datetime")) : Ref();
    Ref timedelta = datetimeModule ? Ref::steal(PyObject_GetAttrString(datetimeModule.get(), "timedelta")) : Ref();
    Ref args = Ref::steal(PyTuple_New(0));
    Ref kwargs = ms ? Ref::steal(Py_BuildValue("{s:O}", "milliseconds", ms.get())) : Ref();
    if (!timedelta || !args || !kwargs) return nullptr;
    return PyObject_Call(timedelta.get(), args.get(), kwargs.get());
}

}  // namespace PythonVeltraDataArray::detail
