#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>

#include "platform/Utf.h"
#include "tests/support/Hex.h"

namespace {

std::string Bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) out.push_back(static_cast<char>(v));
    return out;
}

std::u16string Units(std::initializer_list<int> values) {
    std::u16string out;
    for (int v : values) out.push_back(static_cast<char16_t>(v));
    return out;
}

std::string Show(const std::string& bytes) {
    std::string out;
    char buffer[4];
    for (unsigned char b : bytes) {
        std::snprintf(buffer, sizeof(buffer), "%02X ", b);
        out += buffer;
    }
    return out;
}

std::string Show(const std::u16string& units) { return vigil_test::Hex(units); }

struct Pair {
    const char* what;
    std::string bytes;
    std::u16string units;
};

// Each row holds both ways: the bytes decode to the units and the units encode to the bytes.
TEST(UtfTest, ConvertsBothWaysByTheTable) {
    const Pair rows[] = {
        {"empty", "", u""},
        {"ASCII with NUL", Bytes({'a', 0, 'b'}), Units({'a', 0, 'b'})},
        {"two bytes", Bytes({0xC3, 0xA9}), Units({0xE9})},
        {"smallest two bytes", Bytes({0xC2, 0x80}), Units({0x80})},
        {"largest two bytes", Bytes({0xDF, 0xBF}), Units({0x7FF})},
        {"three bytes", Bytes({0xE2, 0x82, 0xAC}), Units({0x20AC})},
        {"smallest three bytes", Bytes({0xE0, 0xA0, 0x80}), Units({0x800})},
        {"last before surrogates", Bytes({0xED, 0x9F, 0xBF}), Units({0xD7FF})},
        {"first after surrogates", Bytes({0xEE, 0x80, 0x80}), Units({0xE000})},
        {"U+FFFF", Bytes({0xEF, 0xBF, 0xBF}), Units({0xFFFF})},
        {"four bytes", Bytes({0xF0, 0x9F, 0x98, 0x80}), Units({0xD83D, 0xDE00})},
        {"smallest four bytes", Bytes({0xF0, 0x90, 0x80, 0x80}), Units({0xD800, 0xDC00})},
        {"U+10FFFF", Bytes({0xF4, 0x8F, 0xBF, 0xBF}), Units({0xDBFF, 0xDFFF})},
        {"pair whose low half is a byte escape", Bytes({0xF0, 0x90, 0x82, 0x80}),
         Units({0xD800, 0xDC80})},
        // Bytes that are not UTF-8 become U+DC00 + byte, one unit per byte.
        {"stray continuation", Bytes({0x80}), Units({0xDC80})},
        {"FF", Bytes({0xFF}), Units({0xDCFF})},
        {"F5 and above", Bytes({0xF5, 0x80, 0x80, 0x80}), Units({0xDCF5, 0xDC80, 0xDC80, 0xDC80})},
        {"overlong NUL", Bytes({0xC0, 0x80}), Units({0xDCC0, 0xDC80})},
        {"overlong two bytes", Bytes({0xC1, 0xBF}), Units({0xDCC1, 0xDCBF})},
        {"overlong three bytes", Bytes({0xE0, 0x9F, 0xBF}), Units({0xDCE0, 0xDC9F, 0xDCBF})},
        {"overlong four bytes", Bytes({0xF0, 0x8F, 0xBF, 0xBF}),
         Units({0xDCF0, 0xDC8F, 0xDCBF, 0xDCBF})},
        {"above U+10FFFF", Bytes({0xF4, 0x90, 0x80, 0x80}),
         Units({0xDCF4, 0xDC90, 0xDC80, 0xDC80})},
        {"truncated at the end", Bytes({'x', 0xF0, 0x9F, 0x98}),
         Units({'x', 0xDCF0, 0xDC9F, 0xDC98})},
        {"truncated before ASCII", Bytes({0xE2, 0x82, 'A'}), Units({0xDCE2, 0xDC82, 'A'})},
        {"lead byte before a lead byte", Bytes({0xC3, 0xC3, 0xA9}), Units({0xDCC3, 0xE9})},
        {"Latin-1 name", Bytes({'c', 'a', 'f', 0xE9}), Units({'c', 'a', 'f', 0xDCE9})},
        // Surrogates in three-byte form (WTF-8).
        {"lone high at the end", Bytes({0xED, 0xA0, 0x80}), Units({0xD800})},
        {"lone high before ASCII", Bytes({0xED, 0xAF, 0xBF, 'a'}), Units({0xDBFF, 'a'})},
        {"lone high before a pair", Bytes({0xED, 0xA0, 0x80, 0xF0, 0x9F, 0x98, 0x80}),
         Units({0xD800, 0xD83D, 0xDE00})},
        {"run of lone highs", Bytes({0xED, 0xA0, 0x80, 0xED, 0xA0, 0x81}), Units({0xD800, 0xD801})},
        {"lone low", Bytes({0xED, 0xB0, 0x80}), Units({0xDC00})},
        {"lone low above the escapes", Bytes({0xED, 0xB4, 0x80}), Units({0xDD00})},
        {"lone low then lone high", Bytes({0xED, 0xB0, 0x80, 0xED, 0xA0, 0x80}),
         Units({0xDC00, 0xD800})},
        // Three-byte forms that must stay bytes, or they would come back as something else.
        {"three-byte form of an escape", Bytes({0xED, 0xB2, 0x80}),
         Units({0xDCED, 0xDCB2, 0xDC80})},
        {"encoded pair (CESU-8)", Bytes({0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}),
         Units({0xDCED, 0xDCA0, 0xDCBD, 0xDE00})},
        {"high before a bad byte", Bytes({0xED, 0xA0, 0x80, 0x80}),
         Units({0xDCED, 0xDCA0, 0xDC80, 0xDC80})},
        {"run of highs before a bad byte", Bytes({0xED, 0xA0, 0x80, 0xED, 0xA0, 0x81, 0xFF}),
         Units({0xDCED, 0xDCA0, 0xDC80, 0xDCED, 0xDCA0, 0xDC81, 0xDCFF})},
        {"truncated surrogate", Bytes({0xED, 0xA0}), Units({0xDCED, 0xDCA0})},
    };
    for (const Pair& row : rows) {
        EXPECT_EQ(Show(Osb::Utf8ToUtf16(row.bytes)), Show(row.units)) << row.what;
        EXPECT_EQ(Show(Osb::Utf16ToUtf8(row.units)), Show(row.bytes)) << row.what;
    }
}

// Draws bytes that make interesting sequences likely: lead bytes of every length, continuation
// bytes, ED with surrogate-range second bytes, and the bounds of each range.
std::string RandomBytes(std::mt19937& rng) {
    static const int kAlphabet[] = {'a',  0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xAF,
                                    0xB0, 0xB2, 0xB3, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0,
                                    0xE2, 0xED, 0xEE, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF};
    std::uniform_int_distribution<int> length(0, 24);
    std::uniform_int_distribution<int> pick(0, static_cast<int>(std::size(kAlphabet)) - 1);
    std::uniform_int_distribution<int> any(0, 255);
    std::string out;
    for (int n = length(rng); n > 0; --n) {
        out.push_back(static_cast<char>(n % 3 == 0 ? any(rng) : kAlphabet[pick(rng)]));
    }
    return out;
}

TEST(UtfTest, EveryByteStringSurvivesATripThroughUtf16) {
    std::mt19937 rng(20240611);
    for (int i = 0; i < 50000; ++i) {
        const std::string bytes = RandomBytes(rng);
        const std::u16string units = Osb::Utf8ToUtf16(bytes);
        ASSERT_EQ(Show(Osb::Utf16ToUtf8(units)), Show(bytes)) << "units " << Show(units);
        // Decoding what was written gives the same units again.
        ASSERT_EQ(Show(Osb::Utf8ToUtf16(Osb::Utf16ToUtf8(units))), Show(units));
    }
}

TEST(UtfTest, Utf16WithoutByteEscapesSurvivesATripThroughUtf8) {
    // Any units at all, lone surrogates of both halves included, except U+DC80..U+DCFF, which
    // stand for raw bytes.
    std::mt19937 rng(7);
    static const int kAlphabet[] = {'a',    0x00,   0x7F,   0x80,   0x7FF,  0x800,  0xD7FF, 0xD800,
                                    0xDBFF, 0xDC00, 0xDC7F, 0xDD00, 0xDFFF, 0xE000, 0xFFFF};
    std::uniform_int_distribution<int> length(0, 16);
    std::uniform_int_distribution<int> pick(0, static_cast<int>(std::size(kAlphabet)) - 1);
    std::uniform_int_distribution<int> any(0, 0xFFFF);
    for (int i = 0; i < 100000; ++i) {
        std::u16string units;
        for (int n = length(rng); n > 0; --n) {
            int u = n % 2 == 0 ? any(rng) : kAlphabet[pick(rng)];
            if (u >= 0xDC80 && u <= 0xDCFF) u = 0xDD00;
            units.push_back(static_cast<char16_t>(u));
        }
        ASSERT_EQ(Show(Osb::Utf8ToUtf16(Osb::Utf16ToUtf8(units))), Show(units));
    }
}

TEST(UtfTest, HostEndianConversionHonoursTheLengthOrTheTerminator) {
    const char text[] = {'a', static_cast<char>(0xC3), static_cast<char>(0xA9), 0, 'b', 0};
    std::u16string out = u"old content";
    Osb::UTF8ToUTF16HostEndian(text, -1, out);
    EXPECT_EQ(out, Units({'a', 0xE9}));
    Osb::UTF8ToUTF16HostEndian(text, 5, out);
    EXPECT_EQ(out, Units({'a', 0xE9, 0, 'b'}));
    // A length that cuts a sequence leaves its bytes as escapes.
    Osb::UTF8ToUTF16HostEndian(text, 2, out);
    EXPECT_EQ(out, Units({'a', 0xDCC3}));
    Osb::UTF8ToUTF16HostEndian(text, 0, out);
    EXPECT_TRUE(out.empty());
}

}  // namespace
