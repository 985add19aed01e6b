// Helpers shared by the array model tests.
#pragma once

#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <type_traits>

#include "veltradata/veltradata.h"

namespace array_model_test {

// The message of the exception `f` throws; "<no exception>" when it returns normally.
inline std::string thrownMessage(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

// True when `f` is refused the way huge requests must be: std::bad_alloc or an exception of the library.
inline ::testing::AssertionResult refusedCleanly(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::bad_alloc&) {
        return ::testing::AssertionSuccess();
    } catch (const foundation::veltradata::ArrayException&) {
        return ::testing::AssertionSuccess();
    } catch (const std::exception& e) {
        return ::testing::AssertionFailure() << "unexpected exception: " << e.what();
    }
    return ::testing::AssertionFailure() << "no exception";
}

template <typename T> struct IsComplex : std::false_type {};
template <typename T> struct IsComplex<std::complex<T>> : std::true_type {};

// A distinct, non-zero value of element type T for each small k (k < 60).
template <typename T>
T sample(int k) {
    if constexpr (std::is_same_v<T, bool>) {
        return k % 2 == 0;
    } else if constexpr (IsComplex<T>::value) {
        using R = typename T::value_type;
        return T(static_cast<R>(k + 1), static_cast<R>(2 * k + 3));
    } else {
        return static_cast<T>(k + 1);
    }
}

// A value of type T different from v.
template <typename T>
T different(const T& v) {
    if constexpr (std::is_same_v<T, bool>) {
        return !v;
    } else if constexpr (IsComplex<T>::value) {
        using R = typename T::value_type;
        return T(static_cast<R>(v.real() + 1), v.imag());
    } else {
        return static_cast<T>(v + 1);
    }
}

}  // namespace array_model_test
