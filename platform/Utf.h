// Conversions between UTF-8 and UTF-16 for the text that crosses the system's borders: paths,
// names, messages.
//
// A byte sequence that is not valid UTF-8 still round-trips: each byte that is not part of a valid
// sequence becomes one lone low surrogate U+DC80 to U+DCFF, and such a surrogate becomes that byte
// again. Other lone surrogates are written as three-byte sequences (WTF-8), so no unit is lost.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Osb {

// Converts `bytes` bytes of UTF-8 at `text` to UTF-16 in host byte order, replacing `out`. Stops at
// the first NUL when `bytes` is -1 (the text is then NUL-terminated).
void UTF8ToUTF16HostEndian(const char* text, std::ptrdiff_t bytes, std::u16string& out);

std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace Osb
