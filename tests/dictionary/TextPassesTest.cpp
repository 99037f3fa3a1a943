#include <gtest/gtest.h>

#include <random>
#include <string>

#include "dictionary/ExpandEntities.h"
#include "dictionary/Unescape.h"
#include "tests/support/Hex.h"

namespace {

using lexkit_private::ExpandEntities;
using lexkit_private::Unescape;

using vigil_test::Hex;

std::u16string Unescaped(const std::u16string& text) {
    return Unescape(text.data(), static_cast<uint32_t>(text.size())).Text();
}
std::u16string Expanded(const std::u16string& text) {
    return ExpandEntities(text.data(), static_cast<uint32_t>(text.size())).Text();
}

struct Case {
    std::u16string in;
    std::u16string out;
};

TEST(TextPassesTest, UnescapeResolvesBothTablesAndKeepsWhatIsNoEscape) {
    const Case cases[] = {
        {u"a^", u"a^"},
        {u"a\\", u"a\\"},
        {u"^e", u"^e"},
        {u"\\\"", u"\""},
        {u"^Q", u"\""},
        {u"^^", u"^"},
        {u"\\\\", u"\\"},
        {u"^^^", u"^^"},
        {u"\\x", u"\\x"},
        {u"^\\n", u"^\\n"},  // the backslash closes the caret escape, so n is a letter
        {u"\\^T", u"\\^T"},
        {u"a\\tb", u"a\tb"},
        {u"\\n\\r\\t\\b", u"\n\r\t\b"},
        {u"50^T", u"50\u2122"},
        {u"^[^]^{^}^C^R^T^D", u"\u201C\u201D\u2018\u2019\u00A9\u00AE\u2122\u00B0"},
        {u"^B^#^!^I^S^n^r", u"\u2022\u2318\u00AC\u2206\u2211\n\r"},
        {u"^q\\Q", u"^q\\Q"},          // tables are case-sensitive
        {u"^#{tab}", u"\u2318{tab}"},  // escapes act before entities
        {u"\\#{tab}", u"\\\t"},
        {u"", u""},
    };
    for (const Case& c : cases) EXPECT_EQ(Hex(Unescaped(c.in)), Hex(c.out)) << Hex(c.in);
}

TEST(TextPassesTest, ExpandEntitiesTakesRowsBeforeNumbersAndNeedsTheClosingBrace) {
    const Case cases[] = {
        {u"#{endl}", u"\r\n"},
        {u"#{cr}#{lf}", u"\r\n"},
        {u"a#{tab}b", u"a\tb"},
        {u"#{U+20AC}", u"\u20AC"},
        {u"#{u20AC}", u"\u20AC"},
        {u"#{20AC}", u"\u20AC"},
        {u"#{20ac}", u"\u20AC"},
        {u"#{euro}", u"\u20AC"},
        {u"#{u}", u"#{u}"},  // the prefix u fits, no digit, the empty prefix is not tried
        {u"#{U+}", u"#{U+}"},
        {u"#{1F600}", u"#{1F600}"},
        {u"#{ucirc}", u"\u00FB"},
        {u"#{uc}", u"\u000C"},
        {u"#{COPY}", u"#{COPY}"},
        {u"#{Cafe}", u"\uCAFE"},
        {u"#{notx}", u"#{notx}"},  // the row not fits and is the only try
        {u"#{nbsp", u"#{nbsp"},
        {u"#{41", u"#{41"},
        {u"##{tab}", u"#\t"},
        {u"#{}", u"#{}"},
        {u"#{}x", u"#{}x"},
        {u"#{", u"#{"},
        {u"#", u"#"},
        {u"#{a}", u"\u000A"},
        {u"#{A}#{amp}#{lt}#{gt}", u"\u000A&<>"},
        {u"x#{euro}y#{euro}z", u"x\u20ACy\u20ACz"},
        {u"#{#{tab}}", u"#{\t}"},
        {u"#{endlx}", u"#{endlx}"},
        {std::u16string(u"a#{0}b"), std::u16string(u"a\0b", 3)},
    };
    for (const Case& c : cases) EXPECT_EQ(Hex(Expanded(c.in)), Hex(c.out)) << Hex(c.in);
}

// The ends and a few inner rows of each entity range: the Latin-1 names are in unit order from
// U+00A0, the others are scattered, and neighbours differ only in case.
TEST(TextPassesTest, EntityNamesHaveTheirUnits) {
    const struct {
        const char16_t* name;
        char16_t unit;
    } rows[] = {
        {u"nbsp", 0x00A0},  {u"shy", 0x00AD},    {u"Agrave", 0x00C0}, {u"szlig", 0x00DF},
        {u"agrave", 0x00E0}, {u"THORN", 0x00DE}, {u"thorn", 0x00FE},  {u"yuml", 0x00FF},
        {u"tab", 0x0009},   {u"cr", 0x000D},     {u"quot", 0x0022},   {u"OElig", 0x0152},
        {u"oelig", 0x0153}, {u"Yuml", 0x0178},   {u"zwnj", 0x200C},   {u"Dagger", 0x2021},
        {u"permil", 0x2030}, {u"rsaquo", 0x203A},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Hex(Expanded(u"#{" + std::u16string(row.name) + u"}")),
                  Hex(std::u16string(1, row.unit)))
            << Hex(row.name);
    }
}

// Random text from the units that matter to the passes: never longer than the input, and, run
// under the address sanitizer, never a read behind it (the input is an exact-size heap copy).
TEST(TextPassesTest, RandomTextNeverGrowsOrOverreads) {
    const std::u16string alphabet = u"#{}^\\uU+0aFgnt\"QTlcdr";
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        const size_t size = random() % 24;
        auto text = std::make_unique<char16_t[]>(size);
        for (size_t i = 0; i < size; ++i) text[i] = alphabet[random() % alphabet.size()];
        const auto length = static_cast<uint32_t>(size);
        EXPECT_LE(Unescape(text.get(), length).UnitLength(), length);
        EXPECT_LE(ExpandEntities(text.get(), length).UnitLength(), length);
    }
}

}  // namespace
