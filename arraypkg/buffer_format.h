// The element kinds of buffer-protocol format strings.
#pragma once

#include <cstddef>
#include <string>

#include "veltradata/array_type.h"

namespace PythonVeltraDataArray::arraypkg {

struct BufferFormat {
    foundation::veltradata::ArrayType type = foundation::veltradata::ArrayType::UNKNOWN;
    std::size_t itemsize = 0;   // bytes per element the format implies
    std::size_t component = 0;  // bytes per byte-order unit (a complex element has two)
    bool swap = false;          // stored in the other byte order than this machine's
};

// Reads a struct-module / buffer-protocol format ("d", "<i4"-style codes such as "<i", ">Zd", "?", and the
// "T{h:real:h:imag:}" layout used for complex integers). Returns false with `why` set to a short description
// ("16-bit float") for formats no array kind can carry.
bool parseBufferFormat(const char* format, BufferFormat& out, std::string& why);

// The format code this package exports for an array kind ("d", "Zf", "?", "T{h:real:h:imag:}").
const char* exportFormat(foundation::veltradata::ArrayType type);

}  // namespace PythonVeltraDataArray::arraypkg
