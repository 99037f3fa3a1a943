// The cache file through the built executable: what a start finds in the data folder decides
// which folders a client sees, and what the start leaves there.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "platform/Utf.h"
#include "tests/e2e/AgentProcess.h"
#include "tests/support/FileNamesIn.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/Utf16Le.h"
#include "tools/client/AgentConnection.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;

// GUID bytes A0 A1 ... AF as they travel on the pipe, and the two texts of them in the files.
const vigil_client::Guid kGuid{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                               0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
const std::string kWords = "A3A2A1A0 A7A6A5A4 ABAAA9A8 AFAEADAC";  // the older generation
const std::string kText = "A3A2A1A0-A5A4-A7A6-A9A8-ABAAAFAEADAC";  // the current one

class CacheE2eTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("LC_ALL", "C", 1);
        fs::create_directories(data_);
    }
    void put(const std::string& name, const std::string& utf8) {
        std::ofstream(data_ + name, std::ios::binary)
            << Utf16Le<std::string>(Osb::Utf8ToUtf16(utf8));
    }
    std::string bytesOf(const std::string& name) const {
        std::ifstream in(data_ + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    std::set<std::string> dataFiles() const { return vigil_test::FileNamesIn(data_); }
    // Runs the agent in the console, lets one client of kGuid list its folders, stops it.
    std::vector<std::string> foldersSeenByOneRun() {
        RunningAgent agent({"/PORT", "cache"});
        EXPECT_TRUE(agent.waitForOutput("Vigil State: RUNNING\n"));
        std::vector<std::string> folders;
        {
            vigil_client::AgentConnection client(u"cache");
            client.hello(kGuid, 1, 0);
            folders = client.getFolders();
        }
        agent.signal(SIGINT);
        EXPECT_EQ(agent.wait().status, 0);
        return folders;
    }

    ScratchRoot root_;
    const std::string data_ = root_ / "var/lib/Orvanta/Mirelle Studio/File Agent/";
};

TEST_F(CacheE2eTest, TheFirstStartTakesOverAnOlderCacheAndRemovesIt) {
    const std::string kept = root_ / "home/demo/Pictures/";
    const std::string flat = root_ / "home/demo/Flat/";
    fs::create_directories(kept);
    fs::create_directories(flat);
    put("WatchFolder.2.cache", "0.3\n" + kWords + ", 1,/" + kept + "\n" + kWords + ", 1,/" +
                                   root_ / "gone/" + "\n" + kWords + ", 0,/" + flat + "\n");
    put("WatchFolder.cache", "0.1\n");

    EXPECT_EQ(foldersSeenByOneRun(), (std::vector<std::string>{kept, flat}));
    EXPECT_EQ(
        bytesOf("WatchFolder.3.cache"),
        Utf16Le<std::string>(Osb::Utf8ToUtf16("0.5\n" + kText + ", 1, 1, 0, 0, " + kept + "\n" +
                                              kText + ", 0, 1, 0, 0, " + flat + "\n")));
    // The older generation went with the migration; the oldest, never looked for, stays.
    EXPECT_EQ(dataFiles(), (std::set<std::string>{"WatchFolder.3.cache", "WatchFolder.cache"}));
}

TEST_F(CacheE2eTest, AMalformedLineEndsTheLoadAndTheStartRewritesWhatCameBefore) {
    const std::string before = root_ / "before/";
    const std::string after = root_ / "after/";
    fs::create_directories(before);
    fs::create_directories(after);
    const std::string good = kText + ", 1, 0, 1, 0, " + before + "\n";
    put("WatchFolder.3.cache", "0.5\n" + good +
                                   "this line is long enough but holds no GUID at its start\n" +
                                   kText + ", 1, 1, 0, 0, " + after + "\n");

    EXPECT_EQ(foldersSeenByOneRun(), std::vector<std::string>{before});
    EXPECT_EQ(bytesOf("WatchFolder.3.cache"),
              Utf16Le<std::string>(Osb::Utf8ToUtf16("0.5\n" + good)));
    EXPECT_EQ(dataFiles(), std::set<std::string>{"WatchFolder.3.cache"});
}

TEST_F(CacheE2eTest, ADataFolderThatIsALinkOrAnotherUsersStopsTheStartAndIsLeftAlone) {
    const std::string planted = root_ / "planted/";
    const std::string folder = data_.substr(0, data_.size() - 1);  // without its closing '/'
    for (const bool link : {true, false}) {
        SCOPED_TRACE(link ? "a symbolic link" : "a folder of another user");
        fs::remove_all(folder);
        fs::create_directories(planted);
        fs::permissions(planted, fs::perms::all);
        if (link) {
            fs::create_directory_symlink(planted, folder);
        } else {
            fs::create_directories(folder);
            fs::permissions(folder, fs::perms::all);
            ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
        }
        const Finished run = RunAgent({"/PORT", "cache"}, 20000);
        EXPECT_EQ(run.status, 5);
        EXPECT_NE(run.err.find("Operating System Error = 5"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(data_), std::string::npos) << run.err;
        // Nothing was written through the link, and no right was changed.
        EXPECT_TRUE(fs::is_empty(planted));
        EXPECT_EQ(fs::status(planted).permissions(), fs::perms::all);
        if (link) {
            EXPECT_TRUE(fs::is_symlink(folder));
        } else {
            EXPECT_EQ(fs::status(folder).permissions(), fs::perms::all);
        }
    }
}

TEST_F(CacheE2eTest, TheStartMakesTheDataFolderAndTheFilePrivateAndRemovesAStaleTemporary) {
    const std::string kept = root_ / "kept/";
    fs::create_directories(kept);
    fs::permissions(data_, fs::perms(0755));
    const std::string line = kText + ", 1, 1, 0, 0, " + kept + "\n";
    put("WatchFolder.3.cache", "0.5\n" + line);
    fs::permissions(data_ + "WatchFolder.3.cache", fs::perms(0644));
    put("WatchFolder.3.cache.tmp", "0.5\n");

    EXPECT_EQ(foldersSeenByOneRun(), std::vector<std::string>{kept});
    EXPECT_EQ(fs::status(data_).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(data_ + "WatchFolder.3.cache").permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(dataFiles(), std::set<std::string>{"WatchFolder.3.cache"});
}

}  // namespace
}  // namespace vigil_test
