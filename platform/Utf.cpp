#include "platform/Utf.h"

#include <cstdint>
#include <cstring>

namespace Osb {

// Decoding accepts only well-formed UTF-8: no overlong forms, no encoded surrogates, nothing above
// U+10FFFF. Any byte that does not begin such a sequence becomes the lone low surrogate
// U+DC00 + byte (U+DC80..U+DCFF, since bytes below 0x80 are always valid), and decoding resumes at
// the next byte. Encoding writes those surrogates back as their byte, so every byte string survives
// a trip through UTF-16 unchanged. Other lone surrogates, which only a client's text can hold, are
// written in their three-byte form; they do not come back as the same unit.

namespace {

// Length of the well-formed sequence at p (at most `left` bytes), or 0; its code point in `cp`.
int DecodeOne(const unsigned char* p, size_t left, uint32_t& cp) {
    unsigned char b0 = p[0];
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    auto cont = [&](size_t i) { return i < left && (p[i] & 0xC0) == 0x80; };
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        if (!cont(1)) return 0;
        cp = ((b0 & 0x1Fu) << 6) | (p[1] & 0x3Fu);
        return 2;
    }
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if (b0 == 0xE0 && p[1] < 0xA0) return 0;  // overlong
        if (b0 == 0xED && p[1] >= 0xA0) return 0;  // a surrogate
        cp = ((b0 & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
        return 3;
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if (b0 == 0xF0 && p[1] < 0x90) return 0;  // overlong
        if (b0 == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
        cp = ((b0 & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) | (p[3] & 0x3Fu);
        return 4;
    }
    return 0;
}

void DecodeInto(const unsigned char* p, size_t n, std::u16string& out) {
    out.clear();
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        uint32_t cp = 0;
        int len = DecodeOne(p + i, n - i, cp);
        if (len == 0) {
            out.push_back(static_cast<char16_t>(0xDC00 + p[i]));
            ++i;
            continue;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += static_cast<size_t>(len);
    }
}

}  // namespace

void UTF8ToUTF16HostEndian(const char* text, std::ptrdiff_t bytes, std::u16string& out) {
    size_t n = bytes < 0 ? std::strlen(text) : static_cast<size_t>(bytes);
    DecodeInto(reinterpret_cast<const unsigned char*>(text), n, out);
}

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    DecodeInto(reinterpret_cast<const unsigned char*>(text.data()), text.size(), out);
    return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t u = text[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            uint32_t cp = 0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            ++i;
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (u >= 0xDC80 && u <= 0xDCFF) {
            out.push_back(static_cast<char>(u - 0xDC00));  // an undecodable byte, restored
        } else if (u < 0x80) {
            out.push_back(static_cast<char>(u));
        } else if (u < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (u >> 6)));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xE0 | (u >> 12)));
            out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        }
    }
    return out;
}

}  // namespace Osb
