#include <gtest/gtest.h>

#include <string>

#include "util/UtfConvert.h"

namespace {

using namespace std::string_literals;

struct Case {
    const char* what;
    std::u16string wide;
    std::string utf8;
};

// Pairs that convert into each other in both directions.
const Case kBothWays[] = {
    {"empty", u"", ""},
    {"ascii", u"en_US", "en_US"},
    {"zero unit inside", u"a\0b"s, "a\0b"s},
    {"last one-byte", u"\u007F", "\x7F"},
    {"first two-byte", u"\u0080", "\xC2\x80"},
    {"last two-byte", u"\u07FF", "\xDF\xBF"},
    {"first three-byte", u"\u0800", "\xE0\xA0\x80"},
    {"last three-byte", u"\uFFFF", "\xEF\xBF\xBF"},
    {"pair, first", u"\U00010000", "\xF0\x90\x80\x80"},
    {"pair", u"\U0001F600", "\xF0\x9F\x98\x80"},
    {"pair, last", u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
    {"lone low surrogate", std::u16string(1, char16_t(0xDC80)), "\xED\xB2\x80"},
    {"lone low surrogate between letters", u"a"s + char16_t(0xDFFF) + u"b",
     "a\xED\xBF\xBF"
     "b"},
    {"high surrogate at the end", u"x"s + char16_t(0xDBFF), "x\xED\xAF\xBF"},
    {"mixed path", u"/opt/Ünï/日本/\U0001F600",
     "/opt/\xC3\x9Cn\xC3\xAF/\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x98\x80"},
};

TEST(UtfConvertTest, ConvertsBothWays) {
    for (const Case& c : kBothWays) {
        EXPECT_EQ(mst_util::to_utf8(c.wide), c.utf8) << c.what;
        EXPECT_EQ(mst_util::to_utf16(c.utf8), c.wide) << c.what;
    }
}

// The conversions do not validate: a high surrogate takes whatever unit follows it.
TEST(UtfConvertTest, HighSurrogateJoinsAnyNextUnit) {
    // (0xD800 << 10) + 'A' - 0x35FDC00 = U+2441
    EXPECT_EQ(mst_util::to_utf8(std::u16string{char16_t(0xD800), u'A'}), "\xE2\x91\x81");
    // (0xDBFF << 10) + 0xD800 - 0x35FDC00 = U+10F800
    EXPECT_EQ(mst_util::to_utf8(std::u16string{char16_t(0xDBFF), char16_t(0xD800)}),
              "\xF4\x8F\xA0\x80");
}

struct Decode {
    const char* what;
    std::string utf8;
    std::u16string wide;
};

// Byte sequences that are not well-formed UTF-8 still decode by the length rule, and nothing past
// the text is read.
const Decode kUnchecked[] = {
    {"continuation byte as first byte takes two", "\x80\x41", u"\u0001"},
    {"second byte not a continuation", "\xC3\x28", u"\u00E8"},
    {"overlong two-byte", "\xC0\xAF", u"/"},
    {"four-byte above U+10FFFF", "\xF7\xBF\xBF\xBF",
     std::u16string{char16_t(0xDFBF), char16_t(0xDFFF)}},
    {"byte from 0xF8 stands for itself",
     "\xF8\xFF"
     "a",
     u"\u00F8\u00FFa"},
    {"sequence cut by the end", "a\xE2\x82", u"a\u2080"},
    {"lead byte alone at the end", "\xF0", std::u16string(1, u'\0')},
};

TEST(UtfConvertTest, DecodesUncheckedBytesByTheLengthRule) {
    for (const Decode& d : kUnchecked) EXPECT_EQ(mst_util::to_utf16(d.utf8), d.wide) << d.what;
}

// Every unit that is not a high surrogate, alone, survives a trip through UTF-8.
TEST(UtfConvertTest, EverySingleUnitRoundTrips) {
    for (uint32_t u = 0; u <= 0xFFFF; ++u) {
        if (u >= 0xD800 && u <= 0xDBFF) continue;
        const std::u16string wide(1, static_cast<char16_t>(u));
        ASSERT_EQ(mst_util::to_utf16(mst_util::to_utf8(wide)), wide) << std::hex << u;
    }
}

}  // namespace
