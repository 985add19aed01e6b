// UTF-8 <-> UTF-16 for names and message texts. Lenient on purpose: malformed input (from a message or a
// lone surrogate) becomes U+FFFD instead of failing the whole conversion.
#pragma once

#include <cstddef>
#include <string>

namespace foundation::veltradata {

std::u16string utf8ToUtf16(const std::string& s);
std::string utf16ToUtf8(const std::u16string& s);
// Strict, for text that must be UTF-8 as it stands (another library's string buffers): false, with `out`
// partly written, at the first malformed sequence.
bool utf8ToUtf16Strict(const char* data, std::size_t size, std::u16string& out);

}  // namespace foundation::veltradata
