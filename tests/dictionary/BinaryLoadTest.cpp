// Binary dictionary files of every version and byte order, read through Dictionary::Load.

#include <gtest/gtest.h>

#include "tests/dictionary/DictionaryTestUtil.h"
#include "tests/dictionary/FileBytes.h"
#include "tests/support/Utf16Le.h"

namespace lexkit_test {
namespace {

using lexkit_private::Dictionary;

TEST(BinaryLoadTest, SmallestVersion27FileHasExactlyTheDocumentedBytes) {
    FileBytes f;
    f.Raw("Lexicon Binary Format").U8(2).U8(7).U8(0).U8(0);
    f.U32(0).U32(0).U8('Y').U32(1).U32(1).U32(1).U32(2).U32(4);
    f.U32(0).U16(2).U32(0).U16(4).Raw("/a").U8(0x48).U8(0).U8(0x69).U8(0);
    f.U16(0x0244).U32(1).U32(0).U32(0);
    EXPECT_EQ(Bucket("/a"), 0x244u);
    EXPECT_EQ(Version2File(7, false, {{"/a", u"Hi"}}).bytes, f.bytes);

    Dictionary d;
    LoadBytes(d, f.bytes);
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(d.MajorVersion(), 2);
    EXPECT_EQ(d.MinorVersion(), 7);
    EXPECT_EQ(Look(d, "$$$/a=default"), u"Hi");
    EXPECT_EQ(Look(d, "$$$/b=default"), u"default");
    ASSERT_NE(d.HeaderText(), nullptr);
    EXPECT_STREQ(d.HeaderText(), "");
}

struct Version2Case {
    int8_t minor;
    bool bigEndian;
};

class Version2Test : public ::testing::TestWithParam<Version2Case> {};

TEST_P(Version2Test, LoadsEntriesInTheFilesByteOrderAndRecordsVersion27) {
    const Version2Case c = GetParam();
    std::vector<BlockEntry> entries = {{"/x/name", u"N\u00e4me \u20ac"},
                                       {"/x/empty", u""},
                                       {"/x/long", std::u16string(300, u'\u3042')},
                                       {"", u"dead"}};
    FileBytes f(c.bigEndian);
    f.Header(2, c.minor, 0x55, c.minor >= 1);
    // The header text length is swapped with the rest, the text itself never is.
    f.U32(5).Raw("HDR\x01\x02");
    AppendBlock(f, entries);
    Dictionary d;
    LoadBytes(d, f.bytes);
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(d.MinorVersion(), 7);
    EXPECT_STREQ(d.HeaderText(), "HDR\x01\x02");
    EXPECT_EQ(Look(d, "$$$/x/name=d"), u"N\u00e4me \u20ac");
    EXPECT_EQ(Look(d, "$$$/x/empty=d"), u"");
    EXPECT_EQ(Look(d, "/x/long=d"), std::u16string(300, u'\u3042'));
    EXPECT_EQ(Look(d, "=d"), u"d") << "a dead entry answers no lookup";
    EXPECT_EQ(d.Array().EntryCount(), 4u);
    EXPECT_EQ(d.Array().LiveCount(), 3u);
}

// 2.0 has no byte-order byte and is little-endian; 2.1 to 2.127 carry it.
INSTANTIATE_TEST_SUITE_P(Versions, Version2Test,
                         ::testing::Values(Version2Case{0, false}, Version2Case{1, false},
                                           Version2Case{1, true}, Version2Case{7, false},
                                           Version2Case{7, true}, Version2Case{127, true}));

// A 2.x file hides the text entries before it; a second one layers over the first by its base
// index.
TEST(BinaryLoadTest, SecondFileLayersOverTheFirstByItsBaseIndex) {
    Dictionary d;
    d.AddLine(u"/t=from text");
    LoadBytes(d, Version2File(7, false, {{"/a", u"first"}, {"/b", u"only first"}}).bytes);
    LoadBytes(d, Version2File(7, true, {{"/a", u"second"}, {"/c", u"only second"}}).bytes);
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(Look(d, "/t=hidden"), u"hidden");
    EXPECT_EQ(Look(d, "/a=x"), u"second");
    EXPECT_EQ(Look(d, "/b=x"), u"only first");
    EXPECT_EQ(Look(d, "/c=x"), u"only second");
    BlockOptions wrongBase;
    wrongBase.baseIndex = 7;
    LoadBytes(d, Version2File(7, false, {{"/d", u"refused"}}, wrongBase).bytes);
    EXPECT_FALSE(d.Valid());
    EXPECT_EQ(Look(d, "/d=x"), u"x");
    EXPECT_EQ(Look(d, "/a=x"), u"second");
}

TEST(BinaryLoadTest, KeysFlagNBlockStaysButNoKeyReachesIt) {
    BlockOptions options;
    options.keysFlag = 'N';
    options.liveCount = 2;
    // Value lengths lead straight to the value pool, then to the extra string count.
    FileBytes f = Version2File(7, false, {{"/a", u"one"}, {"/b", u"two"}}, options);
    EXPECT_EQ(f.bytes.size(), 25u + 4 + 4 + 1 + 4 * 4 + 2 * 4 + 2 * 2 + 12 + 4);
    Dictionary d;
    LoadBytes(d, f.bytes);
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(d.Array().EntryCount(), 2u);
    EXPECT_EQ(Look(d, "/a=miss"), u"miss");
    EXPECT_EQ(d.Array().GetValue(1).Text(), u"two");
    EXPECT_TRUE(d.Array().IsLive(0));
    uint32_t length = 0;
    unsigned char key[8];
    EXPECT_FALSE(d.Array().GetKey(0, key, sizeof key, length));
}

TEST(BinaryLoadTest, BlockWithLiveCountZeroIsDroppedWhole) {
    BlockOptions options;
    options.liveCount = 0;
    Dictionary d;
    LoadBytes(d, Version2File(7, false, {{"/a", u"one"}}, options).bytes);
    EXPECT_TRUE(d.Valid());
    EXPECT_EQ(d.Array().BlockCount(), 0u);
    EXPECT_EQ(d.Array().EntryCount(), 0u);
    EXPECT_EQ(Look(d, "/a=miss"), u"miss");
}

// Versions outside the table, and a byte order mark in front of the magic: nothing loads, and the
// dictionary stays valid.
TEST(BinaryLoadTest, UnknownVersionsAndAMarkBeforeTheMagicLoadNothing) {
    std::vector<FileBytes> files;
    for (auto [major, minor] :
         {std::pair<int, int>{1, 1}, {1, 6}, {3, 0}, {0, 0}, {2, -1}, {-2, 7}, {1, -5}}) {
        files.emplace_back().Header(static_cast<int8_t>(major), static_cast<int8_t>(minor), 0,
                                    true);
        files.back().U32(0);
        AppendBlock(files.back(), {{"/a", u"one"}});
    }
    files.emplace_back().U8(0xFF).U8(0xFE).Raw(Version2File(7, false, {{"/a", u"one"}}).Str());
    for (const FileBytes& f : files) {
        SCOPED_TRACE(testing::PrintToString(
            std::vector<uint8_t>(f.bytes.begin() + 21, f.bytes.begin() + 24)));
        Dictionary d;
        LoadBytes(d, f.bytes);
        EXPECT_TRUE(d.Valid());
        EXPECT_EQ(d.MajorVersion(), 0);
        EXPECT_EQ(Look(d, "/a=miss"), u"miss");
    }
}

// Version 1.0: records of (bucket, position), the last one an end mark.
FileBytes Version10(const std::vector<std::pair<std::string, std::string>>& entries,
                    uint8_t encoding) {
    FileBytes f;
    f.Header(1, 0, encoding, false);
    std::vector<std::pair<uint32_t, std::vector<size_t>>> buckets;
    for (size_t i = 0; i < entries.size(); ++i) {
        const uint32_t b = Bucket(entries[i].first);
        if (buckets.empty() || buckets.back().first != b) buckets.push_back({b, {}});
        buckets.back().second.push_back(i);
    }
    f.U16(static_cast<uint32_t>(buckets.size() + 1));
    uint32_t position = 1000;  // only differences count
    for (auto& [b, list] : buckets) {
        f.U16(b).U32(position);
        for (size_t i : list) {
            position +=
                8 + static_cast<uint32_t>(entries[i].first.size() + entries[i].second.size());
        }
    }
    f.U16(0).U32(position);
    for (auto& [key, value] : entries) {
        f.U32(static_cast<uint32_t>(key.size())).Raw(key);
        f.U32(static_cast<uint32_t>(value.size())).Raw(value);
    }
    return f;
}

FileBytes Version15(const std::vector<std::pair<std::string, std::string>>& entries,
                    uint8_t encoding) {
    FileBytes f;
    f.Header(1, 5, encoding, false);
    std::vector<std::pair<uint32_t, size_t>> buckets;  // bucket, end index
    for (size_t i = 0; i < entries.size(); ++i) {
        const uint32_t b = Bucket(entries[i].first);
        if (buckets.empty() || buckets.back().first != b) buckets.push_back({b, 0});
        buckets.back().second = 2 * (i + 1);
    }
    f.U32(static_cast<uint32_t>(buckets.size()));
    for (auto& b : buckets) f.U32(static_cast<uint32_t>(b.second));
    for (auto& [key, value] : entries) {
        f.U32(static_cast<uint32_t>(key.size())).U32(static_cast<uint32_t>(value.size()));
    }
    for (auto& b : buckets) f.U16(b.first);
    for (auto& [key, value] : entries) f.Raw(key).Raw(value);
    return f;
}

std::string Utf16Le(std::u16string_view s) { return vigil_test::Utf16Le<std::string>(s); }

struct Version1Case {
    const char* name;
    FileBytes (*build)(const std::vector<std::pair<std::string, std::string>>&, uint8_t);
};

class Version1Test : public ::testing::TestWithParam<Version1Case> {};

TEST_P(Version1Test, ValuesFollowTheEncodingByte) {
    const auto build = GetParam().build;
    struct {
        uint8_t encoding;
        std::string stored;
    } cases[] = {{0, Utf16Le(u"caf\u00e9 \u20ac")},
                 {1, "caf\xc3\xa9 \xe2\x82\xac"},
                 {2, "caf\xe9 \x80"}};  // Windows-1252
    for (auto& c : cases) {
        Dictionary d;
        LoadBytes(d, build({{"/k", c.stored}, {"/other", ""}}, c.encoding).bytes);
        EXPECT_TRUE(d.Valid());
        EXPECT_EQ(Look(d, "$$$/k=x"), u"caf\u00e9 \u20ac") << int(c.encoding);
        EXPECT_EQ(Look(d, "$$$/other=x"), u"") << "an empty value is found, not defaulted";
        EXPECT_EQ(d.MajorVersion(), 0) << "a 1.x load leaves the version alone";
    }
}

TEST_P(Version1Test, DuplicateKeysBothStayAndTheFrontOneIsFound) {
    Dictionary d;
    LoadBytes(d, GetParam().build({{"/k", "A"}, {"/k", "B"}}, 1).bytes);
    EXPECT_EQ(Look(d, "/k=x"), u"A");
    EXPECT_EQ(d.VisibleEntries().size(), 1u);
    int chain = 0;
    for (auto* item = d.Head(Bucket("/k")); item != nullptr; item = item->next) ++chain;
    EXPECT_EQ(chain, 2);
}

TEST_P(Version1Test, TruncatedFileKeepsCompleteEntriesAndIsFlawed) {
    std::vector<std::pair<std::string, std::string>> entries = {
        {"/a", "1"}, {"/b", "22"}, {"/c", "333"}};
    FileBytes f = GetParam().build(entries, 1);
    f.bytes.resize(f.bytes.size() - 2);  // cuts into the value of /c
    Dictionary d;
    LoadBytes(d, f.bytes);
    EXPECT_FALSE(d.Valid());
    EXPECT_EQ(Look(d, "/a=x"), u"1");
    EXPECT_EQ(Look(d, "/b=x"), u"22");
    EXPECT_EQ(Look(d, "/c=x"), u"x");
}

TEST_P(Version1Test, LoadsOnTopOfEarlierEntriesInFrontOfThem) {
    Dictionary d;
    LoadBytes(d, GetParam().build({{"/k", "old"}, {"/j", "kept"}}, 1).bytes);
    LoadBytes(d, GetParam().build({{"/k", "new"}}, 1).bytes);
    EXPECT_EQ(Look(d, "/k=x"), u"new");
    EXPECT_EQ(Look(d, "/j=x"), u"kept");
}

INSTANTIATE_TEST_SUITE_P(Layouts, Version1Test,
                         ::testing::Values(Version1Case{"v10", &Version10},
                                           Version1Case{"v15", &Version15}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(BinaryLoadTest, Version1FilesWithBadTablesAreFlawedWithoutCrashOrHugeAllocation) {
    FileBytes badBucket10;  // 1.0 record naming bucket 1021
    badBucket10.Header(1, 0, 1, false).U16(2).U16(1021).U32(0).U16(0).U32(10);
    badBucket10.U32(1).Raw("k").U32(1).Raw("v");
    FileBytes noBuckets15;  // 1.5 with N of 0
    noBuckets15.Header(1, 5, 1, false).U32(0);
    FileBytes hugeLength15;  // a length far past the file
    hugeLength15.Header(1, 5, 1, false).U32(1).U32(2).U32(0xFFFFFFF0).U32(1).U16(3).Raw("k");
    FileBytes hugeCount15;  // an end mark asking for 4 G lengths
    hugeCount15.Header(1, 5, 1, false).U32(1).U32(0xFFFFFFFF).U16(3);
    FileBytes hugeKey10;
    hugeKey10.Header(1, 0, 1, false).U16(2).U16(5).U32(0).U16(0).U32(100).U32(0xFFFFFFFF);
    FileBytes badBucket15;
    badBucket15.Header(1, 5, 1, false).U32(1).U32(2).U32(1).U32(1).U16(0xFFFF).Raw("kv");
    for (const FileBytes* f :
         {&badBucket10, &noBuckets15, &hugeLength15, &hugeCount15, &hugeKey10, &badBucket15}) {
        Dictionary d;
        LoadBytes(d, f->bytes);
        EXPECT_FALSE(d.Valid());
        EXPECT_EQ(Look(d, "k=dflt"), u"dflt");
    }
}

TEST(BinaryLoadTest, Version2BlocksThatBreakTheirTablesAreRefusedWhole) {
    auto base = [] { return Version2File(7, false, {{"/a", u"one"}, {"/b", u"two"}}); };
    // Offsets of the fields behind the 25-byte header and the 4-byte header text length.
    constexpr size_t kBlock = 29;
    constexpr size_t kCount = kBlock + 5, kBucketCountField = kBlock + 13;
    constexpr size_t kKeyPoolSize = kBlock + 17, kValuePoolSize = kBlock + 21;
    constexpr size_t kKeyOffsets = kBlock + 25, kKeyLengths = kKeyOffsets + 8;
    constexpr size_t kValueOffsets = kKeyLengths + 4, kValueLengths = kValueOffsets + 8;
    constexpr size_t kBucketNumbers = kValueLengths + 4 + 4 + 12;
    auto put32 = [](FileBytes& f, size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) f.bytes[at + i] = static_cast<uint8_t>(v >> (8 * i));
    };
    auto put16 = [](FileBytes& f, size_t at, uint32_t v) {
        f.bytes[at] = static_cast<uint8_t>(v), f.bytes[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    struct {
        const char* what;
        void (*damage)(FileBytes&, decltype(put32)&, decltype(put16)&);
    } cases[] = {
        {"entry count past the stream",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kCount, 0x40000000); }},
        {"key pool past the stream",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kKeyPoolSize, 0xFFFFFFFF); }},
        {"value pool size too small",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kValuePoolSize, 5); }},
        {"key offset outside the pool",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kKeyOffsets + 4, 3); }},
        {"key length outside the pool",
         [](FileBytes& f, auto&, auto& p16) { p16(f, kKeyLengths, 5); }},
        {"value offset outside the pool",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kValueOffsets, 0xFFFFFFFE); }},
        {"value length outside the pool",
         [](FileBytes& f, auto&, auto& p16) { p16(f, kValueLengths + 2, 8); }},
        {"bucket number 1021",
         [](FileBytes& f, auto&, auto& p16) { p16(f, kBucketNumbers, 1021); }},
        {"bucket count past the stream",
         [](FileBytes& f, auto& p32, auto&) { p32(f, kBucketCountField, 0x10000000); }},
        {"entry number 2 of 2",
         [](FileBytes& f, auto& p32, auto&) { p32(f, f.bytes.size() - 8, 2); }},
        {"truncated extra count",
         [](FileBytes& f, auto&, auto&) { f.bytes.resize(f.bytes.size() - 1); }},
    };
    for (auto& c : cases) {
        FileBytes f = base();
        c.damage(f, put32, put16);
        Dictionary d;
        LoadBytes(d, f.bytes);
        EXPECT_FALSE(d.Valid()) << c.what;
        EXPECT_EQ(d.Array().EntryCount(), 0u) << c.what;
        EXPECT_EQ(d.MajorVersion(), 0) << c.what;
        EXPECT_EQ(Look(d, "/a=dflt"), u"dflt") << c.what;
    }
}

}  // namespace
}  // namespace lexkit_test
