// Small shared pieces of the typed array package: the translation of C++ exceptions at its Python boundary
// (slots and capsule entries catch everything and call setErrorFromCurrentException) and message formatting.
// Deep code reports failure with pyutil's raise() and check(), which throw PyErrorSet.
#pragma once

#include <Python.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "pyutil/error.h"
#include "pyutil/ref.h"
#include "pyutil/type_name.h"

namespace PythonVeltraDataArray::arraypkg {

using pyutil::check;
using pyutil::PyErrorSet;
using pyutil::raise;
using pyutil::Ref;
using pyutil::shortRepr;
using pyutil::typeName;

// Drops the ordinary error a probe raised (not a sequence, not a number ...); any other one (KeyboardInterrupt,
// MemoryError ...) is thrown on as it is.
inline void clearProbe() {
    if (!pyutil::clearOrdinary()) throw PyErrorSet{};
}

// Sets the Python error for the exception being handled. Call only inside a catch block.
void setErrorFromCurrentException() noexcept;

// guarded<F>: the slot, method or capsule entry F as Python calls it, every exception F throws turned into
// the Python error it stands for and F's failure value (null, or -1).
template <auto F>
struct Guard;
template <typename R, typename... A, R (*F)(A...)>
struct Guard<F> {
    static R call(A... args) noexcept {
        try {
            return F(args...);
        } catch (...) {
            setErrorFromCurrentException();
            if constexpr (std::is_pointer_v<R>) return nullptr;
            else return -1;
        }
    }
};
template <auto F>
inline constexpr auto guarded = &Guard<F>::call;

// "(0, 2)": an index tuple as Python prints it; "()" for none, "(3,)" for one.
std::string formatIndex(const std::vector<std::uint64_t>& index);
std::string formatDims(const std::vector<std::uint64_t>& dims);

// Python's repr of a float ("1.5", "nan", "1e+300").
std::string formatDouble(double v);

}  // namespace PythonVeltraDataArray::arraypkg
