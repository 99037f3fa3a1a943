// The built executable stopped (SIGSTOP) while a watched folder fills with more files than a
// kernel queue holds, then continued: no name is lost and no folder falls silent.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/e2e/AgentProcess.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"
#include "tools/client/AgentConnection.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;

vigil_client::Guid MakeGuid(uint8_t seed) {
    vigil_client::Guid guid{};
    for (size_t i = 0; i < guid.size(); ++i) guid[i] = static_cast<uint8_t>(seed + i);
    return guid;
}

// A folder for many files: on a memory file system where there is one, since a disk file
// system that has just deleted many files can take seconds per thousand new ones.
class ManyFilesFolder {
  public:
    explicit ManyFilesFolder(const std::string& fallback) {
        char pattern[] = "/dev/shm/vgl-many.XXXXXX";
        if (::mkdtemp(pattern) != nullptr) {
            path_ = pattern;
            made_ = true;
        } else {
            path_ = fallback;
            fs::create_directories(path_);
        }
    }
    ~ManyFilesFolder() {
        std::error_code ignored;
        if (made_) fs::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    bool made_ = false;
};

// Collects names of `folder` (one step) into `seen` until `done` holds or the time is up.
bool CollectUntil(vigil_client::AgentConnection& client, const std::string& folder,
                  std::set<std::string>& seen, const std::function<bool()>& done) {
    return PollUntil(
        [&] {
            for (const vigil_client::FolderChanges& changes : client.getChanges(true)) {
                if (changes.path == folder) seen.insert(changes.names.begin(), changes.names.end());
            }
            return done();
        },
        std::chrono::seconds(60));
}

TEST(OverflowE2eTest, AServiceStoppedThroughAStormLosesNoNameAndNoFolderFallsSilent) {
    ScratchRoot root;
    setenv("LC_ALL", "C", 1);
    ManyFilesFolder stormy(root / "stormy");
    const std::string stormFolder = stormy.path() + "/";
    const std::string otherFolder = root / "other/";
    fs::create_directories(otherFolder);

    RunningAgent agent({"/PORT", "storm"});
    ASSERT_TRUE(agent.waitForOutput("Vigil State: RUNNING\n"));
    vigil_client::AgentConnection first(u"storm");
    first.hello(MakeGuid(1), 1, 0);
    first.addFolders({false, true, false}, {stormFolder});
    vigil_client::AgentConnection second(u"storm");
    second.hello(MakeGuid(2), 1, 0);
    second.addFolders({false, true, false}, {otherFolder});
    // A watch starts after the reply to AddFolders: it is in place once a file made after it has
    // come through, so a new one is made at each look until one does.
    std::set<std::string> seen, otherSeen;
    int pokes = 0;
    auto watching = [&](const std::string& folder, std::set<std::string>& names) {
        std::ofstream(folder + "ready-" + std::to_string(pokes++)).close();
        return !names.empty();
    };
    ASSERT_TRUE(
        CollectUntil(first, stormFolder, seen, [&] { return watching(stormFolder, seen); }));
    ASSERT_TRUE(CollectUntil(second, otherFolder, otherSeen,
                             [&] { return watching(otherFolder, otherSeen); }));

    agent.signal(SIGSTOP);
    std::set<std::string> made;
    for (int i = 0; i < 30000; ++i) {
        const std::string name = "photo-" + std::to_string(i) + ".jpg";
        const int fd = ::open((stormFolder + name).c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_GE(fd, 0);
        ::close(fd);
        made.insert(name);
    }
    agent.signal(SIGCONT);

    seen.clear();
    EXPECT_TRUE(CollectUntil(first, stormFolder, seen,
                             [&] {
                                 for (const std::string& name : made) {
                                     if (!seen.contains(name)) return false;
                                 }
                                 return true;
                             }))
        << seen.size() << " of the names came";

    std::ofstream(stormFolder + "after").close();
    std::ofstream(otherFolder + "after").close();
    EXPECT_TRUE(CollectUntil(first, stormFolder, seen, [&] { return seen.contains("after"); }));
    EXPECT_TRUE(
        CollectUntil(second, otherFolder, otherSeen, [&] { return otherSeen.contains("after"); }));

    agent.signal(SIGINT);
    EXPECT_EQ(agent.wait().status, 0);
}

}  // namespace
}  // namespace vigil_test
