// Lookups of "key=default" texts: Dictionary::Find's rules, and the process-wide LoadDictionary
// and LookupString the service calls.

#include <gtest/gtest.h>

#include <thread>

#include "dictionary/LookupString.h"
#include "dictionary/LxErrException.h"
#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/dictionary/FileBytes.h"
#include "tests/support/ScratchRoot.h"

namespace lexkit_test {
namespace {

using lexkit_private::Dictionary;
using lexkit_private::LoadDictionary;
using lexkit_private::LookupString;

TEST(LookupTest, FindSplitsKeyAndDefaultAndAppliesEscapesToTheDefault) {
    Dictionary d;
    d.AddLine(u"/hit=value");
    d.AddLine(u"/blank=");
    struct {
        const char* text;
        std::u16string expected;
    } cases[] = {
        {"$$$/hit=default", u"value"},
        {"/hit=default", u"value"},
        {"$$$/blank=default", u""},  // a hit ends the search, even with an empty value
        {"$$$/miss=default", u"default"},
        {"$$$/miss=", u""},
        {"$$$/miss", u""},
        {"$$=x", u""},
        {"$x=y", u""},
        {"a=b", u"b"},
        {"=b", u"b"},
        {"", u""},
        {"/m=50^T", u"50\u2122"},
        {"/m=a\\tb", u"a\tb"},
        {"/m=#{copy}", u"\u00a9"},
        {"/m=x=y", u"x=y"},
    };
    for (auto& c : cases) EXPECT_EQ(Look(d, c.text), c.expected) << c.text;
    EXPECT_TRUE(d.Find(nullptr, nullptr).IsSharedEmptyValue());
    EXPECT_TRUE(d.Find("$$$/miss=", nullptr).IsSharedEmptyValue());
}

TEST(LookupTest, DefaultIsConvertedByTheGivenEncoding) {
    Dictionary d;
    const uint32_t utf8 = 1;
    const uint32_t ansi = 2;
    const uint32_t widen = 0;
    EXPECT_EQ(d.Find("/m=caf\xc3\xa9", &utf8).Text(), u"caf\u00e9");
    EXPECT_EQ(d.Find("/m=\x80", &ansi).Text(), u"\u20ac");
    EXPECT_EQ(d.Find("/m=\x80", &widen).Text(), u"\u0080");
}

TEST(LookupTest, HashTableHitSharesTheEntrysValueAndBlockHitCopiesIt) {
    Dictionary text;
    text.AddLine(u"/k=v");
    EXPECT_TRUE(text.Find("/k=", nullptr).SharesValueWith(text.Find("/k=", nullptr)));
    Dictionary block;
    LoadBytes(block, Version2File(7, false, {{"/k", u"v"}}).bytes);
    EXPECT_FALSE(block.Find("/k=", nullptr).SharesValueWith(block.Find("/k=", nullptr)));
}

TEST(LookupTest, ValueRefCopyOutTruncatesAndRaisesOnlyWhenAsked) {
    const std::u16string text = u"abcdef";
    const auto value = lexkit_private::ByteRunValueRef::FromUnits(text.data(), text.size());
    char16_t buffer[8] = {u'#', u'#', u'#', u'#', u'#', u'#', u'#', u'#'};
    value.CopyOut(buffer, 4, false);
    EXPECT_EQ(std::u16string(buffer), u"abc");
    EXPECT_EQ(buffer[4], u'#');
    try {
        value.CopyOut(buffer, 6, true);
        ADD_FAILURE() << "a capacity of 6 holds no NUL behind 6 units";
    } catch (const LxErrException& e) {
        EXPECT_EQ(e.code, 0x42554646u);
        EXPECT_EQ(std::u16string(buffer), u"abcde") << "the copy is made before the raise";
    }
    value.CopyOut(buffer, 7, true);
    EXPECT_EQ(std::u16string(buffer), text);
}

TEST(LookupTest, KeyHashSamplesLongKeys) {
    struct {
        const char* key;
        uint32_t hash;
    } cases[] = {{"", 0}, {"a", 97}, {"abc", 463}, {"abcdefghij", 808}};
    for (auto& c : cases) EXPECT_EQ(Bucket(c.key), c.hash) << c.key;
    // 10 bytes: step 2, so the odd positions are never looked at.
    EXPECT_EQ(Bucket("aXcXeXgXiX"), Bucket("abcdefghij"));
    EXPECT_NE(Bucket("Xbcdefghij"), Bucket("abcdefghij"));
}

// The process-wide dictionary is shared by the cases below, so each uses keys of its own.
class LookupStringTest : public ::testing::Test {
  protected:
    std::u16string WriteFile(const std::string& name, const std::vector<uint8_t>& bytes) {
        const std::u16string path = Osb::Utf8ToUtf16(root_ / name);
        EXPECT_EQ(Osb::WriteFileBytes(path, bytes), 0u);
        return path;
    }
    vigil_test::ScratchRoot root_;
};

TEST_F(LookupStringTest, DefaultLocaleReadsNoFileUnlessForced) {
    const std::u16string path =
        WriteFile("en.dct", Version2File(7, false, {{"/ls/en", u"from file"}}).bytes);
    EXPECT_TRUE(LoadDictionary(path, 58, false));
    EXPECT_EQ(LookupString("$$$/ls/en=default"), u"default");
    EXPECT_TRUE(LoadDictionary(path, 58, true));
    EXPECT_EQ(LookupString("$$$/ls/en=default"), u"from file");
}

TEST_F(LookupStringTest, MissingFileReturnsFalseAndDefaultsStay) {
    EXPECT_FALSE(LoadDictionary(Osb::Utf8ToUtf16(root_ / "none/lexicon.dct"), 38, false));
    EXPECT_FALSE(LoadDictionary(Osb::Utf8ToUtf16(root_.path()), 38, false)) << "a folder";
    EXPECT_EQ(LookupString("$$$/ls/missing=Orvanta Vigil Watch V"), u"Orvanta Vigil Watch V");
}

TEST_F(LookupStringTest, TextWithoutEqualsIsReturnedWholeAndValuesEndAtNul) {
    const std::string text = "\xEF\xBB\xBF\"/ls/nul=ab#{0}cd\"\n";  // UTF-8 mark: multibyte text
    const std::u16string path =
        WriteFile("nul.txt", std::vector<uint8_t>(text.begin(), text.end()));
    EXPECT_TRUE(LoadDictionary(path, 38, false));
    EXPECT_EQ(LookupString("$$$/ls/nul=x"), u"ab");
    EXPECT_EQ(LookupString("$$$/a/b"), u"$$$/a/b");
    EXPECT_EQ(LookupString("caf\xc3\xa9"), u"caf\u00e9");
    EXPECT_EQ(LookupString("$$=x"), u"");
}

TEST_F(LookupStringTest, ConcurrentLookupsShareValuesUnderTheLock) {
    const std::u16string path =
        WriteFile("mt.dct", Version2File(7, true, {{"/ls/mt", u"block value"}}).bytes);
    ASSERT_TRUE(LoadDictionary(path, 38, false));
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (size_t t = 0; t < wrong.size(); ++t) {
        threads.emplace_back([&wrong, t] {
            for (int i = 0; i < 500; ++i) {
                wrong[t] += LookupString("$$$/ls/mt=d") != u"block value";
                wrong[t] += LookupString("$$$/ls/none=d") != u"d";
                // A miss without default shares the one empty value and its plain count.
                wrong[t] += LookupString("$$$/ls/none=") != u"";
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace lexkit_test
