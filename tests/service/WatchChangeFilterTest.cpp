#include <gtest/gtest.h>

#include <map>

#include "service/VigilWatchChangeFilter.h"

namespace {

using namespace Vigil::Watch;
using Names = std::vector<std::u16string>;

const std::u16string kFolder = u"/photos/";

// Attributes by full path; anything unknown no longer exists.
AttributeQuery Disk(std::map<std::u16string, uint32_t> entries) {
    return [entries](const std::u16string& path) {
        auto it = entries.find(path);
        return it == entries.end() ? 0xFFFFFFFFu : it->second;
    };
}

FolderOptions Options(bool changed, bool removed) {
    FolderOptions o;
    o.reportChanged = changed ? 1 : 0;
    o.reportRemoved = removed ? 1 : 0;
    return o;
}

TEST(WatchChangeFilterTest, ActionTableByOptions) {
    const std::vector<NamedChange> batch = {{1, u"new"},  {3, u"touched"}, {5, u"to"},
                                            {2, u"gone"}, {4, u"from"},    {7, u"odd"}};
    AttributeQuery disk =
        Disk({{u"/photos/new", 0x80}, {u"/photos/touched", 0x80}, {u"/photos/to", 0x80}});
    struct Case {
        bool changed, removed;
        Names added, dropped;
    };
    const Case cases[] = {
        {true, true, {u"new", u"touched", u"to", u"gone", u"from"}, {}},
        {true, false, {u"new", u"touched", u"to"}, {u"gone", u"from"}},
        {false, true, {u"gone", u"from"}, {}},
        {false, false, {}, {u"gone", u"from"}},
    };
    for (const Case& c : cases) {
        ChangeBatch out = FilterChanges(kFolder, Options(c.changed, c.removed), batch, disk);
        EXPECT_EQ(out.added, c.added) << c.changed << c.removed;
        EXPECT_EQ(out.dropped, c.dropped) << c.changed << c.removed;
    }
}

TEST(WatchChangeFilterTest, OnlyAPlainDirectoryIsSkipped) {
    AttributeQuery disk = Disk({{u"/photos/dir", 0x10},
                                {u"/photos/.hidden", 0x12},
                                {u"/photos/readonly", 0x11},
                                {u"/photos/file", 0x80}});
    ChangeBatch out = FilterChanges(
        kFolder, Options(true, false),
        {{1, u"dir"}, {1, u".hidden"}, {1, u"readonly"}, {1, u"file"}, {2, u"deleted-dir"}}, disk);
    EXPECT_EQ(out.added, (Names{u".hidden", u"readonly", u"file"}));
    EXPECT_EQ(out.dropped, (Names{u"deleted-dir"}));  // nothing left to test: a removed file
}

TEST(WatchChangeFilterTest, ExcludedWordsAnywhereInTheRelativeNameCaseSensitive) {
    AttributeQuery files = [](const std::u16string&) { return 0x80u; };
    ChangeBatch out = FilterChanges(u"/mnt/Recycled/photos/", Options(true, true),
                                    {{1, u"RECYCLER/x"},
                                     {1, u"sub/Recycled/y"},
                                     {1, u"MyRecycledNotes.txt"},
                                     {1, u"a/System Volume Information"},
                                     {1, u"Local Settings/Temp/t"},
                                     {1, u"LOCALS~1/Temp"},
                                     {1, u"recycled"},
                                     {1, u"Local Settings/Tmp"},
                                     {1, u"plain"}},
                                    files);
    // The folder's own path holds an excluded word and does not matter.
    EXPECT_EQ(out.added, (Names{u"recycled", u"Local Settings/Tmp", u"plain"}));
}

TEST(WatchChangeFilterTest, BatchWhereEverythingFailsGivesEmptyLists) {
    AttributeQuery dirs = [](const std::u16string&) { return 0x10u; };
    ChangeBatch out =
        FilterChanges(kFolder, Options(true, false), {{1, u"a"}, {2, u"RECYCLER"}}, dirs);
    EXPECT_TRUE(out.added.empty());
    EXPECT_TRUE(out.dropped.empty());
}

}  // namespace
