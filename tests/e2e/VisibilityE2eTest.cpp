// What a client of a plain local user may see, end to end: the service runs as root in this
// process, the client in a child process that has given up root for a user of its own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/DirectoryChanges.h"
#include "platform/Utf.h"
#include "service/VigilClientTable.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tests/e2e/ServerFixture.h"
#include "tests/support/PollUntil.h"
#include "tests/support/RunAsUser.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/ClientCodec.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;
using vigil_client::AgentConnection;
using vigil_client::FolderOptions;
using vigil_client::RequestRefused;
using Names = std::vector<std::string>;

const UserIds kPlainUser{61001, 61001, {61002}};
constexpr FolderOptions kSubtree{true, true, false};

vigil_client::Guid MakeGuid(uint8_t seed) {
    vigil_client::Guid guid{};
    for (size_t i = 0; i < guid.size(); ++i) guid[i] = static_cast<uint8_t>(seed + i);
    return guid;
}

Vigil::Watch::Guid WatchGuid(const vigil_client::Guid& guid) {
    Vigil::Watch::Guid out;
    std::copy(guid.begin(), guid.end(), out.bytes.begin());
    return out;
}

void Touch(const std::string& path) { std::ofstream(path) << "x"; }

std::string Joined(Names names) {
    std::sort(names.begin(), names.end());
    std::string out;
    for (const std::string& name : names) out += name + ";";
    return out;
}

// The outcome of a request as one line: "ok" or the reasons of the Error.
std::string Outcome(const std::function<void()>& request) {
    try {
        request();
        return "ok";
    } catch (const RequestRefused& refused) {
        std::string out = "refused:";
        for (const std::string& reason : refused.reply().reasons) out += " " + reason;
        return out;
    }
}

class VisibilityE2eTest : public ServerFixture {
  protected:
    void SetUp() override {
        ServerFixture::SetUp();
        // The scratch root is 0700; the plain user must reach the pipe and the folders below it.
        ASSERT_EQ(::chmod(root_->path().c_str(), 0755), 0);
        watched_ = root_->path() + "/watched/";
        fs::create_directories(watched_);
    }
    // A folder of root's below the scratch root, with the closing '/'.
    std::string folder(const std::string& name, mode_t mode) {
        const std::string path = watched_ + name + "/";
        fs::create_directories(path);
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }
    std::unique_ptr<AgentConnection> connect(uint8_t seed) const {
        auto connection = std::make_unique<AgentConnection>(pipeName_);
        connection->hello(MakeGuid(seed), 1, 0);
        return connection;
    }
    // Runs `work` as the plain user on a connection of its own with the GUID of `seed`.
    std::string asPlainUser(uint8_t seed,
                            const std::function<std::string(AgentConnection&)>& work) const {
        const ChildOutcome outcome = RunAsUser(kPlainUser, [&] {
            auto connection = connect(seed);
            return work(*connection);
        });
        if (outcome.cannotSwitch) return "cannot give up root";
        EXPECT_EQ(outcome.status, 0) << outcome.output;
        return outcome.output;
    }
    static Names folderPaths(uint8_t seed) {
        std::vector<Vigil::Watch::WatchedFolder> folders;
        Vigil::Watch::ProcessDatabase().getFolders(WatchGuid(MakeGuid(seed)), folders);
        Names paths;
        for (const auto& f : folders) paths.push_back(Osb::Utf16ToUtf8(f.path));
        return paths;
    }
    static Names pending(AgentConnection& connection, const std::string& path) {
        for (const vigil_client::FolderChanges& changes : connection.getChanges(false)) {
            if (changes.path == path) return changes.names;
        }
        return {};
    }
    // A subtree watch by a root client with `seed`'s GUID on a tree holding a directory open to
    // all and one of root's alone, and a name made in each of the three directories; returns the
    // tree's path once all four names are pending.
    std::string treeWithPendingNames(AgentConnection& root) {
        const std::string tree = folder("tree", 0755);
        folder("tree/open", 0755);
        folder("tree/private", 0700);
        root.addFolders(kSubtree, {tree});
        EXPECT_TRUE(
            PollUntil([] { return Vigil::Watch::ProcessDatabase().startsSettledForTesting(); }));
        Touch(tree + "top");
        Touch(tree + "open/photo.jpg");
        Touch(tree + "private/payroll-2026.xlsx");
        Touch(tree + "private/id_ed25519");
        EXPECT_TRUE(PollUntil([&] { return pending(root, tree).size() >= 4; }));
        return tree;
    }

    std::string watched_;
};

#define SKIP_WITHOUT_USERS(text) \
    if ((text) == "cannot give up root") GTEST_SKIP() << "cannot give up root here"

TEST_F(VisibilityE2eTest, AddFoldersWithAFolderTheUserMayNotListIsRefusedWholeAndAddsNothing) {
    const std::string open = folder("open", 0755);
    const std::string closed = folder("closed", 0700);
    const std::string ssh = folder("closed/.ssh", 0700);
    const std::string out = asPlainUser(1, [&](AgentConnection& c) {
        std::string lines;
        lines += Outcome([&] { c.addFolders(kSubtree, {closed}); }) + "\n";
        lines += Outcome([&] { c.addFolders(kSubtree, {open, closed}); }) + "\n";
        lines += Outcome([&] { c.addFolders(kSubtree, {ssh}); }) + "\n";
        return lines;
    });
    SKIP_WITHOUT_USERS(out);
    EXPECT_EQ(out,
              "refused: Access is denied.\n"
              "refused: Access is denied.\n"
              "refused: Access is denied.\n");
    EXPECT_EQ(folderPaths(1), Names{});
    // The same user may watch what it may list.
    const std::string allowed = asPlainUser(
        1, [&](AgentConnection& c) { return Outcome([&] { c.addFolders(kSubtree, {open}); }); });
    EXPECT_EQ(allowed, "ok");
    EXPECT_EQ(folderPaths(1), Names{open});
}

// Behind a directory the user may not search, a file, a directory and a missing name get one and
// the same answer; where it may look, a missing name is no secret.
TEST_F(VisibilityE2eTest, RefusalsDoNotTellWhatLiesBehindADirectoryTheUserMayNotSearch) {
    const std::string closed = folder("closed", 0700);
    folder("closed/sub", 0755);
    Touch(closed + "id_ed25519");
    const std::string open = folder("open", 0755);
    Touch(open + "file");
    const std::string out = asPlainUser(1, [&](AgentConnection& c) {
        std::string lines;
        for (const char* name : {"id_ed25519", "sub", "nothing"}) {
            lines += Outcome([&] { c.addFolders(kSubtree, {closed + name}); }) + "\n";
            lines += Outcome([&] { c.removeFolders(true, {closed + name}); }) + "\n";
        }
        lines += Outcome([&] { c.addFolders(kSubtree, {open + "nothing"}); }) + "\n";
        lines += Outcome([&] { c.addFolders(kSubtree, {open + "file"}); }) + "\n";
        return lines;
    });
    SKIP_WITHOUT_USERS(out);
    std::string expected;
    for (int i = 0; i < 6; ++i) expected += "refused: Access is denied.\n";
    expected += "refused: The system cannot find the file specified.\n";
    expected += "refused: Access is denied.\n";
    EXPECT_EQ(out, expected);
    EXPECT_EQ(folderPaths(1), Names{});
}

// Judged at each request: a folder the user may no longer list leaves its list, and comes back.
TEST_F(VisibilityE2eTest, GetFoldersListsOnlyWhatTheUserMayListNowAndRemoveFoldersNeedsItToo) {
    const std::string open = folder("open", 0755);
    const std::string closed = folder("closed", 0700);
    auto root = connect(1);
    root->addFolders(kSubtree, {open, closed});
    auto list = [](AgentConnection& c) { return Joined(c.getFolders()); };

    const std::string first = asPlainUser(1, list);
    SKIP_WITHOUT_USERS(first);
    EXPECT_EQ(first, open + ";");
    ASSERT_EQ(::chmod(open.c_str(), 0700), 0);
    EXPECT_EQ(asPlainUser(1, list), "");
    ASSERT_EQ(::chmod(open.c_str(), 0755), 0);
    EXPECT_EQ(asPlainUser(1, list), open + ";");

    EXPECT_EQ(asPlainUser(1,
                          [&](AgentConnection& c) {
                              return Outcome([&] { c.removeFolders(true, {open, closed}); });
                          }),
              "refused: Access is denied.");
    EXPECT_EQ(folderPaths(1), (Names{open, closed}));
    EXPECT_EQ(Joined(root->getFolders()), Joined({open, closed}));
}

// With clear set, what was left out stays pending for a client that may see it.
TEST_F(VisibilityE2eTest, GetChangesLeavesOutNamesOfDirectoriesTheUserMayNotList) {
    auto root = connect(1);
    const std::string tree = treeWithPendingNames(*root);
    const std::string out = asPlainUser(1, [&](AgentConnection& c) {
        std::string text;
        for (const auto& changes : c.getChanges(true))
            text += changes.path + ":" + Joined(changes.names);
        return text;
    });
    SKIP_WITHOUT_USERS(out);
    EXPECT_EQ(out, tree + ":open/photo.jpg;top;");
    EXPECT_EQ(Joined(pending(*root, tree)), "private/id_ed25519;private/payroll-2026.xlsx;");
}

TEST_F(VisibilityE2eTest, RemoveChangesTakesOffOnlyNamesTheUserCouldHaveBeenSent) {
    auto root = connect(1);
    const std::string tree = treeWithPendingNames(*root);
    const std::string out = asPlainUser(1, [&](AgentConnection& c) {
        return Outcome([&] {
            c.removeChanges(vigil_client::EncodeRemoveChanges(
                {{tree, {"private/id_ed25519", "private/payroll-2026.xlsx", "top"}}}));
        });
    });
    SKIP_WITHOUT_USERS(out);
    EXPECT_EQ(out, "ok");
    EXPECT_EQ(Joined(pending(*root, tree)),
              "open/photo.jpg;private/id_ed25519;private/payroll-2026.xlsx;");
}

// One user cannot take every slot of the client table: its connection past the limit is closed at
// once, while root is served and the user gets in again once one of its connections is gone.
TEST_F(VisibilityE2eTest, OneUserMayHoldOnlySoManyConnections) {
    int ready[2], done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    ChildOutcome outcome;
    std::thread child([&] {
        outcome = RunAsUser(kPlainUser, [&] {
            std::string lines;
            std::vector<std::unique_ptr<AgentConnection>> held;
            for (uint32_t i = 0; i < Vigil::kMaxClientsPerUser; ++i) held.push_back(connect(1));
            lines += "held " + std::to_string(held.size()) + "\n";
            // Hello over a connection the service has closed fails with a broken pipe.
            auto admitted = [&] {
                try {
                    connect(1);
                    return true;
                } catch (...) {
                    return false;
                }
            };
            lines += admitted() ? "one more admitted\n" : "one more refused\n";
            // Root is served while this user holds its share.
            char byte = 'r';
            if (::write(ready[1], &byte, 1) != 1 || ::read(done[0], &byte, 1) != 1) {
                return lines + "no word from the test\n";
            }
            held.pop_back();
            const bool again = PollUntil(admitted);
            return lines + (again ? "admitted again\n" : "still refused\n");
        });
        ::close(ready[1]);
    });
    char byte = 0;
    const bool childReady = ::read(ready[0], &byte, 1) == 1;
    std::string rootOutcome = "not tried";
    if (childReady) {
        rootOutcome = Outcome([&] { connect(2)->getFolders(); });
        byte = 'd';
        EXPECT_EQ(::write(done[1], &byte, 1), 1);
    }
    child.join();
    for (int fd : {ready[0], done[0], done[1]}) ::close(fd);
    if (outcome.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(rootOutcome, "ok");
    EXPECT_EQ(outcome.output, "held 256\none more refused\nadmitted again\n");
}

// A plain user's own folders may take only so many kernel watches and so much memory of pending
// names. Once its folders hold either share, its client may add none of them more, while it may
// still add others' folders, and root's and another user's folders keep getting watches and names.
TEST_F(VisibilityE2eTest, AUserAtItsShareMayAddNoMoreOfItsFoldersAndOthersAreServed) {
    constexpr uint32_t kOtherUser = 61003;
    constexpr size_t kBound = 64 * 1024;
    struct Case {
        const char* name;
        size_t watchShare;  // 0: the kernel's
        size_t pendingBound;
        int storm;  // files made in the user's folder
    };
    const Case cases[] = {
        {"watches", 4, Vigil::Watch::PendingShare::kBytesPerOwner, 0},
        {"pending names", 0, kBound, 3000},
    };
    int seed = 10;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Osb::SetWatchShareForTesting(c.watchShare);
        Vigil::Watch::ProcessDatabase().setPendingBoundForTesting(c.pendingBound);
        const uint8_t user = static_cast<uint8_t>(seed++), rootSeed = static_cast<uint8_t>(seed++);
        auto owned = [&](const std::string& name, uid_t uid, int subdirectories) {
            const std::string path = folder(std::string(c.name) + "-" + name, 0755);
            EXPECT_EQ(::chown(path.c_str(), uid, uid), 0);
            for (int i = 0; i < subdirectories; ++i) {
                const std::string sub = path + "d" + std::to_string(i);
                fs::create_directories(sub);
                EXPECT_EQ(::chown(sub.c_str(), uid, uid), 0);
            }
            return path;
        };
        const std::string mine = owned("mine", kPlainUser.uid, 6);
        const std::string more = owned("more", kPlainUser.uid, 0);
        const std::string others = owned("others", kOtherUser, 2);
        const std::string roots = owned("roots", 0, 2);
        const std::string open = folder(std::string(c.name) + "-open", 0755);

        testing::internal::CaptureStderr();
        const std::string added = asPlainUser(user, [&](AgentConnection& a) {
            return Outcome([&] { a.addFolders(kSubtree, {mine}); });
        });
        if (added == "cannot give up root") {
            testing::internal::GetCapturedStderr();
            GTEST_SKIP() << "cannot give up root here";
        }
        EXPECT_EQ(added, "ok");
        ASSERT_TRUE(
            PollUntil([] { return Vigil::Watch::ProcessDatabase().startsSettledForTesting(); }));
        for (int i = 0; i < c.storm; ++i) Touch(mine + "storm-file-number-" + std::to_string(i));
        EXPECT_TRUE(PollUntil(
            [&] { return Vigil::Watch::ProcessDatabase().ownerShareReached(kPlainUser.uid); }));

        const std::string refused = asPlainUser(user, [&](AgentConnection& a) {
            std::string lines = Outcome([&] { a.addFolders(kSubtree, {open, more}); }) + "\n";
            return lines + Outcome([&] { a.addFolders(kSubtree, {open}); }) + "\n";
        });
        EXPECT_EQ(refused,
                  "refused: Not enough quota is available to process this command.\nok\n");
        EXPECT_EQ(Joined(folderPaths(user)), Joined({mine, open}));

        auto root = connect(rootSeed);
        root->addFolders(kSubtree, {roots, others});
        ASSERT_TRUE(
            PollUntil([] { return Vigil::Watch::ProcessDatabase().startsSettledForTesting(); }));
        constexpr size_t kRootFiles = 500;
        for (size_t i = 0; i < kRootFiles; ++i) Touch(roots + "d1/root-file-" + std::to_string(i));
        Touch(others + "d0/theirs");
        EXPECT_TRUE(PollUntil([&] { return pending(*root, roots).size() == kRootFiles; }));
        EXPECT_TRUE(PollUntil([&] { return pending(*root, others) == Names{"d0/theirs"}; }));

        EXPECT_LE(Vigil::Watch::ProcessDatabase().pendingBytesForTesting(kPlainUser.uid),
                  c.pendingBound);
        const std::string collected = asPlainUser(user, [&](AgentConnection& a) {
            a.getChanges(true);
            return std::string("collected");
        });
        EXPECT_EQ(collected, "collected");
        const std::string log = testing::internal::GetCapturedStderr();
        const bool bounded = c.storm > 0;
        EXPECT_EQ(log.find("reached their bound") != std::string::npos, bounded) << log;
        EXPECT_EQ(log.find("under their bound again") != std::string::npos, bounded) << log;
        EXPECT_EQ(log.find("reached their bound"), log.rfind("reached their bound")) << log;
        root->removeFolders(true, {roots, others});
        asPlainUser(user, [&](AgentConnection& a) {
            a.removeFolders(true, {mine, open});
            return std::string();
        });
    }
    Osb::SetWatchShareForTesting(0);
    Vigil::Watch::ProcessDatabase().setPendingBoundForTesting(
        Vigil::Watch::PendingShare::kBytesPerOwner);
}

}  // namespace
}  // namespace vigil_test
