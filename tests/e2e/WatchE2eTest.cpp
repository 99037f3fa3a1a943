// The watch engine end to end: real folders below the scratch root, changes made with the file
// system, collected over the pipe with the client library.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tests/e2e/ServerFixture.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/ClientCodec.h"
#include "tests/support/PollUntil.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;
using vigil_client::AgentConnection;
using vigil_client::FolderChanges;
using vigil_client::FolderOptions;
using Names = std::vector<std::string>;

constexpr auto kDeadline = std::chrono::seconds(10);

vigil_client::Guid MakeGuid(uint8_t seed) {
    vigil_client::Guid guid{};
    for (size_t i = 0; i < guid.size(); ++i) guid[i] = static_cast<uint8_t>(seed + i);
    return guid;
}

void Touch(const std::string& path) { std::ofstream(path) << "x"; }

bool PollUntil(const std::function<bool()>& done) { return vigil_test::PollUntil(done, kDeadline); }

class WatchE2eTest : public ServerFixture {
  protected:
    // A fresh folder below the scratch root, with the closing '/' the service reports.
    std::string folder(const std::string& name) {
        std::string path = root_->path() + "/watched/" + name + "/";
        fs::create_directories(path);
        return path;
    }
    std::unique_ptr<AgentConnection> connect(uint8_t seed, uint32_t major = 1) {
        auto connection = std::make_unique<AgentConnection>(pipeName_);
        connection->hello(MakeGuid(seed), major, 0);
        return connection;
    }
    // Adds and waits until the watch thread has opened the folders, so later changes are seen.
    void add(AgentConnection& connection, const FolderOptions& options, const Names& paths) {
        connection.addFolders(options, paths);
        ASSERT_TRUE(
            PollUntil([] { return Vigil::Watch::ProcessDatabase().startsSettledForTesting(); }));
    }
    // The pending names of `path`, left pending.
    static Names pending(AgentConnection& connection, const std::string& path) {
        for (const FolderChanges& changes : connection.getChanges(false)) {
            if (changes.path == path) return changes.names;
        }
        return {};
    }
    // Polls until `path` holds at least `count` names (or the deadline passes); returns them.
    static Names waitFor(AgentConnection& connection, const std::string& path, size_t count) {
        Names names;
        PollUntil([&] {
            names = pending(connection, path);
            return names.size() >= count;
        });
        return names;
    }
    // Polls until `path`'s list is exactly `expected` (a batch's additions and removals are two
    // steps, so a list can pass through other states); returns the last list seen.
    static Names settleTo(AgentConnection& connection, const std::string& path,
                          const Names& expected) {
        Names names;
        PollUntil([&] { return (names = pending(connection, path)) == expected; });
        return names;
    }
    static bool holds(const Names& names, const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    }
    std::u16string cacheText() {
        std::vector<uint8_t> bytes;
        Osb::ReadFileBytes(Vigil::Watch::ProcessDatabase().cachePathForTesting(), bytes);
        std::u16string text(bytes.size() / 2, u'\0');
        std::memcpy(text.data(), bytes.data(), text.size() * 2);
        return text;
    }
};

TEST_F(WatchE2eTest, ActionsReachTheListAsTheOptionsSay) {
    struct Case {
        bool reportChanged, reportRemoved;
        Names expected;
    };
    const Case cases[] = {
        {true, false, {"a", "b", "e"}},  // f and the removals come off the list
        {true, true, {"f", "f", "a", "b", "c", "d", "e"}},
        {false, true, {"f", "c", "d"}},
    };
    uint8_t seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.reportChanged << c.reportRemoved);
        const std::string dir = folder("actions" + std::to_string(seed));
        Touch(dir + "b");
        Touch(dir + "c");
        Touch(dir + "d");
        auto client = connect(seed++);
        add(*client, {false, c.reportChanged, c.reportRemoved}, {dir});

        Touch(dir + "f");
        fs::remove(dir + "f");
        Touch(dir + "a");
        ::chmod((dir + "b").c_str(), 0400);  // an attribute change
        fs::remove(dir + "c");
        fs::rename(dir + "d", dir + "e");
        EXPECT_EQ(settleTo(*client, dir, c.expected), c.expected);
    }
}

TEST_F(WatchE2eTest, SubtreeNamesExcludeListAndDirectoryTest) {
    const std::string dir = folder("tree");
    auto client = connect(1);
    add(*client, {true, true, false}, {dir});

    fs::create_directories(dir + "RECYCLER/inner");
    Touch(dir + "RECYCLER/inner/x");
    Touch(dir + "MyRecycledNotes.txt");
    Touch(dir + "recycled.txt");  // lower case: not excluded
    fs::create_directories(dir + "Local Settings/Temp");
    Touch(dir + "Local Settings/Temp/y");
    fs::create_directory(dir + "plain");    // a plain directory: not reported
    fs::create_directory(dir + ".hidden");  // a hidden one counts as a file
    fs::create_directory(dir + "plain/deeper");
    Touch(dir + "plain/deeper/z");
    Touch(dir + "end");

    Names names;
    ASSERT_TRUE(PollUntil([&] { return holds(names = pending(*client, dir), "end"); }));
    // A new directory's entries can be reported by its scan ahead of older events, and again by
    // their own event: the order and the count are the backend's, the set is fixed.
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    EXPECT_EQ(names, (Names{".hidden", "end", "plain/deeper/z", "recycled.txt"}));
}

TEST_F(WatchE2eTest, DeepTreeMadeAtOnceReportsEveryFile) {
    const std::string dir = folder("deep");
    auto client = connect(1);
    add(*client, {true, true, false}, {dir});

    std::string path = dir;
    Names expected;
    std::string relative;
    for (int level = 0; level < 12; ++level) {
        relative += "d" + std::to_string(level) + "/";
        path = dir + relative;
        fs::create_directories(path);  // each level made and filled at once
        for (int i = 0; i < 5; ++i) {
            Touch(path + "f" + std::to_string(i));
            expected.push_back(relative + "f" + std::to_string(i));
        }
    }
    Names names;
    PollUntil([&] {
        names = pending(*client, dir);
        return std::all_of(expected.begin(), expected.end(),
                           [&](const std::string& name) { return holds(names, name); });
    });
    // A file made before its directory's watch exists may be reported twice (once by the scan of
    // the new directory); each must be there.
    for (const std::string& name : expected) EXPECT_TRUE(holds(names, name)) << name;
}

TEST_F(WatchE2eTest, ClearingAndTwoStepCollection) {
    const std::string dir = folder("collect");
    auto client = connect(1);
    // A folder without names gets no entry in a reply (the layout itself is the codec's test).
    add(*client, {false, true, true}, {dir, folder("idle")});

    // Names repeated, by different events (the kernel folds identical neighbours).
    Touch(dir + "a");
    ::chmod((dir + "a").c_str(), 0400);
    fs::rename(dir + "a", dir + "t");
    fs::rename(dir + "t", dir + "a");
    const Names repeated{"a", "a", "a", "t", "t", "a"};
    ASSERT_EQ(settleTo(*client, dir, repeated), repeated);

    // Two steps: the reply sent back takes exactly its names, each with its repetitions, off.
    Bytes raw;
    ASSERT_EQ(client->getChanges(false, &raw).size(), 1u);
    Touch(dir + "b");
    ASSERT_EQ(waitFor(*client, dir, 7).back(), "b");
    client->removeChanges(raw);  // a, its repetitions and t
    EXPECT_EQ(pending(*client, dir), (Names{"b"}));

    // One step: what the reply carried is gone at once; the record takes new names again.
    auto taken = client->getChanges(true);
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].names, (Names{"b"}));
    EXPECT_TRUE(client->getChanges(false).empty());
    Touch(dir + "c");
    EXPECT_EQ(settleTo(*client, dir, {"c"}), (Names{"c"}));
}

// A folder that goes (deleted or moved away) leaves the list and the cache on its own, and the
// names it gathered are still delivered, in two steps as in one; then they are gone for good,
// also for a later folder of the same path.
TEST_F(WatchE2eTest, AFolderThatGoesLeavesTheListAndTheCacheButItsNamesAreDelivered) {
    struct Case {
        const char* name;
        bool movedAway;
        bool twoSteps;
    };
    for (const Case& c : {Case{"deleted", false, true}, Case{"moved", true, false}}) {
        SCOPED_TRACE(c.name);
        const std::string keep = folder(std::string("keep-") + c.name);
        const std::string gone = folder(std::string("gone-") + c.name);
        auto client = connect(1);
        add(*client, {false, true, true}, {keep, gone});
        EXPECT_NE(cacheText().find(Osb::Utf8ToUtf16(gone)), std::u16string::npos);
        Touch(gone + "held");
        ASSERT_TRUE(holds(waitFor(*client, gone, 1), "held"));

        if (c.movedAway) {
            fs::rename(gone, root_->path() + "/elsewhere-" + c.name);
        } else {
            fs::remove_all(gone);
        }
        // The failed read drops it on its own; GetFolders would too.
        ASSERT_TRUE(PollUntil(
            [&] { return cacheText().find(Osb::Utf8ToUtf16(gone)) == std::u16string::npos; }));
        EXPECT_EQ(client->getFolders(), (Names{keep}));
        EXPECT_NE(cacheText().find(Osb::Utf8ToUtf16(keep)), std::u16string::npos);

        Bytes raw;
        auto reply = client->getChanges(!c.twoSteps, &raw);
        ASSERT_EQ(reply.size(), 1u);
        EXPECT_EQ(reply[0].path, gone);
        EXPECT_TRUE(holds(reply[0].names, "held"));
        if (c.twoSteps) {
            EXPECT_EQ(pending(*client, gone), reply[0].names);  // kept until confirmed
            client->removeChanges(raw);
        }
        EXPECT_TRUE(client->getChanges(false).empty());

        fs::create_directories(gone);
        add(*client, {false, true, true}, {gone});
        Touch(keep + "later");
        ASSERT_TRUE(holds(waitFor(*client, keep, 1), "later"));
        EXPECT_TRUE(pending(*client, gone).empty());
        client->removeFolders(false, {keep, gone});
    }
}

// The names of a folder the client removes itself go with it: they are not there for a folder of
// the same path added later.
TEST_F(WatchE2eTest, NamesOfARemovedFolderDoNotComeBackWhenItIsAddedAgain) {
    const std::string dir = folder("again");
    auto client = connect(1);
    add(*client, {false, true, false}, {dir});
    Touch(dir + "before");
    ASSERT_EQ(waitFor(*client, dir, 1), (Names{"before"}));
    client->removeFolders(false, {dir});
    add(*client, {false, true, false}, {dir});
    Touch(dir + "after");
    EXPECT_EQ(settleTo(*client, dir, {"after"}), (Names{"after"}));
}

// A folder that went and is added again before its names were collected takes them over: they
// come once, under its path, with its new names.
TEST_F(WatchE2eTest, AFolderAddedAgainBeforeItsNamesWereCollectedSendsThemOnce) {
    const std::string dir = folder("back");
    auto client = connect(1);
    add(*client, {false, true, false}, {dir});
    Touch(dir + "first");
    ASSERT_EQ(waitFor(*client, dir, 1), (Names{"first"}));
    fs::rename(dir, root_->path() + "/away");
    ASSERT_TRUE(client->getFolders().empty());
    fs::create_directories(dir);
    add(*client, {false, true, false}, {dir});
    Touch(dir + "second");
    ASSERT_EQ(waitFor(*client, dir, 2), (Names{"first", "second"}));
    auto reply = client->getChanges(true);
    ASSERT_EQ(reply.size(), 1u);
    EXPECT_EQ(reply[0].names, (Names{"first", "second"}));
    EXPECT_TRUE(client->getChanges(false).empty());
}

TEST_F(WatchE2eTest, TwoGuidsOnOnePathAndOneGuidOnTwoConnections) {
    const std::string dir = folder("shared");
    auto first = connect(1);
    auto second = connect(2);
    add(*first, {false, true, false}, {dir});
    add(*second, {false, true, true}, {dir});
    auto firstAgain = connect(1);  // the same GUID: the same folders and lists

    Touch(dir + "n");
    fs::remove(dir + "n");
    EXPECT_EQ(settleTo(*second, dir, {"n", "n"}), (Names{"n", "n"}));
    EXPECT_TRUE(PollUntil([&] { return pending(*first, dir).empty(); }));
    Touch(dir + "m");
    EXPECT_EQ(settleTo(*firstAgain, dir, {"m"}), (Names{"m"}));
    EXPECT_EQ(firstAgain->getFolders(), (Names{dir}));
    firstAgain->getChanges(true);
    EXPECT_TRUE(first->getChanges(false).empty());
}

TEST_F(WatchE2eTest, ChangesWaitForAClientThatWasAway) {
    const std::string dir = folder("away");
    {
        auto client = connect(7);
        add(*client, {false, true, false}, {dir});
    }
    Touch(dir + "while-away");
    // Another client, to know both changes have been through: names are handled in order, so
    // once it holds "later" the absent client has both. It may see "while-away" too, when that
    // change is handled only after it added the folder.
    auto observer = connect(8);
    add(*observer, {false, true, false}, {dir});
    Touch(dir + "later");
    ASSERT_TRUE(PollUntil([&] { return holds(pending(*observer, dir), "later"); }));

    auto back = connect(7);
    EXPECT_EQ(settleTo(*back, dir, {"while-away", "later"}), (Names{"while-away", "later"}));
}

TEST_F(WatchE2eTest, ShortLayoutForVersionZeroAndPathsGetTheirSeparator) {
    const std::string dir = folder("v0");
    auto client = connect(1, 0);
    // Version 0 sends only watchSubtree: reportChanged 1 and reportRemoved 0 whatever was asked.
    add(*client, {false, false, true}, {dir.substr(0, dir.size() - 1)});
    EXPECT_EQ(client->getFolders(), (Names{dir}));
    Touch(dir + "x");
    fs::remove(dir + "x");
    Touch(dir + "y");
    Names names;
    ASSERT_TRUE(PollUntil([&] { return holds(names = pending(*client, dir), "y"); }));
    EXPECT_EQ(names, (Names{"y"}));  // x came off again: removals are not reported
}

// A file name that is not UTF-8 reaches the client as lone surrogates and matches when it comes
// back; the directory test finds such a directory too. A watched folder that is a symbolic link
// to a folder is watched like that folder.
TEST_F(WatchE2eTest, NamesThatAreNotUtf8RoundTripAndALinkedFolderIsWatched) {
    const std::string dir = folder("bytes");
    const std::string link = root_->path() + "/watched/linked/";
    fs::create_directory_symlink(dir, link.substr(0, link.size() - 1));
    auto client = connect(1);
    add(*client, {false, true, false}, {dir, link});

    Touch(dir + "bad\xff.txt");
    fs::create_directory(dir + "dir\xfe");  // a plain directory: not reported
    Touch(dir + "end");
    const Names expected{"bad\xff.txt", "end"};
    EXPECT_EQ(settleTo(*client, dir, expected), expected);
    EXPECT_EQ(settleTo(*client, link, expected), expected);

    Bytes raw;
    ASSERT_EQ(client->getChanges(false, &raw).size(), 2u);
    client->removeChanges(raw);
    EXPECT_TRUE(client->getChanges(false).empty());
}

}  // namespace
}  // namespace vigil_test
