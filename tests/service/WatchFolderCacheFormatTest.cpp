#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "platform/Utf.h"
#include "service/VigilWatchFolderCacheFormat.h"
#include "tests/support/Utf16Le.h"
#include "tests/service/SequenceGuid.h"

namespace {

using Vigil::Watch::Guid;
using Vigil::Watch::WatchedFolder;

using vigil_test::SequenceGuid;

using vigil_test::Utf16Le;

TEST(WatchFolderCacheFormatTest, GuidTextPrintsBytesInItsOwnOrderAndReadsBack) {
    EXPECT_EQ(Vigil::Watch::formatGuid(SequenceGuid()), u"33221100-5544-7766-9988-BBAAFFEEDDCC");

    std::mt19937 random(7);
    for (int i = 0; i < 200; ++i) {
        Guid guid;
        for (uint8_t& byte : guid.bytes) byte = static_cast<uint8_t>(random());
        Guid back;
        ASSERT_TRUE(Vigil::Watch::parseGuid(Vigil::Watch::formatGuid(guid), back));
        EXPECT_EQ(back, guid);
    }
}

TEST(WatchFolderCacheFormatTest, GuidParserAcceptsAnyCaseAndStrayDashesOnly) {
    struct Row {
        std::u16string text;
        bool ok;
    };
    const Row rows[] = {
        {u"33221100-5544-7766-9988-BBAAFFEEDDCC", true},
        {u"33221100-5544-7766-9988-bbaaffeeddcc", true},
        {u"33221100554477669988BBAAFFEEDDCC", true},
        {u"-3-3221100554477669988BBAAFFEEDDC--C", true},
        {u"33221100-5544-7766-9988-BBAAFFEEDDCCzz, not looked at", true},
        {u"33221100-5544-7766-9988-BBAAFFEEDDC", false},  // 31 digits, then the end
        {u"33221100-5544-7766-9988-BBAAFFEEDDC,", false},
        {u"{33221100-5544-7766-9988-BBAAFFEEDDCC}", false},
        {u"33221100 5544-7766-9988-BBAAFFEEDDCC", false},
        {u"", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(Osb::Utf16ToUtf8(row.text));
        Guid guid;
        EXPECT_EQ(Vigil::Watch::parseGuid(row.text, guid), row.ok);
        if (row.ok) {
            EXPECT_EQ(guid, SequenceGuid());
        }
    }
}

TEST(WatchFolderCacheFormatTest, FileBytesAreTheVersionAndOneLinePerFolderInTableOrder) {
    Vigil::Watch::CachedFolderTable table;
    Guid high = SequenceGuid();
    high.bytes[0] = 0xFF;
    table[high] = {{u"/b/", {0, 0, 1, 0}}};
    table[SequenceGuid()] = {{u"C:\\Data\\", {1, 1, 0, 0}},
                             {u"/a/\u00e9\U0001F600/", {1, 0, 0, 1}}};
    Guid empty;
    table[empty] = {};
    table[empty];  // a client without folders adds no line

    const std::u16string expected =
        u"0.5\n"
        u"33221100-5544-7766-9988-BBAAFFEEDDCC, 1, 1, 0, 0, C:\\Data\\\n"
        u"33221100-5544-7766-9988-BBAAFFEEDDCC, 1, 0, 0, 0, /a/\u00e9\U0001F600/\n"
        u"332211FF-5544-7766-9988-BBAAFFEEDDCC, 0, 0, 1, 0, /b/\n";
    const std::vector<uint8_t> bytes = Vigil::Watch::encodeCacheFile(table);
    EXPECT_EQ(bytes, Utf16Le(expected));
    const std::vector<uint8_t> head = {0x30, 0x00, 0x2E, 0x00, 0x35, 0x00, 0x0A, 0x00};
    EXPECT_TRUE(std::equal(head.begin(), head.end(), bytes.begin()));
}

TEST(WatchFolderCacheFormatTest, PathsTheFormatCannotCarryAreLeftOut) {
    Vigil::Watch::CachedFolderTable table;
    table[Guid{}] = {{u"/bad\nname/", {1, 1, 0, 0}},
                     {std::u16string(u"/zero\0/", 7), {1, 1, 0, 0}},
                     {u"/good/", {1, 1, 0, 0}}};
    EXPECT_EQ(Vigil::Watch::encodeCacheFile(table),
              Utf16Le(u"0.5\n00000000-0000-0000-0000-000000000000, 1, 1, 0, 0, /good/\n"));
}

TEST(WatchFolderCacheFormatTest, VersionLineMustStateTheGenerationsVersion) {
    struct Row {
        int generation;
        std::u16string line;
        bool ok;
    };
    const Row rows[] = {
        {3, u"0.5\n", true},  {3, u"0.5", true},    {3, u" 0.05\n", true}, {3, u"0.5 junk\n", true},
        {3, u"0.3\n", false}, {3, u"1.5\n", false}, {3, u"0.\n", false},   {3, u"0.", false},
        {3, u".5\n", false},  {3, u"\n", false},    {2, u"0.3\n", true},   {2, u"0.5\n", false},
        {1, u"0.5\n", false}, {1, u"0.3\n", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(Osb::Utf16ToUtf8(row.line) + " gen " + std::to_string(row.generation));
        EXPECT_EQ(Vigil::Watch::acceptVersionLine(row.generation, row.line), row.ok);
    }
}

// A folder line's fields as parseFolderLine gives them.
struct Parsed {
    bool ok = false;
    std::u16string path = u"";
    uint8_t subtree = 0, changed = 0, removed = 0, reserved = 0;
};
const Parsed kMalformed{};

void ExpectParse(int generation, const std::u16string& line, const Parsed& want) {
    SCOPED_TRACE(Osb::Utf16ToUtf8(line));
    Guid guid;
    WatchedFolder folder;
    ASSERT_EQ(Vigil::Watch::parseFolderLine(generation, line, guid, folder), want.ok);
    if (!want.ok) return;
    EXPECT_EQ(guid, SequenceGuid());
    EXPECT_EQ(folder.path, want.path);
    EXPECT_EQ(folder.options.watchSubtree, want.subtree);
    EXPECT_EQ(folder.options.reportChanged, want.changed);
    EXPECT_EQ(folder.options.reportRemoved, want.removed);
    EXPECT_EQ(folder.options.reserved, want.reserved);
}

TEST(WatchFolderCacheFormatTest, CurrentFolderLineReadsByFixedColumns) {
    const std::u16string g = u"33221100-5544-7766-9988-BBAAFFEEDDCC";
    const std::u16string p12 = u"/some/folder";  // 12 units: 36 + 14 + 12 = 62
    struct Row {
        std::u16string line;
        Parsed want;
    };
    const Row rows[] = {
        {g + u", 1, 0, 1, 0, " + p12 + u"\n", {true, p12, 1, 0, 1, 0}},
        {g + u", 0, 0, 0, 0, " + p12, {true, p12.substr(0, 11), 0, 0, 0, 0}},    // lost its end
        {g + u", 7, -1, 0, 9, " + p12 + u"\n", {true, u" " + p12, 1, 1, 0, 1}},  // shifted
        {g + u",0,0,1,0,     " + p12 + u"\n", {true, p12, 0, 0, 1, 0}},
        {g + u"; 0, 0, 1, 0, " + p12 + u"\n", {true, p12, 1, 1, 0, 0}},  // defaults stay
        {g + u", 0, x, 1, 1, " + p12 + u"\n", {true, p12, 0, 1, 0, 0}},
        {g + u", 1, 1, 0, 0, " + std::u16string(249, u'p') + u"\n",
         {true, std::u16string(249, u'p'), 1, 1, 0, 0}},
        {g + u", 1, 1, 0, 0, " + std::u16string(250, u'p') + u"\n", kMalformed},  // 301 units
        {g + u", 1, 1, 0, 0, \n", {true, u"", 1, 1, 0, 0}},  // 51: one unit to cut
        {g + u", 1, 1, 0, 0,\n", kMalformed},                // 50: no path column
        {g + u", 1, \n", kMalformed},                        // 42 units
        {g + u"\n", kMalformed},                             // 37 units
        {u"33221100-5544-7766-9988-BBAAFFEEDDCX, 1, 1, 0, 0, " + p12 + u"\n", kMalformed},
        {g + u", 1, 1, 0, 0, " + p12 + std::u16string(1, u'\0') + u"tail\n",
         {true, p12.substr(0, 11), 1, 1, 0, 0}},  // the text ends at a zero unit
        {g.substr(0, 20) + std::u16string(1, u'\0') + g.substr(20) + u", 1, 1, 0, 0, " + p12 +
             u"\n",
         kMalformed},
    };
    for (const Row& row : rows) ExpectParse(3, row.line, row.want);
}

TEST(WatchFolderCacheFormatTest, OlderFolderLineReadsWordsAndSubtreeOnly) {
    // Bytes 0-3, 4-7, 8-11, 12-15 of the GUID as little-endian words; 35 units.
    const std::u16string words = u"33221100 77665544 BBAA9988 FFEEDDCC";
    const std::u16string path = u"/data/x/";
    struct Row {
        std::u16string line;
        Parsed want;
    };
    const Row rows[] = {
        {words + u", 0," + u"/" + path + u"\n", {true, path, 0, 1, 0, 0}},
        {words + u", 1," + u"/" + path + u"\n", {true, path, 1, 1, 0, 0}},
        // The path column stays at 40 when the words before it are shifted.
        {u"  " + words + u", 0," + path + u"\n", {true, u"," + path, 0, 1, 0, 0}},
        {words + u", 1," + u"/" + std::u16string(259, u'q') + u"\n",
         {true, std::u16string(259, u'q'), 1, 1, 0, 0}},
        {words + u", 1," + u"/" + std::u16string(260, u'q') + u"\n", kMalformed},
        {words + u"\n", kMalformed},
    };
    for (const Row& row : rows) ExpectParse(2, row.line, row.want);

    // Words the scan does not reach are 0, and the line is still taken: only its length counts.
    Guid guid = SequenceGuid();
    WatchedFolder folder;
    const std::u16string junk = u"zz" + std::u16string(38, u' ') + u"/path\n";
    ASSERT_TRUE(Vigil::Watch::parseFolderLine(2, junk, guid, folder));
    EXPECT_EQ(guid, Guid{});
    EXPECT_EQ(folder.path, u"/path");
    EXPECT_EQ(folder.options.watchSubtree, 1);
    EXPECT_FALSE(Vigil::Watch::parseFolderLine(1, junk, guid, folder));
}

}  // namespace
