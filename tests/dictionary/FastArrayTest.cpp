// The block store: Add and its blocks of 100, ReplaceValue, and 2.x files layered over each other
// by the base index rules.

#include <gtest/gtest.h>

#include "dictionary/FastArray.h"
#include "dictionary/MemoryStream.h"
#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/dictionary/FileBytes.h"

namespace lexkit_test {
namespace {

using lexkit_private::FastArray;

uint32_t AddText(FastArray& a, const std::string& key, std::u16string_view value) {
    return a.Add(reinterpret_cast<const unsigned char*>(key.data()),
                 static_cast<uint32_t>(key.size()), value.data(),
                 static_cast<uint32_t>(2 * value.size()));
}

uint32_t FindText(const FastArray& a, const std::string& key) {
    return a.Find(reinterpret_cast<const unsigned char*>(key.data()),
                  static_cast<uint32_t>(key.size()));
}

// Reads one block (no file header) into `a`, little-endian.
uint32_t ReadBlockInto(FastArray& a, const std::vector<BlockEntry>& entries,
                       const BlockOptions& options = {}) {
    FileBytes f;
    AppendBlock(f, entries, options);
    lexkit_private::MemoryStream stream(f.bytes.data(), f.bytes.size());
    return a.ReadBlock(stream, lexkit_private::kByteOrderLittle);
}

std::vector<BlockEntry> Numbered(int from, int to, const std::u16string& suffix) {
    std::vector<BlockEntry> entries;
    for (int i = from; i < to; ++i) {
        entries.push_back({"/k" + std::to_string(i), u"v" + suffix});
    }
    return entries;
}

TEST(FastArrayTest, HundredAndFirstAddOpensASecondBlock) {
    FastArray a;
    for (uint32_t i = 0; i < 101; ++i) {
        EXPECT_EQ(AddText(a, "key" + std::to_string(i), u"value"), i);
    }
    ASSERT_EQ(a.BlockCount(), 2u);
    EXPECT_EQ(a.BlockEntryCountForTesting(0), 100u);
    EXPECT_EQ(a.BlockEntryCountForTesting(1), 1u);
    EXPECT_EQ(a.BlockBaseForTesting(1), 100u);
    EXPECT_EQ(FindText(a, "key100"), 100u);
    EXPECT_EQ(FindText(a, "key57"), 57u);
    EXPECT_EQ(FindText(a, "key101"), FastArray::kNotFound);
    EXPECT_EQ(a.LiveCount(), 101u);
}

TEST(FastArrayTest, AddOfAnExistingKeyReplacesItsValue) {
    FastArray a;
    EXPECT_EQ(AddText(a, "/a", u"first"), 0u);
    EXPECT_EQ(AddText(a, "/a", u"longer value"), 0u);
    EXPECT_EQ(a.GetValue(0).Text(), u"longer value");
    EXPECT_EQ(AddText(a, "/a", u"s"), 0u);
    EXPECT_EQ(a.GetValue(0).Text(), u"s");
    EXPECT_EQ(a.EntryCount(), 1u);
}

TEST(FastArrayTest, ReplaceValueShrinksInPlaceAndGrowsIntoItsOwnBuffer) {
    FastArray a;
    ASSERT_EQ(ReadBlockInto(a, {{"/a", u"abcd"}, {"/b", u"wxyz"}}), 0u);
    const std::u16string cases[] = {u"abcd", u"DCBA", u"ab", u"", u"a much longer text", u"q"};
    for (const std::u16string& value : cases) {
        EXPECT_TRUE(a.ReplaceValue(0, value.data(), static_cast<uint32_t>(2 * value.size())));
        EXPECT_EQ(a.GetValue(0).Text(), value);
        EXPECT_EQ(a.GetValue(1).Text(), u"wxyz") << "the neighbour in the pool is untouched";
    }
    const std::u16string v = u"x";
    EXPECT_FALSE(a.ReplaceValue(2, v.data(), 2));
    EXPECT_FALSE(a.ReplaceValue(FastArray::kNotFound, v.data(), 2));
}

TEST(FastArrayTest, OutOfRangeAndDeadNumbersAnswerNothing) {
    FastArray a;
    ASSERT_EQ(ReadBlockInto(a, {{"/a", u"one"}, {"", u"dead"}}), 0u);
    unsigned char key[4];
    uint32_t length = 0;
    EXPECT_TRUE(a.GetKey(0, key, sizeof key, length));
    EXPECT_EQ(length, 2u);
    EXPECT_STREQ(reinterpret_cast<char*>(key), "/a");
    EXPECT_FALSE(a.GetKey(0, key, 2, length)) << "no room for the NUL";
    for (uint32_t number : {1u, 2u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(a.IsLive(number)) << number;
        EXPECT_TRUE(a.GetValue(number).IsSharedEmptyValue()) << number;
        EXPECT_FALSE(a.GetKey(number, key, sizeof key, length)) << number;
    }
}

// A block with base index 12: on an empty array it is block 0 at base 0 whatever it says; on 12
// entries it is appended with no test for duplicate keys; on 13 it is refused and adds nothing.
TEST(FastArrayTest, BaseIndexPlacesOrRefusesABlockByTheEntriesBeforeIt) {
    const struct {
        int before;
        bool taken;
        uint32_t base;     // of the new block
        uint32_t foundK3;  // the number found for the key both blocks have, if any
    } rows[] = {{0, true, 0, 0}, {12, true, 12, 3}, {13, false, 0, 3}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.before);
        FastArray a;
        if (row.before > 0) {
            ASSERT_EQ(ReadBlockInto(a, Numbered(0, row.before, u"old")), 0u);
        }
        BlockOptions options;
        options.baseIndex = 12;
        EXPECT_EQ(ReadBlockInto(a, {{"/k3", u"again"}, {"/new", u"n"}}, options),
                  row.taken ? 0u : FastArray::kNotFound);
        const uint32_t count = static_cast<uint32_t>(row.before) + (row.taken ? 2 : 0);
        EXPECT_EQ(a.EntryCount(), count);
        EXPECT_EQ(a.BlockCount(), row.before > 0 && row.taken ? 2u : 1u);
        EXPECT_EQ(FindText(a, "/new"), row.taken ? count - 1 : FastArray::kNotFound);
        EXPECT_EQ(FindText(a, "/k3"), row.foundK3) << "the older entry stays first in its bucket";
        if (row.taken) {
            EXPECT_EQ(a.BlockBaseForTesting(a.BlockCount() - 1), row.base);
            EXPECT_EQ(a.GetValue(row.base).Text(), u"again");
        }
    }
}

TEST(FastArrayTest, BaseIndexZeroOverAFilledArrayReplacesSharedKeysAndAppendsTheRest) {
    FastArray a;
    ASSERT_EQ(ReadBlockInto(a, Numbered(0, 5, u"old")), 0u);
    const uint32_t bucket = Bucket("/k2");
    const uint32_t bucketBefore = a.BucketSizeForTesting(bucket);
    ASSERT_EQ(ReadBlockInto(a, {{"/k2", u"replaced and longer"}, {"/fresh", u"f"}, {"/k4", u"4"}}),
              0u);
    EXPECT_EQ(a.EntryCount(), 8u);
    EXPECT_EQ(a.LiveCount(), 6u);
    EXPECT_EQ(FindText(a, "/k2"), 2u);
    EXPECT_EQ(a.GetValue(2).Text(), u"replaced and longer");
    EXPECT_EQ(a.GetValue(4).Text(), u"4");
    EXPECT_EQ(FindText(a, "/fresh"), 6u);
    // The replaced entries of the new block are dead and not found by number.
    EXPECT_FALSE(a.IsLive(5));
    EXPECT_FALSE(a.IsLive(7));
    EXPECT_TRUE(a.GetValue(5).IsSharedEmptyValue());
    EXPECT_EQ(a.BucketSizeForTesting(bucket), bucketBefore);
}

TEST(FastArrayTest, KeyOf1024BytesOrMoreIsAppendedNotMatched) {
    FastArray a;
    const std::string big(1024, 'k');
    const std::string fits(1023, 'k');
    ASSERT_EQ(ReadBlockInto(a, {{big, u"old"}, {fits, u"old"}}), 0u);
    ASSERT_EQ(ReadBlockInto(a, {{big, u"new"}, {fits, u"new"}}), 0u);
    EXPECT_EQ(a.EntryCount(), 4u);
    EXPECT_EQ(a.GetValue(FindText(a, big)).Text(), u"old") << "the older entry is found first";
    EXPECT_TRUE(a.IsLive(2));
    EXPECT_EQ(a.GetValue(FindText(a, fits)).Text(), u"new");
    EXPECT_FALSE(a.IsLive(3));
}

TEST(FastArrayTest, AddAfterAReadBlockNumbersBehindIt) {
    FastArray a;
    EXPECT_EQ(AddText(a, "/added", u"a"), 0u);
    ASSERT_EQ(ReadBlockInto(a, {{"/read", u"r"}}, BlockOptions{1, 'Y', -1, {}}), 0u);
    EXPECT_EQ(AddText(a, "/later", u"l"), 2u);
    EXPECT_EQ(a.GetValue(FindText(a, "/added")).Text(), u"a");
    EXPECT_EQ(a.GetValue(FindText(a, "/read")).Text(), u"r");
    EXPECT_EQ(a.GetValue(FindText(a, "/later")).Text(), u"l");
}

TEST(FastArrayTest, OverlongKeyOrValueIsRefusedByAdd) {
    FastArray a;
    const std::string longKey(65536, 'k');
    EXPECT_EQ(AddText(a, longKey, u"v"), FastArray::kNotFound);
    EXPECT_EQ(AddText(a, "/k", std::u16string(32768, u'v')), FastArray::kNotFound);
    EXPECT_EQ(AddText(a, "/k", std::u16string(32767, u'v')), 0u);
    EXPECT_EQ(a.EntryCount(), 1u);
}

}  // namespace
}  // namespace lexkit_test
