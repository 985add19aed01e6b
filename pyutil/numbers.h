// The Python side of the real numeric kinds (veltradata/numeric_kinds.h lists them): the Python object of one
// element is a function of its C++ type, so no kind is spelt here.
#pragma once

#include <Python.h>

#include <type_traits>

#include "veltradata/numeric_kinds.h"

namespace PythonVeltraDataArray::pyutil {

// One element of a real numeric kind -> float or int; null with an error set when allocation fails.
template <typename T>
PyObject* numberToPython(T v) {
    static_assert(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>, "an element of a real numeric kind");
    if constexpr (std::is_floating_point_v<T>) {
        return PyFloat_FromDouble(static_cast<double>(v));
    } else if constexpr (std::is_signed_v<T>) {
        return PyLong_FromLongLong(static_cast<long long>(v));
    } else {
        return PyLong_FromUnsignedLongLong(static_cast<unsigned long long>(v));
    }
}

}  // namespace PythonVeltraDataArray::pyutil
