// Directory change notification when a kernel queue overflows, when the kernel refuses a watch
// for want of room, and when folders of different owners share the service.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "platform/ErrorCode.h"
#include "tests/platform/DirectoryWatch.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/WatchLimit.h"

namespace {

namespace fs = std::filesystem;
using Osb::FileAction::kAdded;
using Osb::FileAction::kRemoved;
using vigil_test::Change;
using vigil_test::Touch;
using vigil_test::Watch;

// The events a kernel queue holds before it overflows; 0 when it cannot be read.
size_t QueueLimit() {
    std::ifstream in("/proc/sys/fs/inotify/max_queued_events");
    size_t limit = 0;
    in >> limit;
    return limit;
}

// Keeps the backend from draining its kernel queues for as long as it lives.
class HeldQueues {
  public:
    HeldQueues() { Osb::HoldChangeQueuesForTesting(true); }
    ~HeldQueues() { release(); }
    void release() {
        if (held_) Osb::HoldChangeQueuesForTesting(false);
        held_ = false;
    }

  private:
    bool held_ = true;
};

// More events than a kernel queue holds, in `folder`, cheap on any file system: the attributes
// of two files changed in turn (the kernel folds only an event equal to the one before it).
void Storm(const std::string& folder, size_t events) {
    const std::string files[2] = {folder + "/storm-a", folder + "/storm-b"};
    for (const std::string& file : files) Touch(file);
    for (size_t i = 0; i < events; ++i) ::chmod(files[i % 2].c_str(), i % 4 < 2 ? 0644 : 0600);
}

// Makes `count` files named prefix0, prefix1, ... in `folder`.
std::set<std::string> MakeFiles(const std::string& folder, const std::string& prefix,
                                size_t count) {
    std::set<std::string> names;
    for (size_t i = 0; i < count; ++i) {
        names.insert(prefix + std::to_string(i));
        Touch(folder + "/" + prefix + std::to_string(i));
    }
    return names;
}

// Reads until every change of `expected` has come, or a read ends without changes; returns all
// that came. `ended` tells whether a read ended without changes (a close, an error, an end).
std::vector<Change> ReadUntil(Watch& w, const std::set<Change>& expected, bool& ended) {
    std::vector<Change> all;
    std::set<Change> missing = expected;
    ended = false;
    while (!missing.empty()) {
        if (!w.issue() || !w.wait(20000)) break;
        if (w.bytes() == 0) {
            ended = true;
            break;
        }
        for (const Change& c : w.decode()) {
            missing.erase(c);
            all.push_back(c);
        }
    }
    return all;
}

class DirectoryChangesRecoveryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        limit_ = QueueLimit();
        if (limit_ == 0 || limit_ > 200000) GTEST_SKIP() << "kernel queue limit unknown or huge";
    }
    std::string makeFolder(const std::string& name) {
        const std::string path = root_ / name;
        fs::create_directories(path);
        return path;
    }

    vigil_test::ScratchRoot root_;
    size_t limit_ = 0;
};

// The events kept before the overflow come first (the removal can come from nothing else), then
// every entry, also one older than the watch, and the watch goes on.
TEST_F(DirectoryChangesRecoveryTest, OverflowDeliversTheKeptEventsThenEveryEntryAndGoesOn) {
    const std::string folder = makeFolder("flat");
    Touch(folder + "/older");
    Touch(folder + "/doomed");
    Watch w(folder, false);
    ASSERT_TRUE(w.issue());
    std::set<std::string> lost;
    {
        HeldQueues held;
        fs::remove(folder + "/doomed");
        Storm(folder, limit_ + 100);
        lost = MakeFiles(folder, "lost-", 100);  // past the overflow: no event of these is kept
    }
    std::set<Change> expected{{kRemoved, "doomed"}, {kAdded, "older"}};
    for (const std::string& name : lost) expected.insert({kAdded, name});
    ASSERT_TRUE(w.wait(20000));
    bool ended = false;
    std::vector<Change> seen = w.bytes() > 0 ? w.decode() : std::vector<Change>{};
    ASSERT_GT(w.bytes(), 0u) << "the read ended with error " << w.error();
    for (const Change& c : seen) expected.erase(c);
    std::vector<Change> rest = ReadUntil(w, expected, ended);
    for (const Change& c : rest) expected.erase(c);
    EXPECT_FALSE(ended) << "a read ended with error " << w.error();
    EXPECT_TRUE(expected.empty()) << expected.size() << " changes missing, the first "
                                  << expected.begin()->action << ":" << expected.begin()->name;

    Touch(folder + "/after");
    std::vector<Change> after = ReadUntil(w, {{kAdded, "after"}}, ended);
    EXPECT_FALSE(ended);
    EXPECT_TRUE(std::count(after.begin(), after.end(), Change{kAdded, "after"}) > 0);
}

// Under a subtree watch the rescan walks the tree as it is now: a directory made while events
// were lost is watched, one renamed is known by its new name, one deleted is let go of.
TEST_F(DirectoryChangesRecoveryTest, SubtreeOverflowRewalksTheTreeAsItIsNow) {
    const std::string folder = makeFolder("tree");
    fs::create_directories(folder + "/kept/deep");
    fs::create_directories(folder + "/went");
    fs::create_directories(folder + "/moved");
    Touch(folder + "/kept/deep/older");
    const size_t before = Osb::WatchedDirectoriesForTesting();
    Watch w(folder, true);
    ASSERT_TRUE(w.issue());
    ASSERT_TRUE(
        vigil_test::PollUntil([&] { return Osb::WatchedDirectoriesForTesting() == before + 5; },
                              std::chrono::seconds(5)));
    {
        HeldQueues held;
        Storm(folder, limit_ + 100);
        // Past the overflow: the kernel keeps none of these events.
        fs::create_directories(folder + "/late");
        Touch(folder + "/late/made");
        fs::remove(folder + "/went");
        fs::rename(folder + "/moved", folder + "/renamed");
    }
    const std::set<Change> rescan{
        {kAdded, "kept"}, {kAdded, "kept/deep"}, {kAdded, "kept/deep/older"},
        {kAdded, "late"}, {kAdded, "late/made"}, {kAdded, "renamed"}};
    ASSERT_TRUE(w.wait(20000));
    ASSERT_GT(w.bytes(), 0u) << "the read ended with error " << w.error();
    std::set<Change> missing = rescan;
    for (const Change& c : w.decode()) missing.erase(c);
    bool ended = false;
    for (const Change& c : ReadUntil(w, missing, ended)) missing.erase(c);
    EXPECT_FALSE(ended) << "a read ended with error " << w.error();
    EXPECT_TRUE(missing.empty()) << missing.size() << " missing, the first "
                                 << missing.begin()->name;

    // The folder, kept, kept/deep, late, renamed.
    EXPECT_TRUE(vigil_test::PollUntil(
        [&] { return Osb::WatchedDirectoriesForTesting() == before + 5; }, std::chrono::seconds(5)))
        << Osb::WatchedDirectoriesForTesting() - before;
    Touch(folder + "/late/after");
    Touch(folder + "/renamed/after");
    const std::set<Change> later{{kAdded, "late/after"}, {kAdded, "renamed/after"}};
    std::vector<Change> seen = ReadUntil(w, later, ended);
    for (const Change& c : later)
        EXPECT_TRUE(std::count(seen.begin(), seen.end(), c) > 0) << c.name;
}

// Folders of one owner share a kernel queue, folders of two owners do not: a storm in one
// user's folder makes another user's folder report no rescan, and it keeps its own changes.
TEST_F(DirectoryChangesRecoveryTest, AStormStaysWithTheQueueOfItsFoldersOwner) {
    struct Case {
        uid_t otherOwner;
        size_t queues;
        bool otherRescanned;
    };
    for (const Case& c : {Case{4242, 2, false}, Case{0, 1, true}}) {
        SCOPED_TRACE(c.otherOwner);
        const std::string name = "owner-" + std::to_string(c.otherOwner);
        const std::string stormy = makeFolder(name + "/stormy");
        const std::string quiet = makeFolder(name + "/quiet");
        Touch(stormy + "/older");
        Touch(quiet + "/older");
        ASSERT_EQ(::chown(stormy.c_str(), 0, 0), 0);
        ASSERT_EQ(::chown(quiet.c_str(), c.otherOwner, c.otherOwner), 0);
        const size_t queuesBefore = Osb::ChangeQueuesForTesting();
        Watch storm(stormy, false);
        Watch calm(quiet, false);
        ASSERT_TRUE(storm.issue());
        ASSERT_TRUE(calm.issue());
        EXPECT_EQ(Osb::ChangeQueuesForTesting() - queuesBefore, c.queues);
        {
            HeldQueues held;
            Storm(stormy, limit_ + 100);
            Touch(quiet + "/one");
        }
        bool ended = false;
        ASSERT_TRUE(storm.wait(20000));
        ASSERT_GT(storm.bytes(), 0u) << "the read ended with error " << storm.error();
        std::vector<Change> stormSeen = storm.decode();
        if (std::count(stormSeen.begin(), stormSeen.end(), Change{kAdded, "older"}) == 0) {
            stormSeen = ReadUntil(storm, {{kAdded, "older"}}, ended);
            ASSERT_FALSE(ended);
        }
        // The storm's rescan has been filed by now, that of the quiet folder too if it has one.
        ASSERT_TRUE(calm.wait(20000));
        ASSERT_GT(calm.bytes(), 0u) << "the read ended with error " << calm.error();
        std::vector<Change> calmSeen = calm.decode();
        Touch(quiet + "/two");
        for (const Change& seen : ReadUntil(calm, {{kAdded, "two"}}, ended))
            calmSeen.push_back(seen);
        EXPECT_FALSE(ended);
        EXPECT_TRUE(std::count(calmSeen.begin(), calmSeen.end(), Change{kAdded, "one"}) > 0);
        EXPECT_TRUE(std::count(calmSeen.begin(), calmSeen.end(), Change{kAdded, "two"}) > 0);
        EXPECT_EQ(std::count(calmSeen.begin(), calmSeen.end(), Change{kAdded, "older"}) > 0,
                  c.otherRescanned);
    }
}

// Past the limit of owners with a queue of their own, the further owners share one queue, and a
// storm there reaches the folders of every owner on it, but not those with a queue of their own.
TEST_F(DirectoryChangesRecoveryTest, OwnersPastTheLimitShareOneQueue) {
    struct Limit {
        Limit() { Osb::SetOwnerQueueLimitForTesting(1); }
        ~Limit() { Osb::SetOwnerQueueLimitForTesting(32); }
    } limit;
    const std::vector<uid_t> owners{0, 4243, 4244};
    std::vector<std::unique_ptr<Watch>> watches;
    const size_t queuesBefore = Osb::ChangeQueuesForTesting();
    for (uid_t owner : owners) {
        const std::string folder = makeFolder("shared-" + std::to_string(owner));
        Touch(folder + "/older");
        ASSERT_EQ(::chown(folder.c_str(), owner, owner), 0);
        watches.push_back(std::make_unique<Watch>(folder, false));
        ASSERT_TRUE(watches.back()->issue());
    }
    EXPECT_EQ(Osb::ChangeQueuesForTesting() - queuesBefore, 2u);  // owner 0's, and the shared one
    {
        HeldQueues held;
        Storm(root_ / "shared-4243", limit_ + 100);
    }
    bool ended = false;
    for (size_t i = 1; i < owners.size(); ++i) {
        ASSERT_TRUE(watches[i]->wait(20000));
        ASSERT_GT(watches[i]->bytes(), 0u);
        std::vector<Change> seen = watches[i]->decode();
        if (std::count(seen.begin(), seen.end(), Change{kAdded, "older"}) == 0)
            seen = ReadUntil(*watches[i], {{kAdded, "older"}}, ended);
        EXPECT_TRUE(std::count(seen.begin(), seen.end(), Change{kAdded, "older"}) > 0) << owners[i];
    }
    const std::string own = root_ / "shared-0";
    Touch(own + "/new");
    ASSERT_TRUE(watches[0]->wait(20000));  // its first read, outstanding since before the storm
    ASSERT_GT(watches[0]->bytes(), 0u);
    EXPECT_EQ(watches[0]->decode(), (std::vector<Change>{{kAdded, "new"}}));
}

// The kernel's watch limit is lowered in a user namespace of a child's own, which leaves the
// limit of every other program alone. A directory made past the limit is reported as a failure
// of the folder; the folder is not ended and the rest of its tree stays watched.
TEST_F(DirectoryChangesRecoveryTest, AWatchRefusedForWantOfRoomIsAFailureAndTheWatchGoesOn) {
    const std::string folder = makeFolder("limited");
    fs::create_directories(folder + "/inside");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Room for two watches: the folder and inside.
        if (!vigil_test::LowerWatchLimitInOwnNamespace(2)) _exit(100);
        Watch w(folder, true);
        if (!w.opened() || !w.issue()) _exit(2);
        fs::create_directories(folder + "/refused/below");
        if (!w.wait()) _exit(3);
        // The change that needed the watch comes first, then the failure.
        if (w.bytes() == 0 || w.decode().front() != Change{kAdded, "refused"}) _exit(3);
        bool ended = false;
        if (!w.issue() || !w.wait()) _exit(4);
        if (w.bytes() != 0 || w.error() != Osb::Err::kDiskFull) _exit(5);
        Touch(folder + "/inside/after");
        std::vector<Change> seen = ReadUntil(w, {{kAdded, "inside/after"}}, ended);
        if (ended) _exit(6);
        _exit(std::count(seen.begin(), seen.end(), Change{kAdded, "inside/after"}) > 0 ? 0 : 7);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 100) GTEST_SKIP() << "no user namespace with a watch limit here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed at step " << WEXITSTATUS(status);
}

}  // namespace
