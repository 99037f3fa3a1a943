// Hand-written conversions for the two code pages the program meets: UTF-8 and Windows-1252 (the
// ANSI code page of this platform). No iconv: both are small and fixed, and Windows' exact
// behaviour on ill-formed input is easier to keep by hand than to coax out of a library.
#include "platform/CodePage.h"

#include <climits>
#include <cstddef>
#include <cstring>

#include "platform/ErrorCode.h"

namespace Osb {
namespace {

// Units of the bytes 0x80 to 0x9F in Windows-1252; the other bytes are their own unit. The five
// undefined bytes map to the C1 control of the same value, as Windows maps them.
constexpr char16_t kWindows1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 80-87
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,  // 88-8F
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 90-97
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,  // 98-9F
};

constexpr char16_t kReplacement = 0xFFFD;

enum class Page { kUtf8, kWindows1252, kUnsupported };

Page PageOf(uint32_t codePage) {
    if (codePage == kCodePageUtf8) return Page::kUtf8;
    if (codePage == kCodePageAnsi || codePage == kCodePageWindows1252) return Page::kWindows1252;
    return Page::kUnsupported;
}

bool IsSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }

// Decodes one character of UTF-8 at `p` (with `left` > 0 bytes), consuming `used` bytes. An
// ill-formed sequence gives U+FFFD for its maximal subpart: the longest start of a well-formed
// sequence, or one byte.
char32_t DecodeUtf8(const unsigned char* p, size_t left, size_t& used) {
    const unsigned char b0 = p[0];
    used = 1;
    if (b0 < 0x80) return b0;
    size_t need;
    char32_t c;
    unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        need = 1, c = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        need = 2, c = b0 & 0x0F;
        if (b0 == 0xE0) lo = 0xA0;  // no overlong forms
        if (b0 == 0xED) hi = 0x9F;  // no surrogates
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        need = 3, c = b0 & 0x07;
        if (b0 == 0xF0) lo = 0x90;  // no overlong forms
        if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    } else {
        return kReplacement;
    }
    for (size_t i = 1; i <= need; ++i) {
        const unsigned char lower = i == 1 ? lo : 0x80;
        const unsigned char upper = i == 1 ? hi : 0xBF;
        if (i >= left || p[i] < lower || p[i] > upper) return kReplacement;  // subpart of i bytes
        c = (c << 6) | (p[i] & 0x3F);
        used = i + 1;
    }
    return c;
}

// Encodes `c` into `out` as UTF-16; returns the number of units (1 or 2).
size_t EncodeUtf16(char32_t c, char16_t* out) {
    if (c < 0x10000) {
        out[0] = static_cast<char16_t>(c);
        return 1;
    }
    c -= 0x10000;
    out[0] = static_cast<char16_t>(0xD800 + (c >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    return 2;
}

// Decodes one character of UTF-16 at `p` (with `left` > 0 units), consuming `used` units. A pair
// is one character; a lone surrogate is returned as it is.
char32_t DecodeUtf16(const char16_t* p, size_t left, size_t& used) {
    used = 1;
    const char32_t c = p[0];
    if (c >= 0xD800 && c <= 0xDBFF && left > 1 && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
        used = 2;
        return 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
    }
    return c;
}

size_t EncodeUtf8(char32_t c, unsigned char* out) {
    if (IsSurrogate(c)) c = kReplacement;
    if (c < 0x80) {
        out[0] = static_cast<unsigned char>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<unsigned char>(0xC0 | (c >> 6));
        out[1] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = static_cast<unsigned char>(0xE0 | (c >> 12));
        out[1] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<unsigned char>(0xF0 | (c >> 18));
    out[1] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<unsigned char>(0x80 | (c & 0x3F));
    return 4;
}

unsigned char EncodeWindows1252(char32_t c) {
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<unsigned char>(c);
    for (size_t i = 0; i < 32; ++i) {
        if (kWindows1252High[i] == c) return static_cast<unsigned char>(0x80 + i);
    }
    return '?';
}

// The output side shared by both directions: whole characters go into the target while they fit;
// with capacity 0 they are only counted.
template <typename Unit>
class Sink {
  public:
    Sink(Unit* target, int capacity) : target_(target), capacity_(capacity) {}

    // False when the target is full (last error 122) or the count passes INT_MAX (87).
    bool Put(const Unit* units, size_t count) {
        if (count_ + count > static_cast<size_t>(INT_MAX)) {
            SetLastError(Err::kInvalidParameter);
            return false;
        }
        if (capacity_ != 0) {
            if (count_ + count > static_cast<size_t>(capacity_)) {
                SetLastError(Err::kInsufficientBuffer);
                return false;
            }
            for (size_t i = 0; i < count; ++i) target_[count_ + i] = units[i];  // 1 to 4 units
        }
        count_ += count;
        return true;
    }
    int Count() const { return static_cast<int>(count_); }

  private:
    Unit* target_;
    int capacity_;
    size_t count_ = 0;
};

template <typename Unit>
bool ArgumentsValid(uint32_t codePage, uint32_t flags, const void* source, int length,
                    const Unit* target, int capacity) {
    return PageOf(codePage) != Page::kUnsupported && flags == 0 && source != nullptr &&
           length != 0 && length >= -1 && capacity >= 0 && (capacity == 0 || target != nullptr);
}

}  // namespace

int MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* bytes, int length,
                        char16_t* wide, int capacity) {
    if (!ArgumentsValid(codePage, flags, bytes, length, wide, capacity)) {
        SetLastError(Err::kInvalidParameter);
        return 0;
    }
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    const size_t total = length == -1 ? std::strlen(bytes) + 1 : static_cast<size_t>(length);
    const bool utf8 = PageOf(codePage) == Page::kUtf8;
    Sink<char16_t> sink(wide, capacity);
    for (size_t at = 0; at < total;) {
        char16_t units[2];
        size_t count = 1;
        if (utf8) {
            size_t used;
            count = EncodeUtf16(DecodeUtf8(p + at, total - at, used), units);
            at += used;
        } else {
            const unsigned char b = p[at++];
            units[0] = b >= 0x80 && b <= 0x9F ? kWindows1252High[b - 0x80] : b;
        }
        if (!sink.Put(units, count)) return 0;
    }
    return sink.Count();
}

int WideCharToMultiByte(uint32_t codePage, uint32_t flags, const char16_t* wide, int length,
                        char* bytes, int capacity, const char* defaultChar, bool* usedDefault) {
    if (!ArgumentsValid(codePage, flags, wide, length, bytes, capacity) || defaultChar != nullptr ||
        usedDefault != nullptr) {
        SetLastError(Err::kInvalidParameter);
        return 0;
    }
    size_t total = static_cast<size_t>(length);
    if (length == -1) {
        total = 0;
        while (wide[total] != u'\0') ++total;
        ++total;
    }
    const bool utf8 = PageOf(codePage) == Page::kUtf8;
    Sink<char> sink(bytes, capacity);
    for (size_t at = 0; at < total;) {
        size_t used;
        const char32_t c = DecodeUtf16(wide + at, total - at, used);
        at += used;
        unsigned char out[4];
        const size_t count = utf8 ? EncodeUtf8(c, out) : (out[0] = EncodeWindows1252(c), 1);
        if (!sink.Put(reinterpret_cast<const char*>(out), count)) return 0;
    }
    return sink.Count();
}

bool IsDBCSLeadByteEx(uint32_t codePage, unsigned char /*byte*/) {
    if (PageOf(codePage) == Page::kUnsupported) SetLastError(Err::kInvalidParameter);
    return false;
}

}  // namespace Osb
