// Watch::Database on a scratch data folder: the folder and pending tables, the cache it keeps,
// its watch thread's failures and its close; and the decoding of a notification buffer.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "service/VigilWatchFolderDatabase.h"
#include "service/VigilWatchOnChanges.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/WatchLimit.h"
#include "tests/support/PollUntil.h"

namespace {

namespace fs = std::filesystem;
using Vigil::Watch::Database;
using Vigil::Watch::Guid;
using Vigil::Watch::WatchedFolder;
using Names = std::vector<std::u16string>;

const Guid kOne{{1}};
const Guid kTwo{{2}};

bool PollUntil(const std::function<bool()>& done) {
    return vigil_test::PollUntil(done, std::chrono::seconds(10));
}

class WatchFolderDatabaseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(root_ / "data");
        data_ = Osb::Utf8ToUtf16(root_ / "data/");
        database_.open(data_);
    }
    std::u16string folder(const std::string& name) {
        fs::create_directories(root_ / name);
        return Osb::Utf8ToUtf16(root_ / name) + u"/";
    }
    std::vector<WatchedFolder> folders(Database& database, const Guid& guid) {
        std::vector<WatchedFolder> result;
        database.getFolders(guid, result);
        return result;
    }
    Names changes(const Guid& guid, const std::u16string& path, bool clear = false) {
        Names names{u"untouched"};
        database_.getChanges(guid, path, names, clear);
        return names;
    }
    bool cacheExists() { return Osb::PathExists(database_.cachePathForTesting()); }

    vigil_test::ScratchRoot root_;
    std::u16string data_;
    Database database_;
};

TEST_F(WatchFolderDatabaseTest, FolderTableKeepsFirstOptionsPerClientAndSurvivesAReopen) {
    const std::u16string a = folder("a"), b = folder("b");
    database_.addFolders(kOne, {});  // a record with no folders, and a save
    EXPECT_TRUE(cacheExists());
    database_.addFolders(kOne, {{a, {1, 1, 0, 0}}, {b, {0, 1, 1, 0}}});
    database_.addFolders(kOne, {{a, {0, 0, 1, 0}}});  // known path: options stay
    database_.addFolders(kTwo, {{a, {0, 1, 0, 0}}});
    auto mine = folders(database_, kOne);
    ASSERT_EQ(mine.size(), 2u);
    EXPECT_EQ(mine[0].path, a);
    EXPECT_EQ(mine[0].options.watchSubtree, 1);
    EXPECT_EQ(mine[0].options.reportRemoved, 0);
    EXPECT_EQ(mine[1].path, b);

    Database reopened;
    reopened.open(data_);
    auto loaded = folders(reopened, kOne);
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded[1].path, b);
    EXPECT_EQ(loaded[1].options.reportRemoved, 1);
    EXPECT_EQ(folders(reopened, kTwo).size(), 1u);
    reopened.close();

    // Removing the last folders writes nothing: the file keeps what was there.
    database_.removeFolders(kOne, {{a, {}}, {b, {}}, {u"/not/there/", {}}});
    database_.removeFolders(kTwo, {{a, {}}});
    EXPECT_TRUE(folders(database_, kOne).empty());
    Database again;
    again.open(data_);
    EXPECT_EQ(folders(again, kTwo).size(), 1u);
}

TEST_F(WatchFolderDatabaseTest, PendingListsRepeatRemoveEveryOccurrenceAndCleanUp) {
    const std::u16string f = u"/f/", g = u"/g/";
    EXPECT_EQ(changes(kOne, f), Names{u"untouched"});  // no record: names left as passed
    database_.addChanges(kOne, f, {u"x", u"y", u"x"});
    database_.addChanges(kOne, g, {u"z"});
    database_.addChanges(kOne, f, {u"x", u"w"});
    database_.addChanges(kTwo, f, {u"other"});
    EXPECT_EQ(changes(kOne, f), (Names{u"x", u"y", u"x", u"x", u"w"}));

    database_.removeChanges(kOne, f, {u"x", u"absent"});
    EXPECT_EQ(changes(kOne, f), (Names{u"y", u"w"}));
    database_.removeChanges(kOne, f, {u"w", u"y"});
    EXPECT_EQ(changes(kOne, f), Names{u"untouched"});  // the emptied record went
    EXPECT_EQ(changes(kOne, g), Names{u"z"});
    EXPECT_EQ(changes(kTwo, f), Names{u"other"});

    // Clearing keeps the record with an empty list, and new names go onto it.
    EXPECT_EQ(changes(kOne, g, true), Names{u"z"});
    EXPECT_EQ(changes(kOne, g), Names{});
    database_.addChanges(kOne, g, {u"v"});
    EXPECT_EQ(changes(kOne, g), Names{u"v"});
    // A removal of an absent name still cleans up a record that is empty.
    Names taken;
    database_.getChanges(kOne, g, taken, true);
    database_.removeChanges(kOne, g, {u"absent"});
    EXPECT_EQ(changes(kOne, g), Names{u"untouched"});
}

// The filtered collection: only names of accepted directories are sent, and with clear only they
// come off; the directories are listed once each.
TEST_F(WatchFolderDatabaseTest, FilteredCollectionTakesOnlyNamesOfAcceptedDirectories) {
    const std::u16string f = u"/f/";
    database_.addChanges(kOne, f, {u"a/1", u"top", u"b/c/2", u"a/3", u"b/4", u"a/1", u"b/c/5"});
    database_.addChanges(kTwo, f, {u"a/other"});
    Names directories;
    database_.pendingDirectories(kOne, f, directories);
    std::sort(directories.begin(), directories.end());
    EXPECT_EQ(directories, (Names{u"", u"a", u"b", u"b/c"}));
    Names none;
    database_.pendingDirectories(kOne, u"/no-record/", none);
    EXPECT_EQ(none, Names{});

    Names asked;
    auto sendable = [&](const std::u16string& directory) {
        asked.push_back(directory);
        return directory == u"a" || directory.empty();
    };
    Names names{u"untouched"};
    database_.getChanges(kOne, f, names, false, sendable);
    EXPECT_EQ(names, (Names{u"a/1", u"top", u"a/3", u"a/1"}));
    EXPECT_EQ(changes(kOne, f),
              (Names{u"a/1", u"top", u"b/c/2", u"a/3", u"b/4", u"a/1", u"b/c/5"}));
    // Asked for filed directories until one is refused, then once per run of names in one
    // directory.
    ASSERT_GE(asked.size(), 7u + 1u);
    EXPECT_EQ(Names(asked.end() - 7, asked.end()),
              (Names{u"a", u"", u"b/c", u"a", u"b", u"a", u"b/c"}));
    asked.clear();

    database_.getChanges(kOne, f, names, true, sendable);
    EXPECT_EQ(names, (Names{u"a/1", u"top", u"a/3", u"a/1"}));
    EXPECT_EQ(changes(kOne, f), (Names{u"b/c/2", u"b/4", u"b/c/5"}));
    EXPECT_EQ(changes(kTwo, f), Names{u"a/other"});

    // Names that come later are filed as they come: a new directory is offered for decision, and
    // a name there is not sent before it has been decided.
    database_.addChanges(kOne, f, {u"d/6"});
    directories.clear();
    database_.pendingDirectories(kOne, f, directories);
    EXPECT_NE(std::find(directories.begin(), directories.end(), u"d"), directories.end());
    database_.addChanges(kOne, f, {u"e/7"});  // after the decisions were made
    auto all = [](const std::u16string& directory) { return directory != u"e"; };
    database_.getChanges(kOne, f, names, true, all);
    EXPECT_EQ(names, (Names{u"b/c/2", u"b/4", u"b/c/5", u"d/6"}));
    EXPECT_EQ(changes(kOne, f), Names{u"e/7"});
    // All accepted: the list is taken whole.
    auto every = [](const std::u16string&) { return true; };
    database_.getChanges(kOne, f, names, true, every);
    EXPECT_EQ(names, Names{u"e/7"});
    EXPECT_EQ(changes(kOne, f), Names{});
    Names left{u"untouched"};
    database_.getChanges(kOne, u"/no-record/", left, true, sendable);
    EXPECT_EQ(left, Names{u"untouched"});
}

TEST_F(WatchFolderDatabaseTest, GetFoldersForgetsAMissingFolderAndTheCacheFollows) {
    const std::u16string keep = folder("keep"), gone = folder("gone");
    database_.addFolders(kOne, {{keep, {0, 1, 0, 0}}, {gone, {0, 1, 0, 0}}});
    ASSERT_TRUE(PollUntil([&] { return database_.startsSettledForTesting(); }));
    database_.close();  // no watch thread to notice: getFolders must
    fs::remove_all(root_ / "gone");
    auto left = folders(database_, kOne);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].path, keep);
    Database reopened;
    reopened.open(data_);
    EXPECT_EQ(folders(reopened, kOne).size(), 1u);
}

// What a reply carries: the client's folders in their order, then the folders that went, whose
// names stay until collected; a folder the client removes takes its names along, and a batch for
// a folder the client no longer has leaves nothing behind.
TEST_F(WatchFolderDatabaseTest, NamesOfAFolderThatWentWaitForCollectionAndRemovedOnesGoAlong) {
    const std::u16string a = folder("a"), b = folder("b");
    using Reply = std::vector<std::pair<std::u16string, Names>>;
    // As a GetChanges reply asks: the listed folders, then those that went.
    auto send = [&](bool clear) {
        std::vector<std::u16string> paths;
        for (const auto& listed : folders(database_, kOne)) paths.push_back(listed.path);
        database_.goneFolders(kOne, paths);
        Reply result;
        for (const std::u16string& path : paths) {
            Names names;
            database_.getChanges(kOne, path, names, clear);
            if (!names.empty()) result.emplace_back(path, names);
        }
        return result;
    };
    database_.addFolders(kOne, {{a, {0, 1, 0, 0}}, {b, {0, 1, 0, 0}}});
    database_.addChanges(kOne, a, {u"x"});
    database_.addChanges(kOne, b, {u"y"});
    database_.folderGone(kOne, a);
    ASSERT_EQ(folders(database_, kOne).size(), 1u);
    const Reply both{{b, {u"y"}}, {a, {u"x"}}};
    EXPECT_EQ(send(false), both);
    EXPECT_EQ(send(false), both);  // two steps: still there until confirmed
    database_.removeChanges(kOne, a, {u"x"});
    EXPECT_EQ(send(false), (Reply{{b, {u"y"}}}));

    database_.addFolders(kOne, {{a, {0, 1, 0, 0}}});
    database_.addChanges(kOne, a, {u"z"});
    database_.folderGone(kOne, a);
    EXPECT_EQ(send(true), (Reply{{b, {u"y"}}, {a, {u"z"}}}));
    EXPECT_EQ(send(true), Reply{});
    database_.addWatchChanges(kOne, a, {u"late"});  // a's watch is over: nothing stays
    database_.addFolders(kOne, {{a, {0, 1, 0, 0}}});
    EXPECT_EQ(send(false), Reply{});

    database_.addChanges(kOne, b, {u"w"});
    database_.removeFolders(kOne, {{b, {}}});
    database_.addFolders(kOne, {{b, {0, 1, 0, 0}}});
    EXPECT_EQ(send(false), Reply{});
}

TEST_F(WatchFolderDatabaseTest, AFailedStartLeavesTheOtherWatchesWorking) {
    const std::u16string good = folder("good");
    database_.addFolders(kOne, {{u"/no/such/folder/", {0, 1, 0, 0}}, {good, {0, 1, 0, 0}}});
    ASSERT_TRUE(PollUntil([&] { return database_.startsSettledForTesting(); }));
    EXPECT_EQ(database_.activeWatches(), 1u);
    std::ofstream(root_ / "good/file") << "x";
    EXPECT_TRUE(PollUntil([&] { return changes(kOne, good) == Names{u"file"}; }));
    EXPECT_EQ(folders(database_, kOne).size(), 1u);  // the missing one is dropped by the listing
}

TEST_F(WatchFolderDatabaseTest, CloseUnderTrafficThenRequestsStillWork) {
    const std::u16string busy = folder("busy");
    database_.addFolders(kOne, {{busy, {1, 1, 1, 0}}});
    ASSERT_TRUE(PollUntil([&] { return database_.startsSettledForTesting(); }));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            const std::string name = root_ / ("busy/f" + std::to_string(i % 50));
            std::ofstream(name).close();
            fs::remove(name);
        }
    });
    ASSERT_TRUE(PollUntil([&] { return changes(kOne, busy).size() > 10; }));
    database_.close();  // completions are running meanwhile
    stop = true;
    writer.join();
    // After close nothing uses the thread: the tables and the cache go on.
    const std::u16string later = folder("later");
    database_.addFolders(kTwo, {{later, {0, 1, 0, 0}}});
    database_.removeFolders(kOne, {{busy, {}}});
    EXPECT_EQ(folders(database_, kTwo).size(), 1u);
    EXPECT_EQ(database_.activeWatches(), 0u);
}

// A watch the kernel refuses for want of room (its watch limit lowered in a user namespace of a
// child's own) costs the folder that directory only: the folder stays in the table and the
// cache, and the rest of it goes on reporting.
TEST(WatchFolderDatabaseLimitTest, AWatchRefusedForWantOfRoomLeavesTheFolderWatched) {
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "data");
    fs::create_directories(root / "tree/inside");
    const std::u16string tree = Osb::Utf8ToUtf16(root / "tree") + u"/";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Room for two watches: the folder and inside.
        if (!vigil_test::LowerWatchLimitInOwnNamespace(2)) _exit(100);
        Database database;
        database.open(Osb::Utf8ToUtf16(root / "data/"));
        database.addFolders(kOne, {{tree, {1, 1, 0, 0}}});
        if (!PollUntil([&] { return database.startsSettledForTesting(); })) _exit(2);
        if (database.activeWatches() != 1) _exit(3);
        fs::create_directories(root / "tree/refused");
        std::ofstream(root / "tree/inside/after") << "x";
        const bool reported = PollUntil([&] {
            Names names;
            database.getChanges(kOne, tree, names, false);
            return std::find(names.begin(), names.end(), u"inside/after") != names.end();
        });
        if (!reported) _exit(4);
        std::vector<WatchedFolder> left;
        database.getFolders(kOne, left);
        if (left.size() != 1) _exit(5);
        std::vector<uint8_t> cache;
        Osb::ReadFileBytes(database.cachePathForTesting(), cache);
        const std::u16string text(reinterpret_cast<const char16_t*>(cache.data()), cache.size() / 2);
        if (text.find(tree) == std::u16string::npos) _exit(6);
        database.close();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 100) GTEST_SKIP() << "no user namespace with a watch limit here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed at step " << WEXITSTATUS(status);
}

// One record of a notification buffer: header, name, padded to 4.
void PutRecord(std::vector<uint8_t>& buffer, uint32_t action, const std::u16string& name, bool last,
               uint32_t nameBytes = UINT32_MAX) {
    const size_t at = buffer.size();
    const uint32_t bytes = nameBytes == UINT32_MAX ? uint32_t(2 * name.size()) : nameBytes;
    const uint32_t size = (12 + 2 * uint32_t(name.size()) + 3) & ~3u;
    buffer.resize(at + size, 0);
    const uint32_t next = last ? 0 : size;
    std::memcpy(&buffer[at], &next, 4);
    std::memcpy(&buffer[at + 4], &action, 4);
    std::memcpy(&buffer[at + 8], &bytes, 4);
    std::memcpy(&buffer[at + 12], name.data(), 2 * name.size());
}

TEST(DecodeNotifyBufferTest, LongNamesWholeAndNothingReadPastTheFilledBytes) {
    const std::u16string longName(300, u'n');  // longer than a 260-unit name buffer
    std::vector<uint8_t> buffer;
    PutRecord(buffer, 1, u"a", false);
    PutRecord(buffer, 5, longName, false);
    PutRecord(buffer, 2, u"sub/b", true);
    auto all = Vigil::Watch::DecodeNotifyBuffer(buffer.data(), uint32_t(buffer.size()),
                                                uint32_t(buffer.size()));
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].name, longName);
    EXPECT_EQ(all[1].action, 5u);
    EXPECT_EQ(all[2].name, u"sub/b");

    // Cut inside the last record: it is not taken.
    auto cut = Vigil::Watch::DecodeNotifyBuffer(buffer.data(), uint32_t(buffer.size() - 4), 65536);
    EXPECT_EQ(cut.size(), 2u);
    // A name length or a next offset pointing outside: the walk ends there.
    std::vector<uint8_t> bad;
    PutRecord(bad, 1, u"ok", false);
    PutRecord(bad, 1, u"liar", true, 4000);
    auto lied = Vigil::Watch::DecodeNotifyBuffer(bad.data(), uint32_t(bad.size()), 65536);
    ASSERT_EQ(lied.size(), 1u);
    uint32_t far = 0x7FFFFFF0;
    std::memcpy(bad.data(), &far, 4);
    EXPECT_EQ(Vigil::Watch::DecodeNotifyBuffer(bad.data(), uint32_t(bad.size()), 65536).size(), 1u);
}

}  // namespace
