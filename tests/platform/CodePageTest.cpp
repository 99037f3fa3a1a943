#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/CodePage.h"
#include "platform/ErrorCode.h"
#include "tests/support/Hex.h"

namespace {

using Osb::kCodePageAnsi;
using Osb::kCodePageUtf8;

using vigil_test::Hex;

std::u16string ToWide(uint32_t codePage, const std::string& bytes) {
    const int n = Osb::MultiByteToWideChar(codePage, 0, bytes.data(),
                                           static_cast<int>(bytes.size()), nullptr, 0);
    std::u16string out(static_cast<size_t>(n), u'\0');
    EXPECT_EQ(Osb::MultiByteToWideChar(codePage, 0, bytes.data(), static_cast<int>(bytes.size()),
                                       out.data(), n),
              n);
    return out;
}

std::string ToBytes(uint32_t codePage, const std::u16string& units) {
    const int n = Osb::WideCharToMultiByte(
        codePage, 0, units.data(), static_cast<int>(units.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    EXPECT_EQ(Osb::WideCharToMultiByte(codePage, 0, units.data(), static_cast<int>(units.size()),
                                       out.data(), n, nullptr, nullptr),
              n);
    return out;
}

TEST(CodePageTest, Utf8DecodesWellFormedTextAndReplacesEachMaximalIllFormedSubpart) {
    struct Case {
        std::string bytes;
        std::u16string units;
    } cases[] = {
        {"A\x7F", u"A\x7F"},
        {"\xC3\xA9", u"\u00E9"},
        {"\xE2\x82\xAC", u"\u20AC"},
        {"\xF0\x9F\x98\x80", u"\U0001F600"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                      // overlong lead
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},            // overlong three-byte form
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {"\xE2\x82", u"\uFFFD"},                            // cut at the end: one subpart
        {"\xE2\x82"
         "A",
         u"\uFFFDA"},  // the breaking byte is read again
        {"\xF0\x9F\x98"
         "\xC3\xA9",
         u"\uFFFD\u00E9"},
        {"\x80\xFF", u"\uFFFD\uFFFD"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Hex(ToWide(kCodePageUtf8, c.bytes)), Hex(c.units)) << Hex(c.units);
    }
}

TEST(CodePageTest, Utf8EncodesPairsWholeAndLoneSurrogatesAsReplacement) {
    EXPECT_EQ(ToBytes(kCodePageUtf8, u"a\u00E9\u20AC\U0001F600"),
              "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(ToBytes(kCodePageUtf8, std::u16string{0xD83D, u'x', 0xDE00}),
              "\xEF\xBF\xBDx\xEF\xBF\xBD");
}

TEST(CodePageTest, AnsiCodePageIsWindows1252AndEveryByteRoundTrips) {
    EXPECT_EQ(Hex(ToWide(kCodePageAnsi, "\x80\x81\x8A\x9F\xA0\xE9\xFF")),
              Hex(u"\u20AC\u0081\u0160\u0178\u00A0\u00E9\u00FF"));
    std::string all;
    for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
    EXPECT_EQ(ToBytes(kCodePageAnsi, ToWide(kCodePageAnsi, all)), all);
    EXPECT_EQ(ToBytes(Osb::kCodePageWindows1252, ToWide(Osb::kCodePageWindows1252, all)), all);
    // No byte in 1252: a question mark, one for a whole pair.
    EXPECT_EQ(ToBytes(kCodePageAnsi, u"\u0100\U0001F600\u0080z"), "???z");
}

TEST(CodePageTest, ShortTargetKeepsWholeCharactersAndReportsInsufficientBuffer) {
    char16_t units[3] = {u'#', u'#', u'#'};
    EXPECT_EQ(Osb::MultiByteToWideChar(kCodePageUtf8, 0, "a\xF0\x9F\x98\x80", 5, units, 2), 0);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kInsufficientBuffer);
    EXPECT_EQ(units[0], u'a');
    EXPECT_EQ(units[1], u'#');  // half a pair is never written

    char bytes[3] = {'#', '#', '#'};
    EXPECT_EQ(Osb::WideCharToMultiByte(kCodePageUtf8, 0, u"a\u00E9", 2, bytes, 2, nullptr, nullptr),
              0);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kInsufficientBuffer);
    EXPECT_EQ(std::string(bytes, 3), "a##");
}

TEST(CodePageTest, BadArgumentsFailWithInvalidParameter) {
    char16_t wide[4];
    char narrow[4];
    struct Case {
        const char* what;
        std::function<int()> call;
    } cases[] = {
        {"length 0", [&] { return Osb::MultiByteToWideChar(kCodePageUtf8, 0, "a", 0, wide, 4); }},
        {"length -2", [&] { return Osb::MultiByteToWideChar(kCodePageUtf8, 0, "a", -2, wide, 4); }},
        {"code page 437", [&] { return Osb::MultiByteToWideChar(437, 0, "a", 1, wide, 4); }},
        {"flags", [&] { return Osb::MultiByteToWideChar(kCodePageUtf8, 1, "a", 1, wide, 4); }},
        {"null source",
         [&] { return Osb::MultiByteToWideChar(kCodePageUtf8, 0, nullptr, 1, wide, 4); }},
        {"null target",
         [&] { return Osb::MultiByteToWideChar(kCodePageUtf8, 0, "a", 1, nullptr, 4); }},
        {"default char",
         [&] {
             return Osb::WideCharToMultiByte(kCodePageAnsi, 0, u"a", 1, narrow, 4, "?", nullptr);
         }},
        {"wide length 0",
         [&] {
             return Osb::WideCharToMultiByte(kCodePageAnsi, 0, u"a", 0, narrow, 4, nullptr,
                                             nullptr);
         }},
    };
    for (const Case& c : cases) {
        Osb::SetLastError(0);
        EXPECT_EQ(c.call(), 0) << c.what;
        EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kInvalidParameter) << c.what;
    }
}

TEST(CodePageTest, LengthMinusOneConvertsThroughTheTerminator) {
    char16_t wide[4] = {u'#', u'#', u'#', u'#'};
    EXPECT_EQ(Osb::MultiByteToWideChar(kCodePageAnsi, 0, "ab", -1, wide, 4), 3);
    EXPECT_EQ(std::u16string(wide, 4), std::u16string(u"ab\0#", 4));
    char narrow[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(
        Osb::WideCharToMultiByte(kCodePageUtf8, 0, u"\u00E9", -1, narrow, 4, nullptr, nullptr), 3);
    EXPECT_EQ(std::string(narrow, 4), std::string("\xC3\xA9\0#", 4));
    EXPECT_FALSE(Osb::IsDBCSLeadByteEx(kCodePageAnsi, 0x81));
}

}  // namespace
