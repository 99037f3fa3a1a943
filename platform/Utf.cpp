#include "platform/Utf.h"

#include <cstdint>
#include <cstring>

namespace Osb {

// The rule, in full. Decoding splits the bytes into pieces, left to right:
//
//   1. A well-formed UTF-8 sequence of a scalar value (shortest form, no surrogate, at most
//      U+10FFFF) becomes that value: one unit, or a surrogate pair above U+FFFF.
//   2. A three-byte sequence ED B0..BF 80..BF, the WTF-8 form of a low surrogate, becomes that
//      unit, except for U+DC80..U+DCFF: those units stand for raw bytes (rule 4), so their
//      three-byte form must come back as three bytes, not as one unit that would be written as one.
//   3. A run of three-byte sequences ED A0..AF 80..BF, WTF-8 high surrogates, becomes those units
//      only when what follows the run does not begin with a low surrogate unit (that is, the run is
//      at the end, or followed by a piece of rule 1). Otherwise a high unit would meet a low one
//      and be written back as one four-byte character, so the whole run is taken as raw bytes
//      instead.
//   4. Any other byte, always 0x80 or above, becomes the lone low surrogate U+DC00 + byte, and
//      decoding goes on at the next byte.
//
// Encoding writes a surrogate pair as its four-byte character, U+DC80..U+DCFF as the byte it
// stands for, any other lone surrogate in its three-byte form, and everything else as UTF-8.
//
// Hence every byte string comes back unchanged from a trip through UTF-16: decoding never puts a
// high surrogate before a low one except as a real pair, so the pieces are written back one by
// one. Every UTF-16 text without units U+DC80..U+DCFF comes back unchanged from a trip through
// UTF-8; a text with such units does too unless their bytes happen to form a valid sequence.

namespace {

enum class Kind { kInvalid, kScalar, kHighSurrogate, kLowSurrogate };

struct Piece {
    Kind kind = Kind::kInvalid;
    int length = 1;
    uint32_t value = 0;
};

bool IsContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Classifies the sequence that starts at p (`left` bytes remain, at least one).
Piece Classify(const unsigned char* p, size_t left) {
    const unsigned char b0 = p[0];
    if (b0 < 0x80) return {Kind::kScalar, 1, b0};
    // The allowed range of the second byte depends on the first: this is what rules out overlong
    // forms (E0 80..9F, F0 80..8F), values above U+10FFFF (F4 90..BF) and, for ED, surrogates.
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    int length = 0;
    uint32_t value = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2;
        value = b0 & 0x1Fu;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3;
        value = b0 & 0x0Fu;
        if (b0 == 0xE0) lo = 0xA0;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4;
        value = b0 & 0x07u;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        return {};  // a stray continuation byte, C0, C1 or F5..FF
    }
    if (left < static_cast<size_t>(length) || p[1] < lo || p[1] > hi) return {};
    for (int i = 1; i < length; ++i) {
        if (!IsContinuation(p[i])) return {};
        value = (value << 6) | (p[i] & 0x3Fu);
    }
    if (value >= 0xD800 && value <= 0xDBFF) return {Kind::kHighSurrogate, 3, value};
    if (value >= 0xDC00 && value <= 0xDFFF) {
        if (value >= 0xDC80 && value <= 0xDCFF) return {};  // rule 2's exception
        return {Kind::kLowSurrogate, 3, value};
    }
    return {Kind::kScalar, length, value};
}

void PushScalar(uint32_t cp, std::u16string& out) {
    if (cp >= 0x10000) {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
        out.push_back(static_cast<char16_t>(cp));
    }
}

void PushRawByte(unsigned char b, std::u16string& out) {
    out.push_back(static_cast<char16_t>(0xDC00 + b));
}

void DecodeInto(const unsigned char* p, size_t n, std::u16string& out) {
    out.clear();
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        const Piece piece = Classify(p + i, n - i);
        switch (piece.kind) {
            case Kind::kScalar:
                PushScalar(piece.value, out);
                i += static_cast<size_t>(piece.length);
                break;
            case Kind::kLowSurrogate:
                out.push_back(static_cast<char16_t>(piece.value));
                i += 3;
                break;
            case Kind::kInvalid:
                PushRawByte(p[i], out);
                ++i;
                break;
            case Kind::kHighSurrogate: {
                // Rule 3: the fate of a run of high surrogates is decided by what follows it, and
                // the whole run shares it. Deciding it once keeps a long run linear.
                size_t end = i;
                while (end < n && Classify(p + end, n - end).kind == Kind::kHighSurrogate) end += 3;
                const bool keep = end == n || Classify(p + end, n - end).kind == Kind::kScalar;
                for (; i < end; i += 3) {
                    if (keep) {
                        out.push_back(static_cast<char16_t>(Classify(p + i, 3).value));
                    } else {
                        for (size_t k = 0; k < 3; ++k) PushRawByte(p[i + k], out);
                    }
                }
                break;
            }
        }
    }
}

void PushThreeBytes(uint32_t u, std::string& out) {
    out.push_back(static_cast<char>(0xE0 | (u >> 12)));
    out.push_back(static_cast<char>(0x80 | ((u >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
}

}  // namespace

void UTF8ToUTF16HostEndian(const char* text, std::ptrdiff_t bytes, std::u16string& out) {
    if (text == nullptr) {
        out.clear();
        return;
    }
    const size_t n = bytes < 0 ? std::strlen(text) : static_cast<size_t>(bytes);
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
        const uint32_t u = text[i];
        if (u < 0x80) {
            out.push_back(static_cast<char>(u));
        } else if (u < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (u >> 6)));
            out.push_back(static_cast<char>(0x80 | (u & 0x3F)));
        } else if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
                   text[i + 1] <= 0xDFFF) {
            const uint32_t cp = 0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            ++i;
            out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (u >= 0xDC80 && u <= 0xDCFF) {
            out.push_back(static_cast<char>(u - 0xDC00));  // a byte that was not valid UTF-8
        } else {
            PushThreeBytes(u, out);  // the BMP, and any other lone surrogate in its WTF-8 form
        }
    }
    return out;
}

}  // namespace Osb
