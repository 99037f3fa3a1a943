#include "util/UtfConvert.h"

#include <cstdint>

namespace mst_util {

namespace {

// The joined value of a pair; the offset folds the two surrogate bases and the 0x10000 in one.
constexpr uint32_t kPairOffset = 0x35FDC00;

void PushCodePoint(uint32_t cp, std::string& out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        // A joined pair lies between 0x2400 and 0x111FFF, so four bytes always suffice.
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void PushUnits(uint32_t cp, std::u16string& out) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
        return;
    }
    // Four bytes carry at most 0x1FFFFF; above 0x10FFFF the first unit leaves the high surrogate
    // range, which is what the unchecked rule gives and what no text of the program contains.
    const uint32_t v = cp - 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
}

}  // namespace

std::string to_utf8(std::u16string_view wide) {
    std::string out;
    out.reserve(wide.size());
    for (size_t i = 0; i < wide.size(); ++i) {
        uint32_t cp = wide[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
            cp = (cp << 10) + wide[++i] - kPairOffset;
        }
        PushCodePoint(cp, out);
    }
    return out;
}

std::u16string to_utf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    size_t i = 0;
    while (i < utf8.size()) {
        const auto b0 = static_cast<unsigned char>(utf8[i]);
        size_t length = 1;
        uint32_t cp = b0;
        if (b0 >= 0x80 && b0 <= 0xDF) {
            length = 2;
            cp = b0 & 0x1Fu;
        } else if (b0 >= 0xE0 && b0 <= 0xEF) {
            length = 3;
            cp = b0 & 0x0Fu;
        } else if (b0 >= 0xF0 && b0 <= 0xF7) {
            length = 4;
            cp = b0 & 0x07u;
        }
        for (size_t k = 1; k < length; ++k) {
            const size_t at = i + k;
            const uint32_t bits =
                at < utf8.size() ? (static_cast<unsigned char>(utf8[at]) & 0x3Fu) : 0;
            cp = (cp << 6) | bits;
        }
        PushUnits(cp, out);
        i += length;
    }
    return out;
}

}  // namespace mst_util
