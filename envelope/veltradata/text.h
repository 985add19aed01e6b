// UTF-8 <-> UTF-16 for names and message texts. Lenient on purpose: malformed input (from a message or a
// lone surrogate) becomes U+FFFD instead of failing the whole conversion.
#pragma once

#include <string>

namespace foundation::veltradata {

std::u16string utf8ToUtf16(const std::string& s);
std::string utf16ToUtf8(const std::u16string& s);

}  // namespace foundation::veltradata
