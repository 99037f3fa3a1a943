// Text dictionary files in their three encodings, line by line into the store the version selects.

#include <gtest/gtest.h>

#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/dictionary/FileBytes.h"

namespace lexkit_test {
namespace {

using lexkit_private::Dictionary;

std::string Utf16File(std::u16string_view text, bool bigEndian) {
    FileBytes f(bigEndian);
    f.Units(u"\uFEFF").Units(text);
    return f.Str();
}

struct EncodingCase {
    const char* name;
    std::string (*encode)(std::u16string_view);
};

class TextEncodingTest : public ::testing::TestWithParam<EncodingCase> {};

TEST_P(TextEncodingTest, LinesDefineEntriesWhateverTheirLineEnds) {
    // The first line holds only the byte-order mark (if any), so that no entry has it in front.
    const std::u16string text =
        u"\r\n"
        u"$$$/a/b=Text one\r\n"
        u"/plain=caf\u00e9\n"
        u"\"$$$/quoted=say \\\"hi\\\"\" ignored behind\r"
        u"\n\n"
        u"/last=no line end";
    Dictionary d;
    LoadBytes(d, GetParam().encode(text));
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(Look(d, "/a/b=x"), u"Text one");
    EXPECT_EQ(Look(d, "/plain=x"), u"caf\u00e9");
    EXPECT_EQ(Look(d, "/quoted=x"), u"say \"hi\"");
    EXPECT_EQ(Look(d, "/last=x"), u"no line end");
    EXPECT_EQ(d.VisibleEntries().size(), 4u);
}

std::string Windows1252(std::u16string_view text) {
    std::string out;
    for (char16_t u : text) {
        EXPECT_LT(u, 0x100);  // the sample text stays in the Latin-1 part of Windows-1252
        out.push_back(static_cast<char>(u));
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(
    Encodings, TextEncodingTest,
    ::testing::Values(
        EncodingCase{"utf16le", [](std::u16string_view s) { return Utf16File(s, false); }},
        EncodingCase{"utf16be", [](std::u16string_view s) { return Utf16File(s, true); }},
        EncodingCase{"multibyte", &Windows1252}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(TextLoadTest, LineFormsFollowTheQuotingAndDollarRules) {
    struct {
        std::u16string line;
        std::string lookup;
        std::u16string expected;
    } cases[] = {
        {u"abc", "abc=dflt", u""},                  // no '=': empty value, found
        {u"x$$=y", "x$$=dflt", u"y"},               // dollars inside the key
        {u"\"/q1=one\"two", "/q1=dflt", u"one"},    // text behind the close is ignored
        {u"\"/q2=open", "/q2=dflt", u"open"},       // no closing quote
        {u"pre\"/q3=in\"post", "/q3=dflt", u"in"},  // text before the open is ignored
        {u"/q4=a\\\\\"b", "/q4=dflt", u"a\\\"b"},   // a quote behind two backslashes
        {u"/e1=a=b=c", "/e1=dflt", u"a=b=c"},       // later '=' belong to the value
        {u"/e2=50^T #{copy} a\\tb", "/e2=dflt", u"50\u2122 \u00a9 a\tb"},
        {u"/\u0161\u0162=collide", "/ab=dflt", u"collide"},  // low bytes of U+0161, U+0162
        {u"=empty key", "=dflt", u"empty key"},
    };
    for (auto& c : cases) {
        Dictionary d;
        d.AddLine(c.line.c_str());
        EXPECT_TRUE(d.Valid());
        EXPECT_EQ(Look(d, c.lookup), c.expected) << c.lookup;
    }
}

TEST(TextLoadTest, BadDollarStartAddsNothingAndFlawsTheLoad) {
    for (const char16_t* line : {u"$$x=y", u"$x=y", u"\"$$x=y\"", u"$"}) {
        Dictionary d;
        d.AddLine(line);
        EXPECT_FALSE(d.Valid());
        EXPECT_TRUE(d.VisibleEntries().empty());
    }
}

TEST(TextLoadTest, LaterLineWinsAndTheChainHoldsOneEntry) {
    Dictionary d;
    LoadBytes(d, Utf16File(u"/k=first\n/k=second\n", false));
    EXPECT_EQ(Look(d, "/k=x"), u"second");
    int chain = 0;
    for (auto* item = d.Head(Bucket("/k")); item != nullptr; item = item->next) ++chain;
    EXPECT_EQ(chain, 1);
}

TEST(TextLoadTest, ByteOrderMarkBeforeUnquotedContentHidesThatEntry) {
    Dictionary unquoted;
    LoadBytes(unquoted, Utf16File(u"/a=1\n/b=2", false));
    EXPECT_EQ(Look(unquoted, "/a=miss"), u"miss");
    EXPECT_EQ(Look(unquoted, "\xFF/a=miss"), u"1");
    EXPECT_EQ(Look(unquoted, "/b=miss"), u"2");
    Dictionary quoted;
    LoadBytes(quoted, Utf16File(u"\"/a=1\"\n", false));
    EXPECT_EQ(Look(quoted, "/a=miss"), u"1");
}

TEST(TextLoadTest, ShortAndEmptyFilesAreTextWithoutSurprises) {
    Dictionary empty;
    LoadBytes(empty, std::string());
    EXPECT_TRUE(empty.Valid());
    EXPECT_TRUE(empty.VisibleEntries().empty());
    Dictionary shortFile;
    LoadBytes(shortFile, std::string("Lexicon=Binary"));  // shorter than the magic
    EXPECT_EQ(Look(shortFile, "Lexicon=x"), u"Binary");
}

TEST(TextLoadTest, LinesOnTopOfA2xFileGoIntoTheBlockStore) {
    Dictionary d;
    LoadBytes(d, Version2File(7, false, {{"/a", u"binary"}, {"/b", u"kept"}}).bytes);
    LoadBytes(d, Utf16File(u"\n/a=text\n/c=new", false));  // the mark stands alone
    EXPECT_EQ(Look(d, "/a=x"), u"text");
    EXPECT_EQ(Look(d, "/b=x"), u"kept");
    EXPECT_EQ(Look(d, "/c=x"), u"new");
    EXPECT_EQ(d.Array().EntryCount(), 3u);
}

}  // namespace
}  // namespace lexkit_test
