// Element conversion between numeric and logical array kinds, with the checks that keep values intact.
#pragma once

#include <Python.h>

#include <cstdint>
#include <string>
#include <vector>

#include "veltradata/array.h"

namespace PythonVeltraDataArray::arraypkg {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayType;
using foundation::veltradata::Dims;

// An element that the target kind cannot hold. `index` is its column-major position in the source.
struct ElementError {
    std::uint64_t index = 0;
    std::string value;   // as Python prints it
    std::string reason;  // "is out of range for int8"
    bool typeError = false;
};

// A new array of kind `to` with `src`'s dimensions and elements. Integer targets take whole numbers within
// their range only; logical takes any real value but NaN (non-zero is true); complex values need a complex
// target. Throws ElementError for the first element that does not fit.
Array convertArray(const Array& src, ArrayType to);

// Converts `n` contiguous elements of kind `from` at `src` into kind `to` at `dst`; same rules.
void convertElements(const void* src, ArrayType from, void* dst, ArrayType to, std::uint64_t n);

// "double", "int8", "logical"; complex kinds read "complex int8" and so on.
std::string kindName(ArrayType t);

// The subscripts of a column-major linear position within `shape`.
std::vector<std::uint64_t> unravel(std::uint64_t linear, const std::vector<std::uint64_t>& shape);

// Sets the Python error for an element that did not fit, naming where it is within `shape`.
void setElementError(const ElementError& e, const std::vector<std::uint64_t>& shape);

}  // namespace PythonVeltraDataArray::arraypkg
