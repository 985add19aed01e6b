// UTF-16 text to an 8-bit name (category and variable names). Pure C++, no Python.
#pragma once

#include <stdexcept>
#include <string>

#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

// Each code unit's low 8 bits become one byte: no transcoding. Names that come through here are ASCII
// identifiers; anything above 255 is truncated on purpose rather than refused. Missing or empty: "".
inline std::string narrowUtf16(const foundation::veltradata::VeltraString& text) {
    std::string out;
    if (!text) return out;
    out.reserve(text->size());
    for (char16_t unit : *text) out.push_back(static_cast<char>(static_cast<unsigned char>(unit & 0xFF)));
    return out;
}

// The same for an element of a string array, read where it lies. A missing element read as text throws
// "Missing string value".
inline std::string narrowUtf16(const foundation::veltradata::ArrayElementRef& element) {
    if (!element.has_value()) throw std::runtime_error("Missing string value");
    return narrowUtf16(foundation::veltradata::VeltraString(static_cast<std::u16string>(element)));
}

}  // namespace PythonVeltraDataArray::detail
