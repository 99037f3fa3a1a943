// The bound on the pending names of one owner's folders, kept by Watch::Database.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "platform/Utf.h"
#include "service/VigilPendingShare.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
using Vigil::Watch::Database;
using Vigil::Watch::Guid;
using Vigil::Watch::PendingShare;
using Names = std::vector<std::u16string>;

const Guid kOne{{1}};
const Guid kTwo{{2}};
constexpr uint32_t kUser = 65534;
constexpr size_t kFits = 5;

Names Numbered(const std::u16string& prefix, int count) {
    Names names;
    for (int i = 0; i < count; ++i)
        names.push_back(prefix + Osb::Utf8ToUtf16(std::to_string(10 + i)));
    return names;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Each way of collecting gives the memory back; the owner is then under its bound again, and root's
// folders never lost a name meanwhile.
TEST(PendingShareTest, NamesPastAnOwnersBoundAreDroppedAndCollectingGivesTheRoomBack) {
    struct Case {
        const char* name;
        std::function<void(Database&, const std::u16string& folder, const Names& kept)> collect;
    };
    const Case cases[] = {
        {"getChanges with clear",
         [](Database& d, const std::u16string& f, const Names&) {
             Names names;
             d.getChanges(kOne, f, names, true);
             d.getChanges(kTwo, f, names, true);
         }},
        {"removeChanges",
         [](Database& d, const std::u16string& f, const Names& kept) {
             d.removeChanges(kOne, f, kept);
             d.removeChanges(kTwo, f, kept);
         }},
        {"removeFolders",
         [](Database& d, const std::u16string& f, const Names&) {
             d.removeFolders(kOne, {{f, {}}});
             d.removeFolders(kTwo, {{f, {}}});
         }},
        {"a gone folder's names collected",
         [](Database& d, const std::u16string& f, const Names&) {
             Names names;
             for (const Guid& guid : {kOne, kTwo}) {
                 d.folderGone(guid, f);
                 d.getChanges(guid, f, names, true);
             }
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vigil_test::ScratchRoot root;
        fs::create_directories(root / "data");
        fs::create_directories(root / "users");
        fs::create_directories(root / "roots");
        const std::u16string users = Osb::Utf8ToUtf16(root / "users") + u"/";
        const std::u16string roots = Osb::Utf8ToUtf16(root / "roots") + u"/";
        Database database;
        database.open(Osb::Utf8ToUtf16(root / "data/"));
        database.setPendingBoundForTesting(kFits * PendingShare::cost(u"n10"));
        for (const Guid& guid : {kOne, kTwo})
            database.addFolders(guid, {{users, {0, 1, 0, 0}}, {roots, {0, 1, 0, 0}}});

        testing::internal::CaptureStderr();
        // Two clients watch the one folder: both lists count against its owner.
        database.addWatchChanges(kOne, users, Numbered(u"n", 3), kUser);
        database.addWatchChanges(kTwo, users, Numbered(u"n", 3), kUser);
        database.addWatchChanges(kOne, users, Numbered(u"m", 3), kUser);
        database.addWatchChanges(kOne, roots, Numbered(u"r", 40), 0);
        EXPECT_EQ(database.droppedNamesForTesting(), 4u);
        EXPECT_EQ(database.pendingBytesForTesting(kUser), kFits * PendingShare::cost(u"n10"));
        EXPECT_TRUE(database.ownerShareReached(kUser));
        EXPECT_FALSE(database.ownerShareReached(0));

        Names one, two;
        database.getChanges(kOne, users, one, false);
        database.getChanges(kTwo, users, two, false);
        EXPECT_EQ(one, Numbered(u"n", 3));
        EXPECT_EQ(two, (Names{u"n10", u"n11"}));

        c.collect(database, users, one);
        EXPECT_EQ(database.pendingBytesForTesting(kUser), 0u);
        EXPECT_FALSE(database.ownerShareReached(kUser));
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(Count(log, "reached their bound"), 1u) << log;
        EXPECT_EQ(Count(log, "under their bound again"), 1u) << log;

        Names rootNames;
        database.getChanges(kOne, roots, rootNames, false);
        EXPECT_EQ(rootNames, Numbered(u"r", 40));
        database.close();
    }
}

// Whose bound a folder's names count against: its owner's, except for folders of root's that
// others may write to, whose names share one bound whoever made them.
TEST(PendingShareTest, FoldersOpenToEveryUserShareOneBound) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to give folders to another owner";
    vigil_test::ScratchRoot root;
    struct Case {
        const char* name;
        uid_t owner;
        mode_t mode;
        uint32_t key;
    };
    const Case cases[] = {
        {"roots", 0, 0755, 0},
        {"roots-sticky-open", 0, 01777, PendingShare::kOpenFolders},
        {"roots-group-writable", 0, 0775, PendingShare::kOpenFolders},
        {"users", kUser, 0755, kUser},
        {"users-open", kUser, 0777, kUser},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string folder = root / c.name;
        fs::create_directories(folder);
        ASSERT_EQ(::chown(folder.c_str(), c.owner, c.owner), 0);
        ASSERT_EQ(::chmod(folder.c_str(), c.mode), 0);
        EXPECT_EQ(PendingShare::keyOf(Osb::Utf8ToUtf16(folder + "/")), c.key);
    }
    EXPECT_EQ(PendingShare::keyOf(Osb::Utf8ToUtf16(root / "missing/")), 0u);
    EXPECT_TRUE(Osb::IsLimitedOwner(PendingShare::kOpenFolders));
}

// A folder of root's watched with its subtree (/home) holds directories of limited users: the names
// made there count against the bound of the directory's owner, whoever's folder it is, and each way
// of collecting them gives back to that owner exactly; root's own names stay unbounded.
TEST(PendingShareTest, NamesInAUsersDirectoryBelowRootsFolderCountAgainstThatUser) {
    struct Case {
        const char* name;
        std::function<void(Database&, const std::u16string& folder)> collect;
    };
    const Case cases[] = {
        {"getChanges with clear",
         [](Database& d, const std::u16string& f) {
             Names names;
             d.getChanges(kOne, f, names, true);
         }},
        {"removeChanges, one directory at a time",
         [](Database& d, const std::u16string& f) {
             d.removeChanges(kOne, f, {u"u/n10", u"u/n11"});
             d.removeChanges(kOne, f, {u"r/r10"});  // root's: gives back nothing of the user's
             d.removeChanges(kOne, f, {u"u/n12"});
         }},
        {"a partial clear by a client that sees only the user's directory",
         [](Database& d, const std::u16string& f) {
             Names names;
             d.getChanges(kOne, f, names, true,
                          [](const std::u16string& dir) { return dir == u"u"; });
             EXPECT_EQ(names, (Names{u"u/n10", u"u/n11", u"u/n12"}));
         }},
        {"removeFolders",
         [](Database& d, const std::u16string& f) {
             d.removeFolders(kOne, {{f, {}}});
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        vigil_test::ScratchRoot root;
        fs::create_directories(root / "data");
        fs::create_directories(root / "home");
        const std::u16string home = Osb::Utf8ToUtf16(root / "home") + u"/";
        Database database;
        database.open(Osb::Utf8ToUtf16(root / "data/"));
        database.setPendingBoundForTesting(3 * PendingShare::cost(u"u/n10"));
        database.addFolders(kOne, {{home, {1, 1, 0, 0}}});

        testing::internal::CaptureStderr();
        // One batch mixing root's names (key 0) with the user's; the user's fourth does not fit.
        Names batch{u"u/n10", u"r/r10", u"u/n11", u"u/n12", u"u/n13", u"top"};
        database.addWatchChanges(kOne, home, std::move(batch), 0,
                                 {kUser, 0, kUser, kUser, kUser, 0});
        database.addWatchChanges(kOne, home, Numbered(u"r/r", 40), 0, {});
        EXPECT_EQ(database.droppedNamesForTesting(), 1u);
        EXPECT_EQ(database.pendingBytesForTesting(kUser), 3 * PendingShare::cost(u"u/n10"));
        EXPECT_TRUE(database.ownerShareReached(kUser));

        c.collect(database, home);
        EXPECT_EQ(database.pendingBytesForTesting(kUser), 0u);
        EXPECT_FALSE(database.ownerShareReached(kUser));
        testing::internal::GetCapturedStderr();
        database.close();
    }
}

// The watch finds each directory's owner itself: with a real tree, a user's storm in their own
// directory below root's folder stops at the user's bound, while root's names all arrive.
TEST(PendingShareTest, AWatchOfRootsTreeBoundsTheStormOfAUserBelow) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to give a directory to another owner";
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "data");
    fs::create_directories(root / "home/user");
    ASSERT_EQ(::chown((root / "home/user").c_str(), kUser, kUser), 0);
    const std::u16string home = Osb::Utf8ToUtf16(root / "home") + u"/";
    Database database;
    database.open(Osb::Utf8ToUtf16(root / "data/"));
    database.setPendingBoundForTesting(10 * PendingShare::cost(u"user/f10"));
    testing::internal::CaptureStderr();
    database.addFolders(kOne, {{home, {1, 1, 0, 0}}});
    ASSERT_TRUE(vigil_test::PollUntil([&] { return database.startsSettledForTesting(); }));

    for (int i = 10; i < 40; ++i) std::ofstream(root / ("home/user/f" + std::to_string(i))) << "x";
    for (int i = 10; i < 30; ++i) std::ofstream(root / ("home/r" + std::to_string(i)));
    auto rootNames = [&] {
        Names names;
        database.getChanges(kOne, home, names, false);
        return std::count_if(names.begin(), names.end(),
                             [](const std::u16string& n) { return n.rfind(u"r", 0) == 0; });
    };
    EXPECT_TRUE(vigil_test::PollUntil([&] { return rootNames() >= 20; }));
    EXPECT_EQ(database.pendingBytesForTesting(kUser), 10 * PendingShare::cost(u"user/f10"));
    EXPECT_TRUE(database.ownerShareReached(kUser));
    Names collected;
    database.getChanges(kOne, home, collected, true);
    EXPECT_EQ(database.pendingBytesForTesting(kUser), 0u);
    testing::internal::GetCapturedStderr();
    database.close();
}

}  // namespace
