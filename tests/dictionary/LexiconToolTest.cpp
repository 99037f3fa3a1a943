// lexicon-tool end to end: text -> binary -> text keeps every entry, in both byte orders, and
// the command line refuses what it cannot do.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <map>
#include <string>

#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/support/ScratchRoot.h"

namespace lexkit_test {
namespace {

using lexkit_private::Dictionary;

class LexiconToolTest : public ::testing::Test {
  protected:
    int Tool(const std::string& arguments) {
        const std::string command =
            std::string("'") + LEXICON_TOOL_PATH + "' " + arguments + " >/dev/null 2>&1";
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string Path(const std::string& name) { return "'" + (root_ / name) + "'"; }
    void Write(const std::string& name, const std::string& bytes) {
        ASSERT_EQ(
            Osb::WriteFileBytes(Osb::Utf8ToUtf16(root_ / name),
                                {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}),
            0u);
    }
    std::vector<uint8_t> Read(const std::string& name) {
        std::vector<uint8_t> bytes;
        EXPECT_EQ(Osb::ReadFileBytes(Osb::Utf8ToUtf16(root_ / name), bytes), 0u);
        return bytes;
    }
    // The entries a fresh dictionary loads from file `name`, key to value.
    std::map<std::string, std::u16string> Entries(const std::string& name, bool* valid = nullptr) {
        Dictionary d;
        LoadBytes(d, Read(name));
        if (valid != nullptr) *valid = d.Valid();
        std::map<std::string, std::u16string> entries;
        for (const auto& e : d.VisibleEntries()) entries[e.key] = e.value.Text();
        return entries;
    }

    vigil_test::ScratchRoot root_;
};

const char kSource[] =
    "$$$/private/Vigil/Vigil_Display_Name=Orvanta Vigil Dateiüberwachung V\n"
    "\"$$$/quoted=line one#{endl}line two and a \\\"quote\\\"\"\r\n"
    "/plain=50^T ¥ 日本語\n"
    "/empty=\n"
    "/plain=later line wins\n";

TEST_F(LexiconToolTest, TextToBinaryToTextKeepsEveryEntryInBothByteOrders) {
    Write("source.txt", kSource);
    ASSERT_EQ(Tool("compile --utf8 " + Path("source.txt") + " " + Path("le.dct")), 0);
    ASSERT_EQ(Tool("compile --utf8 --big-endian --header 'built by test' " + Path("source.txt") +
                   " " + Path("be.dct")),
              0);
    const std::vector<uint8_t> le = Read("le.dct");
    ASSERT_GT(le.size(), 25u);
    EXPECT_EQ(le[21], 2);
    EXPECT_EQ(le[22], 7);
    EXPECT_EQ(le[24], 0);
    EXPECT_EQ(Read("be.dct")[24], 1);

    const std::map<std::string, std::u16string> expected = {
        {"/private/Vigil/Vigil_Display_Name", u"Orvanta Vigil Dateiüberwachung V"},
        {"/quoted", u"line one\r\nline two and a \"quote\""},
        {"/plain", u"later line wins"},
        {"/empty", u""}};
    bool valid = false;
    EXPECT_EQ(Entries("le.dct", &valid), expected);
    EXPECT_TRUE(valid);
    EXPECT_EQ(Entries("be.dct"), expected);

    ASSERT_EQ(Tool("text " + Path("be.dct") + " " + Path("back.txt")), 0);
    const std::vector<uint8_t> text = Read("back.txt");
    ASSERT_GE(text.size(), 2u);
    EXPECT_EQ(text[0], 0xFF);
    EXPECT_EQ(text[1], 0xFE);
    EXPECT_EQ(Entries("back.txt", &valid), expected);
    EXPECT_TRUE(valid);
    // Compiling the written text again gives the very same file.
    ASSERT_EQ(Tool("compile " + Path("back.txt") + " " + Path("again.dct")), 0);
    EXPECT_EQ(Read("again.dct"), le);
}

TEST_F(LexiconToolTest, CommandLineRefusesWhatItCannotDo) {
    Write("flawed.txt", "$$bad=line\n/good=yes\n");
    EXPECT_EQ(Tool("--help"), 0);
    EXPECT_EQ(Tool(""), 64);
    EXPECT_EQ(Tool("compile only-one-path"), 64);
    EXPECT_EQ(Tool("explode " + Path("a") + " " + Path("b")), 64);
    EXPECT_EQ(Tool("compile --bogus " + Path("a") + " " + Path("b")), 64);
    EXPECT_EQ(Tool("compile " + Path("missing.txt") + " " + Path("out.dct")), 1);
    EXPECT_EQ(Tool("compile " + Path("flawed.txt") + " " + Path("out.dct")), 1);
    EXPECT_FALSE(Osb::PathExists(Osb::Utf8ToUtf16(root_ / "out.dct")));
    EXPECT_EQ(Tool("compile --lenient " + Path("flawed.txt") + " " + Path("out.dct")), 0);
    EXPECT_EQ(Entries("out.dct"), (std::map<std::string, std::u16string>{{"/good", u"yes"}}));
}

}  // namespace
}  // namespace lexkit_test

namespace lexkit_test {
namespace {

// The translations compiled by the build, where the service looks for them.
TEST(TranslationsTest, EveryShippedLocaleTranslatesBothServiceTexts) {
    const char* const kDisplayName = "$$$/private/Vigil/Vigil_Display_Name=Orvanta Vigil Watch V";
    const char* const kDescription =
        "$$$/Vigil/Description=Tracks files that are managed by Mirelle Catalog";
    for (const char* locale : {"de_DE", "fr_FR", "it_IT", "ja_JP", "nl_NL", "sv_SE", "es_ES"}) {
        std::vector<uint8_t> bytes;
        ASSERT_EQ(Osb::ReadFileBytes(Osb::Utf8ToUtf16(std::string(VIGIL_LOCALE_DIR) + "/" + locale +
                                                      "/lexicon.dct"),
                                     bytes),
                  0u)
            << locale;
        Dictionary d;
        LoadBytes(d, bytes);
        EXPECT_TRUE(d.Valid()) << locale;
        EXPECT_EQ(d.MajorVersion(), 2) << locale;
        const std::u16string name = Look(d, kDisplayName);
        const std::u16string description = Look(d, kDescription);
        EXPECT_NE(name, u"Orvanta Vigil Watch V") << locale;
        EXPECT_TRUE(name.ends_with(u" V")) << locale << ": the version number follows";
        EXPECT_NE(description, u"Tracks files that are managed by Mirelle Catalog") << locale;
        EXPECT_NE(description.find(u"Mirelle Catalog"), std::u16string::npos) << locale;
    }
}

}  // namespace
}  // namespace lexkit_test
