// Dispatch from a raw-buffer kind to its C++ element type, and element conversion between such types.
// Internal to the library and the typed array package.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "array_type.h"
#include "errors.h"

namespace foundation::veltradata::detail {

template <typename T> struct IsComplex : std::false_type {};
template <typename T> struct IsComplex<std::complex<T>> : std::true_type {};

// Calls f(T{}) with the element type of a raw-buffer kind; throws InvalidArrayTypeException otherwise.
template <typename F>
decltype(auto) visitRawType(foundation::veltradata::ArrayType t, F&& f) {
    using foundation::veltradata::ArrayType;
    switch (t) {
        case ArrayType::LOGICAL: return f(bool{});
        case ArrayType::CHAR: return f(char16_t{});
#define VELTRA_VISIT(KIND, T, NAME)                     \
    case ArrayType::KIND: return f(T{});                \
    case complexTypeOf(ArrayType::KIND): return f(std::complex<T>{});
        VELTRA_NUMERIC_KINDS(VELTRA_VISIT)
#undef VELTRA_VISIT
        default: throw foundation::veltradata::InvalidArrayTypeException();
    }
}

// One real value to another real type. Floating values going to an integer type truncate toward zero and
// saturate at the type's bounds, NaN giving 0: a plain cast of an out-of-range value is undefined behaviour.
template <typename D, typename S>
D scalarCast(S s) {
    if constexpr (std::is_floating_point_v<S> && std::is_integral_v<D> && !std::is_same_v<D, bool>) {
        if (std::isnan(s)) return D{0};
        if (s < static_cast<S>(std::numeric_limits<D>::min())) return std::numeric_limits<D>::min();
        // 2^digits is exact in every floating type; values below it truncate into range.
        if (s >= std::ldexp(S{1}, std::numeric_limits<D>::digits)) return std::numeric_limits<D>::max();
        return static_cast<D>(s);
    } else {
        return static_cast<D>(s);
    }
}

// Converts one element. Real to complex gives a zero imaginary part; complex to real is refused.
template <typename D, typename S>
D convertElement(const S& s) {
    if constexpr (IsComplex<D>::value) {
        using DR = typename D::value_type;
        if constexpr (IsComplex<S>::value) {
            return D(scalarCast<DR>(s.real()), scalarCast<DR>(s.imag()));
        } else {
            return D(scalarCast<DR>(s), DR{});
        }
    } else if constexpr (IsComplex<S>::value) {
        throw foundation::veltradata::TypeMismatchException("A complex element cannot be read as a real value.");
    } else {
        return scalarCast<D>(s);
    }
}

// Element equality for operator==. NaN equals NaN so that equality is reflexive and cannot depend on whether
// two arrays happen to share storage; -0.0 equals 0.0 as usual.
template <typename T>
bool scalarEquals(const T& a, const T& b) {
    if constexpr (std::is_floating_point_v<T>) {
        return a == b || (std::isnan(a) && std::isnan(b));
    } else {
        return a == b;
    }
}

template <typename T>
bool elementEquals(const T& a, const T& b) {
    if constexpr (IsComplex<T>::value) {
        return scalarEquals(a.real(), b.real()) && scalarEquals(a.imag(), b.imag());
    } else {
        return scalarEquals(a, b);
    }
}

}  // namespace foundation::veltradata::detail
