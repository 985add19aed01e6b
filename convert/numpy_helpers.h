// numpy helpers for converters that walk numpy data element by element (time values, tables): flattening in
// the engine's column-major order, and reshaping a freshly built sequence to engine dimensions.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "convert/py_ref.h"

namespace PythonVeltraDataArray::detail {

struct FlattenedNumpyArray {
    std::size_t numberOfElements = 0;
    std::vector<std::size_t> dims;  // numpy's shape, outermost first
    PyRef flat;                     // a 1-d copy in column-major (Fortran) order
};

// Reads `size` and `shape` of a numpy array and flattens it with order="F". Returns false with a Python
// exception set (ImportError for numpy, IndexError for a missing attribute, the error of flatten itself);
// throws std::runtime_error for a size or shape that is not a non-negative integer or sequence.
bool flattenColumnMajor(PyObject* array, FlattenedNumpyArray& out);

// callable(*args, **kwargs).reshape(dims, order="F"). Null when callable or args is null (the caller's error
// stands) or when either call fails (its error is passed on).
PyRef reshapeColumnMajor(PyObject* callable, PyObject* args, PyObject* kwargs,
                         const std::vector<std::uint64_t>& dims);

}  // namespace PythonVeltraDataArray::detail
