#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "platform/ErrorCode.h"
#include "platform/Sleep.h"
#include "platform/Utf.h"
#include "tests/platform/DirectoryWatch.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
using Osb::FileAction::kAdded;
using Osb::FileAction::kModified;
using Osb::FileAction::kRemoved;
using Osb::FileAction::kRenamedNewName;
using Osb::FileAction::kRenamedOldName;
using vigil_test::Change;
using vigil_test::Touch;
using vigil_test::Watch;

class DirectoryChangesTest : public ::testing::Test {
  protected:
    void SetUp() override { fs::create_directories(folder_); }
    vigil_test::ScratchRoot root_;
    std::string folder_ = root_ / "watched";
};

// What one read of a flat watch reports for each kind of change, in the order they happened: a
// write of content alone is no change, and nothing below the folder's own entries is seen.
TEST_F(DirectoryChangesTest, EachKindOfChangeHasItsActionAndFlatMeansFlat) {
    struct Case {
        const char* name;
        void (*before)(const std::string& folder);
        void (*act)(const std::string& folder);
        std::vector<Change> expected;  // the first of them comes first; the rest as a set
    };
    const Case cases[] = {
        {"every kind",
         [](const std::string& f) { Touch(f + "/old"); },
         [](const std::string& f) {
             Touch(f + "/new");
             fs::rename(f + "/old", f + "/renamed");
             fs::permissions(f + "/new", fs::perms::owner_read);
             fs::remove(f + "/renamed");
         },
         {{kAdded, "new"},
          {kRenamedOldName, "old"},
          {kRenamedNewName, "renamed"},
          {kModified, "new"},
          {kRemoved, "renamed"}}},
        {"content written",
         [](const std::string& f) { Touch(f + "/file"); },
         [](const std::string& f) {
             std::ofstream(f + "/file", std::ios::app) << "more content";
             Touch(f + "/marker");
         },
         {{kAdded, "marker"}}},
        {"below the entries",
         [](const std::string& f) { fs::create_directories(f + "/sub"); },
         [](const std::string& f) {
             Touch(f + "/sub/inner");
             Touch(f + "/top");
         },
         {{kAdded, "top"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string folder = root_ / c.name;
        fs::create_directories(folder);
        c.before(folder);
        Watch w(folder, false);
        ASSERT_TRUE(w.opened());
        ASSERT_TRUE(w.issue());  // sets up the watch; nothing has happened yet
        c.act(folder);
        ASSERT_TRUE(w.wait());
        const std::set<Change> expected(c.expected.begin(), c.expected.end());
        std::vector<Change> seen = w.collectUntil(expected);
        EXPECT_EQ(std::set<Change>(seen.begin(), seen.end()), expected);
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.front(), c.expected.front());
    }
}

// A deep tree made at once and filled straight away: nothing in it may be missed, although its
// directories get their watches only after they exist.
TEST_F(DirectoryChangesTest, SubtreeReportsEverythingInADeepNewTree) {
    Watch w(folder_, true);
    ASSERT_TRUE(w.issue());
    fs::create_directories(folder_ + "/a/b/c/d/e");
    Touch(folder_ + "/a/b/c/d/e/deep");
    Touch(folder_ + "/a/b/mid");
    ASSERT_TRUE(w.wait());
    std::set<Change> expected{{kAdded, "a"},         {kAdded, "a/b"},
                              {kAdded, "a/b/c"},     {kAdded, "a/b/c/d"},
                              {kAdded, "a/b/c/d/e"}, {kAdded, "a/b/c/d/e/deep"},
                              {kAdded, "a/b/mid"}};
    std::vector<Change> seen = w.collectUntil(expected);
    std::set<Change> got(seen.begin(), seen.end());
    for (const Change& c : expected) EXPECT_TRUE(got.count(c)) << c.name;
    // A later change deep inside is seen through the new watches.
    Touch(folder_ + "/a/b/c/later");
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(w.wait());
    auto later = w.collectUntil({{kAdded, "a/b/c/later"}});
    EXPECT_EQ(std::count(later.begin(), later.end(), Change{kAdded, "a/b/c/later"}), 1);
}

// A directory renamed within a subtree is two names, as any rename, not a report of all it
// holds, and it stays watched under its new name. One moved in from outside is new to the tree:
// what it holds is reported, so that nothing made in it before its watch existed is missed.
TEST_F(DirectoryChangesTest, SubtreeDirectoryRenamedWithinIsJustItsTwoNames) {
    fs::create_directories(folder_ + "/old/inner");
    Touch(folder_ + "/old/inner/kept");
    fs::create_directories(root_ / "outside/sub");
    Touch(root_ / "outside/sub/brought");
    Watch w(folder_, true);
    ASSERT_TRUE(w.issue());
    fs::rename(folder_ + "/old", folder_ + "/new");
    Touch(folder_ + "/new/inner/later");
    ASSERT_TRUE(w.wait());
    const std::vector<Change> expected{
        {kRenamedOldName, "old"}, {kRenamedNewName, "new"}, {kAdded, "new/inner/later"}};
    EXPECT_EQ(w.collectUntil({expected.begin(), expected.end()}), expected);

    fs::rename(root_ / "outside", folder_ + "/moved-in");
    Touch(folder_ + "/moved-in/sub/later");
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(w.wait());
    const std::set<Change> movedIn{{kRenamedNewName, "moved-in"},
                                   {kAdded, "moved-in/sub"},
                                   {kAdded, "moved-in/sub/brought"},
                                   {kAdded, "moved-in/sub/later"}};
    std::vector<Change> seen = w.collectUntil(movedIn);
    EXPECT_EQ(std::set<Change>(seen.begin(), seen.end()), movedIn);
}

// What happens in a directory after it has been moved out of a subtree is not the tree's.
TEST_F(DirectoryChangesTest, SubtreeDirectoryMovedOutIsNoLongerReported) {
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        const std::string inside = "leaving" + std::to_string(round);
        const std::string outside = root_ / ("left" + std::to_string(round));
        fs::create_directories(folder_ + "/" + inside);
        Watch w(folder_, true);
        ASSERT_TRUE(w.issue());
        fs::rename(folder_ + "/" + inside, outside);
        Touch(outside + "/made-outside");
        Touch(folder_ + "/marker");
        ASSERT_TRUE(w.wait());
        const std::vector<Change> expected{{kRenamedOldName, inside}, {kAdded, "marker"}};
        ASSERT_EQ(w.collectUntil({expected.begin(), expected.end()}), expected);
        w.close();
        fs::remove(folder_ + "/marker");
    }
}

// A directory made, or moved in, under the name of one just moved out is watched for good.
TEST_F(DirectoryChangesTest, SubtreeNameReusedRightAfterAMoveOutIsWatched) {
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        const std::string name = "reused" + std::to_string(round);
        fs::create_directories(folder_ + "/" + name);
        fs::create_directories(root_ / ("back" + std::to_string(round)));
        Watch w(folder_, true);
        ASSERT_TRUE(w.issue());
        fs::rename(folder_ + "/" + name, root_ / ("gone" + std::to_string(round)));
        const bool made = round % 2 == 0;
        if (made) {
            fs::create_directory(folder_ + "/" + name);
        } else {
            fs::rename(root_ / ("back" + std::to_string(round)), folder_ + "/" + name);
        }
        ASSERT_TRUE(w.wait());
        w.collectUntil({{kRenamedOldName, name}, {made ? kAdded : kRenamedNewName, name}});
        Touch(folder_ + "/" + name + "/later");
        ASSERT_TRUE(w.issue());
        ASSERT_TRUE(w.wait(3000));
        const std::vector<Change> later = w.collectUntil({{kAdded, name + "/later"}}, 3000);
        EXPECT_EQ(std::count(later.begin(), later.end(), Change{kAdded, name + "/later"}), 1);
        w.close();
    }
}

TEST_F(DirectoryChangesTest, BacklogLargerThanOneBufferArrivesOverSeveralReads) {
    Watch w(folder_, false, 4096);
    ASSERT_TRUE(w.issue());
    std::set<Change> expected;
    for (int i = 0; i < 2000; ++i) {
        std::string name = "file-" + std::to_string(i);
        Touch(folder_ + "/" + name);
        expected.insert({kAdded, name});
    }
    ASSERT_TRUE(w.wait());
    std::vector<Change> seen = w.collectUntil(expected, 20000);
    std::set<Change> got;
    for (const Change& c : seen) {
        if (c.action == kAdded) got.insert(c);
    }
    EXPECT_EQ(got.size(), expected.size());
}

TEST_F(DirectoryChangesTest, CloseEndsTheReadWithZeroBytes) {
    Watch w(folder_, true);
    ASSERT_TRUE(w.issue());
    w.close();
    ASSERT_TRUE(w.wait());
    EXPECT_EQ(w.error(), 0u);
    EXPECT_EQ(w.bytes(), 0u);
}

// A folder deleted or moved away ends the read with error 2, the end that tells a folder gone
// from a failure inside a watch that goes on.
TEST_F(DirectoryChangesTest, AFolderThatGoesEndsTheReadWithFileNotFound) {
    for (bool movedAway : {false, true}) {
        SCOPED_TRACE(movedAway ? "moved away" : "deleted");
        fs::create_directories(folder_ + "/inside");
        Watch w(folder_, true);
        ASSERT_TRUE(w.issue());
        if (movedAway) {
            fs::rename(folder_, root_ / "elsewhere");
        } else {
            fs::remove_all(folder_);
        }
        // The deletes of the entries may come first; the end is the error.
        for (int i = 0; i < 10 && w.wait() && w.bytes() > 0; ++i) ASSERT_TRUE(w.issue());
        EXPECT_EQ(w.error(), Osb::Err::kFileNotFound);
        EXPECT_EQ(w.bytes(), 0u);
        w.close();
        fs::remove_all(root_ / "elsewhere");
    }
}

// Changes gathered while no read was outstanding are not lost when the folder goes: they come
// first, and the read after them ends with the error.
TEST_F(DirectoryChangesTest, ChangesHeldAtAnErrorEndAreDeliveredBeforeIt) {
    Watch w(folder_, false);
    Watch parent(root_.path(), false);  // sees the folder go only after the folder's own events
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(parent.issue());
    Touch(folder_ + "/first");
    ASSERT_TRUE(w.wait());  // no read outstanding from here on
    Touch(folder_ + "/held");
    fs::remove_all(folder_);
    ASSERT_TRUE(parent.wait());
    parent.collectUntil({{kRemoved, "watched"}});

    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(w.wait());
    EXPECT_EQ(w.error(), 0u);
    ASSERT_GT(w.bytes(), 0u);
    const std::vector<Change> held = w.decode();
    EXPECT_EQ(std::set<Change>(held.begin(), held.end()),
              (std::set<Change>{{kAdded, "held"}, {kRemoved, "held"}, {kRemoved, "first"}}));
    EXPECT_EQ(held.front(), (Change{kAdded, "held"}));
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(w.wait());
    EXPECT_NE(w.error(), 0u);
    EXPECT_EQ(w.bytes(), 0u);
}

TEST_F(DirectoryChangesTest, TwoHandlesOnOneFolderBothSeeAndOneCloseSparesTheOther) {
    Watch first(folder_, false);
    Watch second(folder_, false);
    ASSERT_TRUE(first.issue());
    ASSERT_TRUE(second.issue());
    Touch(folder_ + "/shared");
    ASSERT_TRUE(first.wait());
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(first.decode(), second.decode());
    first.close();
    ASSERT_TRUE(second.issue());
    Touch(folder_ + "/after");
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(second.decode().front(), (Change{kAdded, "after"}));
}

// A second handle shares the first one's kernel watch. Changes made before its first read may
// still wait in the kernel queue then (the first handle is busy, so the backend is gathering);
// they belong to the first handle alone, which still gets every one of them.
TEST_F(DirectoryChangesTest, LaterHandleOnAWatchedFolderGetsNoOlderChanges) {
    Watch first(folder_, false);
    ASSERT_TRUE(first.issue());
    Touch(folder_ + "/warm");
    ASSERT_TRUE(first.wait());  // no read outstanding from here on: a busy client
    std::set<Change> before;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "before-" + std::to_string(i);
        Touch(folder_ + "/" + name);
        before.insert({kAdded, name});
    }
    Watch second(folder_, false);
    ASSERT_TRUE(second.issue());
    Touch(folder_ + "/after");
    ASSERT_TRUE(second.wait());
    std::vector<Change> seen = second.decode();
    EXPECT_EQ(seen, (std::vector<Change>{{kAdded, "after"}}));

    std::set<Change> got;
    for (const Change& c : first.collectUntil(before, 20000)) got.insert(c);
    for (const Change& c : before) EXPECT_TRUE(got.count(c)) << c.name;
}

// The folder named may itself be a symbolic link to a folder: it is watched like the folder,
// as opening a folder by its path does. Links inside a subtree are still not followed.
TEST_F(DirectoryChangesTest, FolderNamedThroughASymbolicLinkIsWatched) {
    fs::create_directories(folder_ + "/real/inner");
    fs::create_directory_symlink(folder_ + "/real", root_ / "alias");
    fs::create_directory_symlink(folder_ + "/real/inner", folder_ + "/real/link");
    Watch w(root_ / "alias/", true);
    ASSERT_TRUE(w.opened());
    ASSERT_TRUE(w.issue()) << Osb::ErrorCode();
    Touch(folder_ + "/real/link/not-through-the-link");
    Touch(folder_ + "/real/top");
    ASSERT_TRUE(w.wait());
    std::vector<Change> seen = w.collectUntil({{kAdded, "top"}});
    std::set<Change> got(seen.begin(), seen.end());
    EXPECT_TRUE(got.count({kAdded, "top"}));
    EXPECT_TRUE(got.count({kAdded, "inner/not-through-the-link"}));
    EXPECT_FALSE(got.count({kAdded, "link/not-through-the-link"}));
}

// A directory deleted inside a subtree takes its kernel watch with it; the backend must let go
// of it too, or it keeps a reference to the handle after the handle's close.
TEST_F(DirectoryChangesTest, DeletedSubdirectoryLeavesNoWatchBehind) {
    const size_t before = Osb::WatchedDirectoriesForTesting();
    Watch w(folder_, true);
    ASSERT_TRUE(w.issue());
    fs::create_directories(folder_ + "/gone/deeper");
    ASSERT_TRUE(w.wait());
    w.collectUntil({{kAdded, "gone"}, {kAdded, "gone/deeper"}});
    EXPECT_EQ(Osb::WatchedDirectoriesForTesting(), before + 3);
    fs::remove_all(folder_ + "/gone");
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(w.wait());
    w.collectUntil({{kRemoved, "gone"}});
    EXPECT_TRUE(
        vigil_test::PollUntil([&] { return Osb::WatchedDirectoriesForTesting() == before + 1; },
                              std::chrono::seconds(5)));
    w.close();
    EXPECT_EQ(Osb::WatchedDirectoriesForTesting(), before);
}

// Run in a child that gives up root, for whom every directory is readable.
TEST_F(DirectoryChangesTest, UnreadableSubdirectoryIsLeftOutAndTheRestIsWatched) {
    ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);
    fs::create_directories(folder_ + "/locked/inside");
    fs::create_directories(folder_ + "/open");
    ASSERT_EQ(chmod((folder_ + "/locked").c_str(), 0700), 0);
    ASSERT_EQ(chmod((folder_ + "/open").c_str(), 0777), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(100);
        if (geteuid() == 0) _exit(101);
        Watch w(folder_, true);
        if (!w.opened()) _exit(102);
        if (!w.issue()) _exit(103);  // the whole folder refused for one directory in it
        Touch(folder_ + "/open/new");
        if (!w.wait()) _exit(104);
        if (w.error() != 0) _exit(105);
        std::vector<Change> seen = w.collectUntil({{kAdded, "open/new"}});
        _exit(std::count(seen.begin(), seen.end(), Change{kAdded, "open/new"}) > 0 ? 0 : 106);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 100) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed at step " << WEXITSTATUS(status);
}

TEST_F(DirectoryChangesTest, OpeningWhatIsNoFolderFails) {
    Touch(folder_ + "/file");
    EXPECT_EQ(Osb::OpenDirectoryForWatch(Osb::Utf8ToUtf16(folder_ + "/missing")), nullptr);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kFileNotFound);
    EXPECT_EQ(Osb::OpenDirectoryForWatch(Osb::Utf8ToUtf16(folder_ + "/no/such/place")), nullptr);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kPathNotFound);
    EXPECT_EQ(Osb::OpenDirectoryForWatch(Osb::Utf8ToUtf16(folder_ + "/file")), nullptr);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kDirectory);
}

TEST_F(DirectoryChangesTest, SecondOutstandingReadIsRefused) {
    Watch w(folder_, false);
    ASSERT_TRUE(w.issue());
    std::vector<uint8_t> other(1024);
    Osb::DirectoryOverlapped o;
    EXPECT_FALSE(Osb::ReadDirectoryChanges(w.handle(), other.data(), 1024, false, &o,
                                           [](uint32_t, uint32_t, Osb::DirectoryOverlapped*) {}));
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kInvalidParameter);
}

TEST_F(DirectoryChangesTest, AttributesAsTheDirectoryTestSeesThem) {
    fs::create_directories(folder_ + "/dir");
    fs::create_directories(folder_ + "/.hiddendir");
    Touch(folder_ + "/file");
    Touch(folder_ + "/.hidden");
    Touch(folder_ + "/readonly");
    fs::permissions(folder_ + "/readonly", fs::perms::owner_read);
    fs::create_symlink(folder_ + "/dir", folder_ + "/link");
    struct Case {
        const char* name;
        uint32_t attributes;
    };
    const Case cases[] = {{"dir", 0x10},
                          {".hiddendir", 0x12},
                          {"file", 0x80},
                          {".hidden", 0x02},
                          {"readonly", 0x01},
                          {"link", 0x400},
                          {"missing", Osb::kInvalidFileAttributes}};
    for (const Case& c : cases) {
        EXPECT_EQ(Osb::GetFileAttributes(Osb::Utf8ToUtf16(folder_ + "/" + c.name)), c.attributes)
            << c.name;
    }
}

}  // namespace

namespace {

// A tree of `count` directories, a hundred per parent; returns the last one made, relative.
std::string MakeWideTree(const std::string& folder, int count) {
    std::string last;
    for (int i = 0; i < count; ++i) {
        last = "p" + std::to_string(i / 100) + "/d" + std::to_string(i);
        fs::create_directories(folder + "/" + last);
    }
    return last;
}

// The first read of a big tree returns having watched part of it, and the rest is walked
// between the reader's other work: another folder is served while the walk waits, a handle
// closed mid-walk drops its walk, and once done the tree is watched to its last directory.
TEST_F(DirectoryChangesTest, ABigTreeIsWatchedWholeWithoutHoldingUpOtherFolders) {
    const std::string big = root_ / "big";
    const std::string last = MakeWideTree(big, 3000);
    const size_t whole = 1 + 30 + 3000;  // the folder, its 30 parents and their directories
    const std::string small = root_ / "small";
    fs::create_directories(small);
    const size_t before = Osb::WatchedDirectoriesForTesting();

    Osb::HoldDirectoryWalksForTesting(true);
    Watch bigWatch(big, true);
    ASSERT_TRUE(bigWatch.issue());
    EXPECT_FALSE(Osb::DirectoryWalksDoneForTesting());
    EXPECT_LT(Osb::WatchedDirectoriesForTesting() - before, whole);
    Watch smallWatch(small, false);
    ASSERT_TRUE(smallWatch.issue());
    Touch(small + "/meanwhile");
    ASSERT_TRUE(smallWatch.wait());
    EXPECT_EQ(smallWatch.decode(), (std::vector<Change>{{kAdded, "meanwhile"}}));

    // A second handle on the same tree, closed while its walk waits.
    Watch again(big, true);
    ASSERT_TRUE(again.issue());
    again.close();

    Osb::HoldDirectoryWalksForTesting(false);
    ASSERT_TRUE(vigil_test::PollUntil([] { return Osb::DirectoryWalksDoneForTesting(); },
                                      std::chrono::seconds(60)));
    EXPECT_EQ(Osb::WatchedDirectoriesForTesting() - before, whole + 1);
    Touch(big + "/" + last + "/deepest");
    ASSERT_TRUE(bigWatch.wait());
    const std::vector<Change> seen = bigWatch.collectUntil({{kAdded, last + "/deepest"}});
    EXPECT_NE(std::find(seen.begin(), seen.end(), Change{kAdded, last + "/deepest"}), seen.end());
    bigWatch.close();
    smallWatch.close();
    EXPECT_EQ(Osb::WatchedDirectoriesForTesting(), before);
}

}  // namespace
