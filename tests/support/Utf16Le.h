#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vigil_test {

// `text` as UTF-16LE bytes without a terminator, in a byte container of the caller's choice
// (std::vector<uint8_t> for buffers, std::string for file contents).
template <class Bytes = std::vector<uint8_t>>
Bytes Utf16Le(std::u16string_view text) {
    Bytes out;
    for (const char16_t unit : text) {
        out.push_back(static_cast<typename Bytes::value_type>(unit & 0xFF));
        out.push_back(static_cast<typename Bytes::value_type>(unit >> 8));
    }
    return out;
}

}  // namespace vigil_test
