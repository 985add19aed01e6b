// Element copies between N-d strided layouts. Used for the reordering copy of foreign buffers into column-major
// arrays, for reading sub-array views out contiguously and for writing values into views.
#pragma once

#include <cstddef>
#include <cstdint>

namespace PythonVeltraDataArray::arraypkg {

// Copies every element of an N-d block of `shape` from `src` to `dst`, each side with its own byte strides
// (any sign, zero for broadcast sources). `itemsize` is 1, 2, 4, 8 or 16; with `swap` each `component`-byte
// part of an element (8 for a complex double, 4 for a complex single, else the item size) is byte-reversed
// on the way. The destination must not overlap the source.
void stridedCopy(std::uint8_t* dst, const std::int64_t* dstStrides, const std::uint8_t* src,
                 const std::int64_t* srcStrides, const std::int64_t* shape, int ndim, std::size_t itemsize,
                 std::size_t component, bool swap);

// Byte strides of a column-major contiguous block of `shape`.
void columnMajorStrides(const std::int64_t* shape, int ndim, std::size_t itemsize, std::int64_t* out);

}  // namespace PythonVeltraDataArray::arraypkg
