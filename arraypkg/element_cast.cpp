#include "arraypkg/element_cast.h"

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <type_traits>

#include "arraypkg/common.h"
#include "veltradata/array_factory.h"
#include "veltradata/impl.h"
#include "veltradata/raw_visit.h"

namespace PythonVeltraDataArray::arraypkg {

using foundation::veltradata::isComplexType;
using foundation::veltradata::realTypeOf;
using foundation::veltradata::detail::IsComplex;

namespace {

enum class Problem { None, OutOfRange, NotWhole, NaNLogical };

template <typename D, typename S>
bool integerInRange(S s) {
    if constexpr (std::is_signed_v<S>) {
        if (s < 0) {
            if constexpr (std::is_unsigned_v<D>) return false;
            else return static_cast<long long>(s) >= static_cast<long long>(std::numeric_limits<D>::min());
        }
    }
    return static_cast<unsigned long long>(s) <= static_cast<unsigned long long>(std::numeric_limits<D>::max());
}

template <typename D, typename S>
Problem convertReal(S s, D& d) {
    if constexpr (std::is_same_v<D, bool>) {
        if constexpr (std::is_floating_point_v<S>) {
            if (std::isnan(s)) return Problem::NaNLogical;
        }
        d = s != 0;
    } else if constexpr (std::is_floating_point_v<D>) {
        d = static_cast<D>(s);
    } else if constexpr (std::is_same_v<S, bool>) {
        d = s ? 1 : 0;
    } else if constexpr (std::is_floating_point_v<S>) {
        if (!std::isfinite(s) || std::trunc(s) != s) return Problem::NotWhole;
        // Both bounds are powers of two (or zero), exact in every floating type.
        if (s < static_cast<S>(std::numeric_limits<D>::min()) ||
            s >= std::ldexp(S{1}, std::numeric_limits<D>::digits))
            return Problem::OutOfRange;
        d = static_cast<D>(s);
    } else {
        if (!integerInRange<D>(s)) return Problem::OutOfRange;
        d = static_cast<D>(s);
    }
    return Problem::None;
}

template <typename T>
std::string formatReal(T v) {
    if constexpr (std::is_same_v<T, bool>) return v ? "True" : "False";
    else if constexpr (std::is_floating_point_v<T>) return formatDouble(static_cast<double>(v));
    else return std::to_string(v);
}

template <typename T>
std::string formatValue(const T& v) {
    if constexpr (IsComplex<T>::value) {
        // As Python prints a complex: "(1+2j)", "2j".
        Ref c = Ref::steal(PyComplex_FromDoubles(static_cast<double>(v.real()), static_cast<double>(v.imag())));
        if (!c) {
            pyutil::clearOrdinary();  // out of memory stays pending
            return "?";
        }
        return shortRepr(c.get());
    } else {
        return formatReal(v);
    }
}

template <typename T>
T load(const unsigned char* p) {
    if constexpr (std::is_same_v<T, bool>) {
        return *p != 0;
    } else {
        T v;
        std::memcpy(&v, p, sizeof(T));
        return v;
    }
}

[[noreturn]] void fail(Problem p, std::uint64_t index, std::string value, ArrayType to) {
    ElementError e;
    e.index = index;
    e.value = std::move(value);
    switch (p) {
        case Problem::OutOfRange: e.reason = "is out of range for " + kindName(realTypeOf(to)); break;
        case Problem::NotWhole: e.reason = "is not a whole number and cannot be stored in " + kindName(realTypeOf(to)); break;
        default: e.reason = "cannot be converted to logical"; break;
    }
    throw e;
}

template <typename D, typename S>
void convertLoop(const unsigned char* src, unsigned char* dst, std::uint64_t n, ArrayType to) {
    for (std::uint64_t i = 0; i < n; ++i) {
        const S s = load<S>(src + i * sizeof(S));
        D d{};
        if constexpr (IsComplex<D>::value) {
            using DR = typename D::value_type;
            DR re{}, im{};
            if constexpr (IsComplex<S>::value) {
                Problem p = convertReal<DR>(s.real(), re);
                if (p == Problem::None) p = convertReal<DR>(s.imag(), im);
                if (p != Problem::None) fail(p, i, formatValue(s), to);
            } else {
                Problem p = convertReal<DR>(s, re);
                if (p != Problem::None) fail(p, i, formatValue(s), to);
            }
            d = D(re, im);
        } else if constexpr (IsComplex<S>::value) {
            ElementError e;
            e.index = i;
            e.value = formatValue(s);
            e.reason = to == ArrayType::LOGICAL ? std::string("is complex and cannot be stored in a logical array")
                                                : "is complex and cannot be stored in a real " + kindName(to) + " array";
            e.typeError = true;
            throw e;
        } else {
            Problem p = convertReal<D>(s, d);
            if (p != Problem::None) fail(p, i, formatValue(s), to);
        }
        std::memcpy(dst + i * sizeof(D), &d, sizeof(D));
    }
}


}  // namespace

std::string kindName(ArrayType t) {
    const std::string prefix = isComplexType(t) ? "complex " : "";
    if (realTypeOf(t) == ArrayType::LOGICAL) return prefix + "logical";
    if (const char* name = foundation::veltradata::numericKindName(realTypeOf(t))) return prefix + name;
    const char* n = foundation::veltradata::arrayTypeName(t);
    return *n ? n : "type " + std::to_string(static_cast<int>(t));
}

void convertElements(const void* src, ArrayType from, void* dst, ArrayType to, std::uint64_t n) {
    if (!foundation::veltradata::isNumericOrLogicalType(from) || !foundation::veltradata::isNumericOrLogicalType(to))
        raise(PyExc_TypeError, "cannot convert " + kindName(from) + " elements to " + kindName(to));
    foundation::veltradata::detail::visitRawType(from, [&](auto s) {
        foundation::veltradata::detail::visitRawType(to, [&](auto d) {
            convertLoop<decltype(d), decltype(s)>(static_cast<const unsigned char*>(src),
                                                  static_cast<unsigned char*>(dst), n, to);
        });
    });
}

Array convertArray(const Array& src, ArrayType to) {
    const ArrayType from = src.getType();
    if (!foundation::veltradata::isNumericOrLogicalType(from) || !foundation::veltradata::isNumericOrLogicalType(to))
        raise(PyExc_TypeError, "cannot convert an array of " + kindName(from) + " to " + kindName(to));
    const auto& impl = src.impl();
    const std::uint64_t n = impl.numel;
    // A wider kind needs more bytes than the source holds: a count that does not fit saturates, which the
    // allocator refuses, rather than wrapping to a buffer too small for the loop below.
    const std::uint64_t bytes = foundation::veltradata::saturatingProduct(n, foundation::veltradata::elementSize(to));
    foundation::veltradata::detail::AlignedBuffer out(static_cast<std::size_t>(bytes), false);
    convertElements(impl.get<foundation::veltradata::detail::AlignedBuffer>().data(), from, out.data(), to, n);
    foundation::veltradata::ClientArrayFactory f;
    return f.adoptBuffer(to, impl.dims, std::move(out));
}

std::vector<std::uint64_t> unravel(std::uint64_t linear, const std::vector<std::uint64_t>& shape) {
    std::vector<std::uint64_t> idx(shape.size(), 0);
    for (std::size_t k = 0; k < shape.size(); ++k) {
        if (shape[k] == 0) break;
        idx[k] = linear % shape[k];
        linear /= shape[k];
    }
    return idx;
}

void setElementError(const ElementError& e, const std::vector<std::uint64_t>& shape) {
    const std::string msg = "value " + e.value + " at index " + formatIndex(unravel(e.index, shape)) + " " + e.reason;
    PyErr_SetString(e.typeError ? PyExc_TypeError : PyExc_ValueError, msg.c_str());
}

}  // namespace PythonVeltraDataArray::arraypkg
