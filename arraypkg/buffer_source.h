// Foreign buffers as a source of elements: acquisition with format checks, and the one reordering copy into a
// column-major array.
#pragma once

#include <Python.h>

#include <cstdint>
#include <vector>

#include "arraypkg/buffer_format.h"
#include "arraypkg/element_cast.h"
#include "pyutil/buffer.h"

namespace PythonVeltraDataArray::arraypkg {

// Acquires `obj`'s buffer with strides and format (never indirect). On failure returns false with a Python
// error set: the exporter's own error, or TypeError naming a format no array kind can carry, or TypeError
// for an item size that contradicts the format.
bool acquireBuffer(PyObject* obj, pyutil::BufferView& view, BufferFormat& format);

// The buffer's shape (empty for a 0-d buffer).
std::vector<std::uint64_t> bufferShape(const Py_buffer& view);

// The dimensions an array built from a buffer gets: 0-d is 1-by-1, 1-d of n is 1-by-n, N-d keeps its shape.
Dims arrayDimsOf(const std::vector<std::uint64_t>& shape);

// One copy of the buffer's elements into a new array of the format's kind, in column-major order of the
// buffer's shape, from any strides and either byte order.
Array copyBuffer(const Py_buffer& view, const BufferFormat& format);

// An array of the format's kind whose storage borrows the buffer, which moves out of `view` into it: no copy
// now, one (reordering) copy when it is written out. Its last hold must go while the elements are unchanged.
Array borrowBuffer(pyutil::BufferView& view, const BufferFormat& format);

// The private type that owns a Py_buffer for capsule entries 2 and 3.
bool createBufferHandleType(PyObject* module);
// A new buffer handle for `obj` and its kind, or null with a Python error set.
PyObject* newBufferHandle(PyObject* obj, ArrayType& kind);
bool isBufferHandle(PyObject* o);
// Borrowed from a handle; null when the handle's buffer was already released.
const Py_buffer* handleBuffer(PyObject* handle, BufferFormat& format);
// The handle's own view, for borrowBuffer; null when already released.
pyutil::BufferView* handleView(PyObject* handle, BufferFormat& format);
// Releases the buffer now (the object itself goes with its last reference).
void releaseHandleBuffer(PyObject* handle);

}  // namespace PythonVeltraDataArray::arraypkg
