// Shares of kernel watches per owner of the watched folders.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "tests/platform/DirectoryWatch.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
using vigil_test::Change;
using vigil_test::Touch;
using vigil_test::Watch;

constexpr uint32_t kOtherUser = 65534;
constexpr size_t kShare = 3;

class WatchShareTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to give folders to another owner";
        Osb::SetWatchShareForTesting(kShare);
    }
    void TearDown() override {
        Osb::SetWatchShareForTesting(0);
        Osb::SetOwnerQueueLimitForTesting(32);
    }
    // A folder owned by `owner` with `below` subdirectories owned by `subOwner`.
    std::string makeTree(const std::string& name, uint32_t owner, int below,
                         uint32_t subOwner) {
        const std::string folder = root_ / name;
        fs::create_directories(folder);
        EXPECT_EQ(::chown(folder.c_str(), owner, owner), 0);
        for (int i = 0; i < below; ++i) {
            const std::string sub = folder + "/d" + std::to_string(i);
            fs::create_directories(sub);
            EXPECT_EQ(::chown(sub.c_str(), subOwner, subOwner), 0);
        }
        return folder;
    }
    vigil_test::ScratchRoot root_;
};

// Whether a handle's first read reports a directory left out (1816), or waits for changes and
// brings the one made.
uint32_t FirstReadError(Watch& w, const std::string& folder) {
    static int probes = 0;
    if (!w.issue()) return Osb::ErrorCode();
    Touch(folder + "/probe" + std::to_string(++probes));
    if (!w.wait()) return 0xFFFFFFFF;
    return w.bytes() > 0 ? 0 : w.error();
}

// Each directory's watch counts against the owner of that directory, whoever owns the folder
// watched: a user's directories below a folder of root's cost that user's share.
TEST_F(WatchShareTest, AnOwnersWatchesStopAtItsShareOnEveryQueueAndComeBackWhenLetGo) {
    struct Case {
        const char* name;
        uint32_t owner;     // of the folder
        uint32_t subOwner;  // of the directories below it, whose share is looked at
        size_t ownerQueues;  // 0: every folder on the shared queue
        uint32_t firstError;
        size_t watched;
        bool reached;
    };
    const Case cases[] = {
        {"other-own-queue", kOtherUser, kOtherUser, 32, Osb::Err::kNotEnoughQuota, kShare, true},
        {"other-shared-queue", kOtherUser, kOtherUser, 0, Osb::Err::kNotEnoughQuota, kShare,
         true},
        {"root", 0, 0, 32, 0, 5, false},
        {"root-holding-others", 0, kOtherUser, 32, Osb::Err::kNotEnoughQuota, 1 + kShare, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Osb::SetOwnerQueueLimitForTesting(c.ownerQueues);
        const std::string big = makeTree(std::string(c.name) + "-big", c.owner, 4, c.subOwner);
        const size_t before = Osb::WatchedDirectoriesForTesting();
        {
            Watch w(big, true);
            ASSERT_TRUE(w.opened());
            EXPECT_EQ(FirstReadError(w, big), c.firstError);
            EXPECT_EQ(Osb::WatchedDirectoriesForTesting() - before, c.watched);
            EXPECT_EQ(Osb::WatchShareReached(c.subOwner), c.reached);
        }
        EXPECT_FALSE(Osb::WatchShareReached(c.subOwner));
        // Given back: a smaller tree of the same owner is watched whole, and two handles on one
        // folder count its watches once.
        const std::string small =
            makeTree(std::string(c.name) + "-small", c.owner, 2, c.subOwner);
        Watch first(small, true), second(small, true);
        EXPECT_EQ(FirstReadError(first, small), 0u);
        EXPECT_EQ(FirstReadError(second, small), 0u);
        EXPECT_EQ(Osb::WatchedDirectoriesForTesting() - before, 3u);
    }
}

TEST_F(WatchShareTest, OnlyFoldersOfOtherUsersAreLimited) {
    EXPECT_FALSE(Osb::IsLimitedOwner(0));
    EXPECT_FALSE(Osb::IsLimitedOwner(static_cast<uint32_t>(geteuid())));
    EXPECT_TRUE(Osb::IsLimitedOwner(kOtherUser));
    uint32_t owner = 0;
    const std::string folder = makeTree("owned", kOtherUser, 0, kOtherUser);
    ASSERT_TRUE(Osb::GetFolderOwner(Osb::Utf8ToUtf16(folder), owner));
    EXPECT_EQ(owner, kOtherUser);
    EXPECT_FALSE(Osb::GetFolderOwner(Osb::Utf8ToUtf16(folder + "/missing"), owner));
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kFileNotFound);
}

}  // namespace
