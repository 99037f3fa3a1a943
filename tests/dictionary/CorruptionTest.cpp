// Valid binary files damaged byte by byte and cut at every length: every load ends, nothing is
// read outside the file (the suite runs under AddressSanitizer in CI), and lookups still answer.

#include <gtest/gtest.h>

#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/dictionary/FileBytes.h"

namespace lexkit_test {
namespace {

using lexkit_private::Dictionary;
using namespace std::string_view_literals;

struct Sample {
    const char* name;
    FileBytes file;
};

std::vector<Sample> Samples() {
    const std::vector<BlockEntry> entries = {{"/a", u"one"}, {"/bb", u"two"}, {"", u"x"}};
    BlockOptions extras;
    extras.extras = {{1, u"ex"}};
    BlockOptions noKeys;
    noKeys.keysFlag = 'N';
    FileBytes v10;
    v10.Header(1, 0, 1, false).U16(3).U16(Bucket("/a")).U32(0).U16(Bucket("/bb")).U32(11);
    v10.U16(0).U32(23).U32(2).Raw("/a").U32(1).Raw("1").U32(3).Raw("/bb").U32(1).Raw("2");
    FileBytes v15;
    v15.Header(1, 5, 0, false).U32(2).U32(2).U32(4).U32(2).U32(2).U32(3).U32(2);
    v15.U16(Bucket("/a")).U16(Bucket("/bb")).Raw("/a").Raw("1\0"sv).Raw("/bb").Raw("2\0"sv);
    return {{"v10", v10},
            {"v15", v15},
            {"v20", Version2File(0, false, entries)},
            {"v27le", Version2File(7, false, entries, extras)},
            {"v27be", Version2File(7, true, entries, extras)},
            {"v27nokeys", Version2File(7, false, entries, noKeys)}};
}

// Loads `bytes` and checks that lookups answer: a key that no damage can make yields its
// default, and the sample's keys yield some text.
void LoadAndLookUp(const std::vector<uint8_t>& bytes, const std::string& where) {
    Dictionary d;
    LoadBytes(d, bytes);
    EXPECT_EQ(Look(d, "$$$/never/there=fallback"), u"fallback") << where;
    (void)Look(d, "$$$/a=da");
    (void)Look(d, "/bb=db");
    (void)d.VisibleEntries();
}

TEST(CorruptionTest, SamplesLoadCleanly) {
    for (const Sample& s : Samples()) {
        Dictionary d;
        LoadBytes(d, s.file.bytes);
        EXPECT_TRUE(d.Valid()) << s.name;
        if (std::string(s.name) != "v27nokeys") {
            EXPECT_NE(Look(d, "/a=miss"), u"miss") << s.name;
            EXPECT_NE(Look(d, "/bb=miss"), u"miss") << s.name;
        }
    }
}

TEST(CorruptionTest, EveryByteDamagedInFourWaysStillLoadsAndAnswers) {
    std::vector<Sample> samples = Samples();
    FileBytes text;  // UTF-16LE text with quotes, escapes and entities to break
    text.U8(0xFF).U8(0xFE).Units(u"\r\n\"$$$/a=x\\\"y#{U+20AC}^T\"\r\n/bb=#{copy}#{endl}\n");
    samples.push_back({"text", text});
    for (const Sample& s : samples) {
        for (size_t at = 0; at < s.file.bytes.size(); ++at) {
            const uint8_t original = s.file.bytes[at];
            for (uint8_t damaged :
                 {uint8_t{0}, uint8_t{0xFF}, uint8_t(original ^ 0x80), uint8_t(original + 1)}) {
                std::vector<uint8_t> bytes = s.file.bytes;
                bytes[at] = damaged;
                LoadAndLookUp(bytes, std::string(s.name) + " byte " + std::to_string(at));
            }
        }
    }
}

TEST(CorruptionTest, EveryTruncationLoadsAsFlawedOrAsText) {
    for (const Sample& s : Samples()) {
        for (size_t length = 0; length < s.file.bytes.size(); ++length) {
            std::vector<uint8_t> bytes(s.file.bytes.begin(), s.file.bytes.begin() + length);
            const std::string where = std::string(s.name) + " cut at " + std::to_string(length);
            LoadAndLookUp(bytes, where);
            Dictionary d;
            LoadBytes(d, bytes);
            // Below 21 bytes the magic is incomplete and the file is text; from there on every
            // cut leaves a binary table incomplete.
            EXPECT_EQ(d.Valid(), length < 21) << where;
        }
    }
}

}  // namespace
}  // namespace lexkit_test
