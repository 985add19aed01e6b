#include "convert/duration.h"

#include <cmath>
#include <string>

#include "convert/budget.h"
#include "convert/dispatch.h"
#include "convert/numpy_time.h"
#include "convert/py_helpers.h"
#include "convert/scalar.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;

struct DurationIds {
    VeltraClassIdentifier cls{"duration"};
    VeltraPropertyIdentifier millis{"millis"};
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

// The units a duration array comes back in, finest first, with their length in milliseconds: microseconds when
// a count has a fraction of a millisecond (what datetime.timedelta keeps of a single one), milliseconds when
// none has, coarser only when a count would not fit.
struct Unit {
    const char* dtype;
    double millis;
};
constexpr Unit kUnits[] = {{"timedelta64[us]", 1e-3},    {"timedelta64[ms]", 1},      {"timedelta64[s]", 1e3},
                           {"timedelta64[m]", 6e4},      {"timedelta64[h]", 3.6e6},   {"timedelta64[D]", 8.64e7},
                           {"timedelta64[W]", 6.048e8}};
constexpr std::size_t kMicro = 0, kMilli = 1;

// Rounded to the nearest integer, halves to even, as datetime.timedelta rounds to its microsecond. Beyond
// 2^52 a double has no fraction.
inline double roundHalfEven(double x) {
    constexpr double kNoFraction = 4503599627370496.0;
    if (!(std::fabs(x) < kNoFraction)) return x;
    const double big = std::copysign(kNoFraction, x);
    return (x + big) - big;
}

// x milliseconds as a count of unit k: for microseconds the same product timedelta(milliseconds=x) makes.
inline double countIn(double x, std::size_t k) {
    return roundHalfEven(k == kMicro ? x * 1000.0 : x / kUnits[k].millis);
}

// Whether x is a count numpy stores (NaT's pattern excluded).
bool fitsInt64(double x) { return x > -9.2233720368547758e18 && x < 9.2233720368547758e18; }

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

PyObject* durationToPython(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return nullptr;
    const std::uint64_t n = a.getNumberOfElements();
    if (n != 1)
        return fail(PyExc_ValueError, "conversion of VELTRA duration object array with " + std::to_string(n) +
                                          " elements to Python not supported");
    const ValueObject& v = foundation::veltradata::valueObjects(a)[0];
    if (!v.hasProperty(ids().millis)) return fail(PyExc_ValueError, "unable to find property 'millis' in 'duration' object");
    const Array& millis = v[ids().millis];
    if (!foundation::veltradata::isRealNumericType(millis.getType()))
        return fail(PyExc_ValueError, "conversion of VELTRA duration object with millis of type '" +
                                          std::to_string(static_cast<int>(millis.getType())) +
                                          "' to Python not supported: it must hold numbers of milliseconds");

    if (millis.getNumberOfElements() == 1) {
        Ref ms = Ref::steal(PyFloat_FromDouble(millis[0].castTo<double>()));
        Ref datetimeModule = ms ? Ref::steal(PyImport_ImportModule("datetime")) : Ref();
        Ref timedelta = datetimeModule ? Ref::steal(PyObject_GetAttrString(datetimeModule.get(), "timedelta")) : Ref();
        Ref args = Ref::steal(PyTuple_New(0));
        Ref kwargs = ms ? Ref::steal(Py_BuildValue("{s:O}", "milliseconds", ms.get())) : Ref();
        if (!timedelta || !args || !kwargs) return nullptr;
        return PyObject_Call(timedelta.get(), args.get(), kwargs.get());
    }

    // Read as double whatever real kind millis has; one pass picks the unit, one writes the counts, rounded as
    // a single duration's timedelta rounds them.
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
    std::size_t unit = fraction ? kMicro : kMilli;
    while (!fitsInt64(countIn(longest, unit))) {
        if (++unit == std::size(kUnits)) return fail(PyExc_OverflowError, "duration too long for numpy timedelta64");
    }
    TimeArrayBuilder out;
    if (!out.start(count)) return nullptr;
    std::int64_t* values = out.data();
    for (std::uint64_t i = 0; i < count; ++i) {
        const double x = at(i);
        if (std::isnan(x)) values[i] = kNaT;
        else if (unit == kMilli && !fraction) values[i] = static_cast<std::int64_t>(x);  // whole already
        else values[i] = static_cast<std::int64_t>(countIn(x, unit));
    }
    return out.finish(kUnits[unit].dtype, millis.getDimensions());
}

}  // namespace PythonVeltraDataArray::detail
