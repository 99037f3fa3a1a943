#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "service/VigilWatchFolderCache.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tests/support/PollUntil.h"
#include "tests/support/FileNamesIn.h"
#include "tests/support/ScopedUmask.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/Utf16Le.h"
#include "tests/service/SequenceGuid.h"

namespace {

namespace fs = std::filesystem;
using Vigil::Watch::CachedFolderTable;
using Vigil::Watch::Guid;
using Vigil::Watch::WatchedFolder;

const std::u16string kGuidText = u"33221100-5544-7766-9988-BBAAFFEEDDCC";
const std::u16string kGuidWords = u"33221100 77665544 BBAA9988 FFEEDDCC";  // the same GUID, older

using vigil_test::SequenceGuid;

std::u16string W(const std::string& text) { return Osb::Utf8ToUtf16(text); }

using vigil_test::Utf16Le;

class WatchFolderCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        data_ = root_ / "data/";
        fs::create_directories(data_);
        fs::create_directories(root_ / "a");
        fs::create_directories(root_ / "b");
        cache_.setDataFolder(W(data_));
    }

    std::u16string folder(const std::string& name) const { return W(root_ / (name + "/")); }
    std::u16string line3(const std::string& name, const std::u16string& numbers = u"1, 1, 0, 0") {
        return kGuidText + u", " + numbers + u", " + folder(name) + u"\n";
    }
    std::u16string line2(const std::string& name, char16_t subtree) {
        return kGuidWords + u", " + subtree + u",/" + folder(name) + u"\n";
    }

    void put(const char16_t* name, const std::vector<uint8_t>& bytes) {
        std::ofstream out(data_ + Osb::Utf16ToUtf8(name), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }
    std::vector<uint8_t> bytesOf(const char16_t* name) const {
        return bytesAt(data_ + Osb::Utf16ToUtf8(name));
    }
    static std::vector<uint8_t> bytesAt(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    std::set<std::string> dataFiles() const { return vigil_test::FileNamesIn(data_); }

    // Loads as the database does: each accepted line joins the table, and a save writes it.
    struct Loaded {
        std::vector<WatchedFolder> folders;
        std::vector<Guid> guids;
        int saves = 0;
        std::vector<std::u16string> paths() const {
            std::vector<std::u16string> result;
            for (const WatchedFolder& f : folders) result.push_back(f.path);
            return result;
        }
    };
    std::vector<std::u16string> folders(const std::vector<std::string>& names) const {
        std::vector<std::u16string> result;
        for (const std::string& name : names) result.push_back(folder(name));
        return result;
    }
    Loaded load() {
        Loaded loaded;
        CachedFolderTable table;
        cache_.load(
            [&](const Guid& guid, const WatchedFolder& f) {
                loaded.guids.push_back(guid);
                loaded.folders.push_back(f);
                table[guid].push_back(f);
            },
            [&] {
                ++loaded.saves;
                cache_.save(table);
            });
        return loaded;
    }

    vigil_test::ScratchRoot root_;
    std::string data_;
    Vigil::Watch::WatchFolderCache cache_;
};

TEST_F(WatchFolderCacheTest, LoadOutcomesFollowGenerationVersionAndLines) {
    const char16_t* g3 = Vigil::Watch::kCacheFileName3;
    const char16_t* g2 = Vigil::Watch::kCacheFileName2;
    const char16_t* g1 = Vigil::Watch::kCacheFileName1;
    const std::u16string longLine =
        kGuidText + u", 1, 1, 0, 0, " + std::u16string(2000, u'x') + u"\n";
    struct Row {
        const char* what;
        std::vector<std::pair<const char16_t*, std::u16string>> files;
        std::vector<std::string> loaded;  // folder names accepted, in order
        int saves;
        std::set<std::string> left;             // files in the data folder afterwards
        std::optional<std::u16string> current;  // the current file's text afterwards
    };
    const Row rows[] = {
        {"good current file, a missing folder skipped",
         {{g3, u"0.5\n" + line3("a") + line3("gone") + line3("b")}},
         {"a", "b"},
         0,
         {"WatchFolder.3.cache"},
         u"0.5\n" + line3("a") + line3("gone") + line3("b")},
        {"version line only", {{g3, u"0.5\n"}}, {}, 0, {"WatchFolder.3.cache"}, u"0.5\n"},
        {"wrong version",
         {{g3, u"0.4\n" + line3("a")}},
         {},
         1,
         {"WatchFolder.3.cache"},
         u"0.4\n" + line3("a")},
        {"empty current file", {{g3, u""}}, {}, 1, {"WatchFolder.3.cache"}, u""},
        {"malformed line ends the load",
         {{g3, u"0.5\n" + line3("a") + u"this line is long enough but holds no GUID at all\n" +
                   line3("b")}},
         {"a"},
         1,
         {"WatchFolder.3.cache"},
         u"0.5\n" + line3("a")},
        {"first folder line malformed",
         {{g3, u"0.5\nshort\n" + line3("a")}},
         {},
         1,
         {"WatchFolder.3.cache"},
         u"0.5\nshort\n" + line3("a")},
        {"over-long line ends the load",
         {{g3, u"0.5\n" + line3("a") + longLine + line3("b")}},
         {"a"},
         1,
         {"WatchFolder.3.cache"},
         u"0.5\n" + line3("a")},
        // No line end but U+000A is known: a carriage return stays on the path, which then names
        // no folder, so nothing loads, and nothing is bad.
        {"carriage returns",
         {{g3, u"0.5\r\n" + line3("a").insert(line3("a").size() - 1, u"\r")}},
         {},
         0,
         {"WatchFolder.3.cache"},
         {}},
        // A byte order mark is a unit before the version, which then does not read.
        {"byte order mark",
         {{g3, u"\uFEFF0.5\n" + line3("a")}},
         {},
         1,
         {"WatchFolder.3.cache"},
         u"\uFEFF0.5\n" + line3("a")},
        {"older generation migrated, generation 1 beside it left",
         {{g2, u"0.3\n" + line2("a", u'0') + line2("gone", u'1') + line2("b", u'1')}, {g1, u"old"}},
         {"a", "b"},
         1,
         {"WatchFolder.3.cache", "WatchFolder.cache"},
         u"0.5\n" + line3("a", u"0, 1, 0, 0") + line3("b", u"1, 1, 0, 0")},
        {"older generation with a wrong version", {{g2, u"0.5\n" + line3("a")}}, {}, 1, {}, {}},
        {"generation 1 only", {{g1, u"0.5\n" + line3("a")}}, {}, 1, {}, {}},
        {"no file", {}, {}, 0, {}, {}},
        // A whole list that a crash kept from being renamed never counts, and is removed unread.
        {"a stale temporary beside the current file",
         {{g3, u"0.5\n" + line3("a")}, {Vigil::Watch::kCacheTemporaryName, u"0.5\n" + line3("b")}},
         {"a"},
         0,
         {"WatchFolder.3.cache"},
         u"0.5\n" + line3("a")},
        {"a stale temporary alone",
         {{Vigil::Watch::kCacheTemporaryName, u"0.5\n" + line3("b")}},
         {},
         0,
         {},
         {}},
        {"current file present: older one untouched",
         {{g3, u"0.5\n" + line3("a")}, {g2, u"0.3\n" + line2("b", u'1')}},
         {"a"},
         0,
         {"WatchFolder.3.cache", "WatchFolder.2.cache"},
         u"0.5\n" + line3("a")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        for (const auto& entry : fs::directory_iterator(data_)) fs::remove(entry.path());
        for (const auto& [name, text] : row.files) put(name, Utf16Le(text));
        cache_.setDataFolder(W(data_));

        const Loaded loaded = load();
        EXPECT_EQ(loaded.paths(), folders(row.loaded));
        for (const Guid& guid : loaded.guids) EXPECT_EQ(guid, SequenceGuid());
        EXPECT_EQ(loaded.saves, row.saves);
        EXPECT_EQ(dataFiles(), row.left);
        if (row.current) {
            EXPECT_EQ(bytesOf(g3), Utf16Le(*row.current));
        }
    }
}

TEST_F(WatchFolderCacheTest, SavedTableLoadsBackWithItsOptions) {
    CachedFolderTable table;
    Guid other;
    other.bytes[15] = 1;
    table[SequenceGuid()] = {{folder("a"), {1, 0, 1, 0}}, {folder("b"), {0, 1, 0, 0}}};
    table[other] = {{folder("b"), {1, 1, 1, 0}}};
    cache_.save(table);

    const Loaded loaded = load();
    EXPECT_EQ(loaded.saves, 0);
    CachedFolderTable back;
    for (size_t i = 0; i < loaded.folders.size(); ++i) {
        back[loaded.guids[i]].push_back(loaded.folders[i]);
    }
    EXPECT_EQ(Vigil::Watch::encodeCacheFile(back), Vigil::Watch::encodeCacheFile(table));
    EXPECT_EQ(loaded.folders.size(), 3u);
}

TEST_F(WatchFolderCacheTest, EmptyTableWritesNothingAndKeepsTheOldFile) {
    cache_.save({});
    EXPECT_TRUE(dataFiles().empty());
    put(Vigil::Watch::kCacheFileName3, Utf16Le(u"0.5\n" + line3("a")));
    cache_.save({});
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), Utf16Le(u"0.5\n" + line3("a")));
    // A client without folders still makes the table non-empty: the version line alone.
    cache_.save({{Guid{}, {}}});
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), Utf16Le(u"0.5\n"));
}

TEST_F(WatchFolderCacheTest, PathAtTheLimitComesBackAndOneBeyondEndsTheLoad) {
    // Paths of exactly 249 and 250 units that exist: the longest a line can carry, and one more.
    const std::string base = root_ / std::string(100, 'd');
    const std::string fit = base + "/" + std::string(249 - base.size() - 2, 'f') + "/";
    const std::string over = base + "/" + std::string(250 - base.size() - 2, 'o') + "/";
    ASSERT_EQ(fit.size(), 249u);
    ASSERT_EQ(over.size(), 250u);
    fs::create_directories(fit);
    fs::create_directories(over);
    cache_.save({{SequenceGuid(),
                  {{W(fit), {1, 1, 0, 0}}, {W(over), {1, 1, 0, 0}}, {folder("a"), {1, 1, 0, 0}}}}});

    const Loaded loaded = load();
    ASSERT_EQ(loaded.folders.size(), 1u);
    EXPECT_EQ(loaded.folders[0].path, W(fit));
    EXPECT_EQ(loaded.saves, 1);
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3),
              Utf16Le(u"0.5\n" + kGuidText + u", 1, 1, 0, 0, " + W(fit) + u"\n"));
}

TEST_F(WatchFolderCacheTest, OpenFailuresOtherThanMissingRaiseWithTheirCode) {
    // A folder where the last name is looked for cannot be read: 5, not a first run.
    fs::create_directories(data_ + "WatchFolder.cache");
    try {
        load();
        ADD_FAILURE() << "no exception";
    } catch (const Osb::ExSystem& e) {
        EXPECT_EQ(e.status(), 5u);
    }
    // A folder in place of the current file only moves the search on; nothing else is there.
    fs::remove(data_ + "WatchFolder.cache");
    fs::create_directories(data_ + "WatchFolder.3.cache");
    EXPECT_EQ(load().saves, 0);
    // The migration's save fails there, and the older file it came from is kept.
    put(Vigil::Watch::kCacheFileName2, Utf16Le(u"0.3\n" + line2("a", u'1')));
    EXPECT_THROW(load(), Osb::ExSystem);
    EXPECT_TRUE(fs::exists(data_ + "WatchFolder.2.cache"));

    Vigil::Watch::WatchFolderCache elsewhere;
    elsewhere.setDataFolder(W(root_ / "nodata/"));
    try {
        elsewhere.save({{Guid{}, {}}});
        ADD_FAILURE() << "no exception";
    } catch (const Osb::ExSystem& e) {
        EXPECT_EQ(e.status(), 3u);
    }
}

TEST_F(WatchFolderCacheTest, GarbageAndCutFilesLoadAPrefixAndNeverMore) {
    std::mt19937 random(11);
    const char16_t* g3 = Vigil::Watch::kCacheFileName3;
    for (const std::u16string& head : {std::u16string(), std::u16string(u"0.5\n")}) {
        for (const size_t length : {1u, 7u, 84u, 600u, 5000u}) {
            SCOPED_TRACE(length);
            std::vector<uint8_t> bytes = Utf16Le(head);
            for (size_t i = 0; i < length; ++i) bytes.push_back(static_cast<uint8_t>(random()));
            put(g3, bytes);
            const Loaded loaded = load();
            EXPECT_TRUE(loaded.folders.empty());
            // A lone byte behind the version line forms no unit, so no line: nothing is bad.
            EXPECT_EQ(loaded.saves, head.empty() || length > 1 ? 1 : 0);
        }
    }

    const std::vector<std::u16string> lines = {u"0.5\n", line3("a"), line3("b")};
    std::vector<uint8_t> full;
    std::vector<size_t> ends;  // byte offsets where a line ends
    for (const std::u16string& l : lines) {
        const std::vector<uint8_t> b = Utf16Le(l);
        full.insert(full.end(), b.begin(), b.end());
        ends.push_back(full.size());
    }
    const std::vector<std::u16string> want = {folder("a"), folder("b")};
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        SCOPED_TRACE(cut);
        put(g3, std::vector<uint8_t>(full.begin(), full.begin() + static_cast<long>(cut)));
        const Loaded loaded = load();
        ASSERT_LE(loaded.folders.size(), want.size());
        for (size_t i = 0; i < loaded.folders.size(); ++i) {
            // A cut line keeps a shorter path, which may still name a folder (a parent of the
            // one that was meant); only the last line can be cut.
            const std::u16string& path = loaded.folders[i].path;
            EXPECT_TRUE(want[i].starts_with(path));
            if (path != want[i]) {
                EXPECT_EQ(i + 1, loaded.folders.size());
            }
        }
        const auto complete = std::find(ends.begin(), ends.end(), cut);
        if (complete != ends.end()) {
            EXPECT_EQ(loaded.folders.size(), static_cast<size_t>(complete - ends.begin()));
            EXPECT_EQ(loaded.saves, 0);
        }
    }
}

// Sets or clears the immutable flag of `path` (the file system may not have one); true when done.
bool SetImmutable(const std::string& path, bool on) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return done;
}

// Caps the size of any file this process writes while the object lives; a write past it fails
// with EFBIG instead of raising SIGXFSZ.
class ScopedFileSizeLimit {
  public:
    explicit ScopedFileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &previous_);
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = previous_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ScopedFileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previousHandler_);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

  private:
    rlimit previous_{};
    void (*previousHandler_)(int) = SIG_DFL;
};

// What stands in the data folder before a save, and what the save leaves: the file whole and
// private, or, when it cannot be done, the old file untouched; never a temporary file, and never a
// write through a planted link.
TEST_F(WatchFolderCacheTest, SaveReplacesTheFileWholeAndPrivatelyOrLeavesTheOldOne) {
    const vigil_test::ScopedUmask openMask(0);
    const std::string current = data_ + "WatchFolder.3.cache";
    const std::string temporary = data_ + "WatchFolder.3.cache.tmp";
    const std::string victim = root_ / "victim";
    const std::vector<uint8_t> oldBytes = Utf16Le(u"0.5\n" + line3("b"));
    const std::vector<uint8_t> victimBytes = {'k', 'e', 'e', 'p'};
    const CachedFolderTable table = {{SequenceGuid(), {{folder("a"), {1, 1, 0, 0}}}}};
    const std::vector<uint8_t> newBytes = Vigil::Watch::encodeCacheFile(table);

    struct Row {
        const char* what;
        std::function<bool()> arrange;  // false: the file system cannot do it here
        uint32_t status;                // 0: saved
    };
    auto writeFile = [](const std::string& path, const std::vector<uint8_t>& bytes, int mode) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        fs::permissions(path, fs::perms(mode));
    };
    const Row rows[] = {
        {"nothing there", [] { return true; }, 0},
        {"an older file readable by everyone",
         [&] {
             writeFile(current, oldBytes, 0666);
             return true;
         },
         0},
        {"a temporary file a crash left",
         [&] {
             writeFile(current, oldBytes, 0600);
             writeFile(temporary, {1, 2, 3}, 0644);
             return true;
         },
         0},
        {"a link at the file's name",
         [&] {
             fs::create_symlink(victim, current);
             return true;
         },
         0},
        {"a link at the temporary name",
         [&] {
             writeFile(current, oldBytes, 0600);
             fs::create_symlink(victim, temporary);
             return true;
         },
         0},
        {"a dangling link at the temporary name",
         [&] {
             fs::remove(victim);
             fs::create_symlink(victim, temporary);
             return true;
         },
         0},
        {"a folder at the temporary name",
         [&] {
             writeFile(current, oldBytes, 0600);
             fs::create_directories(temporary + "/inside");
             return true;
         },
         Osb::Err::kAlreadyExists},
        {"a folder at the file's name",
         [&] {
             fs::create_directories(current + "/inside");
             return true;
         },
         Osb::Err::kAccessDenied},
        {"an old file that cannot be replaced",
         [&] {
             writeFile(current, oldBytes, 0600);
             return SetImmutable(current, true);
         },
         Osb::Err::kAccessDenied},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        fs::remove_all(data_);
        fs::create_directory(data_);
        fs::permissions(data_, fs::perms(0700));
        writeFile(victim, victimBytes, 0644);
        if (!row.arrange()) {
            std::printf("[ SKIPPED  ] %s: no immutable files on this file system\n", row.what);
            continue;
        }
        const bool hadOld = fs::is_regular_file(fs::symlink_status(current));
        uint32_t status = 0;
        try {
            cache_.save(table);
        } catch (const Osb::ExSystem& e) {
            status = e.status();
        }
        SetImmutable(current, false);
        EXPECT_EQ(status, row.status);
        EXPECT_FALSE(fs::exists(fs::symlink_status(temporary)) && !fs::is_directory(temporary));
        // The target of a planted link is neither written nor made.
        if (std::string(row.what) == "a dangling link at the temporary name") {
            EXPECT_FALSE(fs::exists(victim));
        } else {
            EXPECT_EQ(bytesAt(victim), victimBytes);
        }
        if (status == 0) {
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(current)));
            EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), newBytes);
            EXPECT_EQ(vigil_test::ModeOf(current.c_str()), 0600);
            EXPECT_EQ(dataFiles(), std::set<std::string>{"WatchFolder.3.cache"});
        } else if (hadOld) {
            EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), oldBytes);
        }
    }
}

TEST_F(WatchFolderCacheTest, AWriteThatFailsLeavesTheOldFileAndTheNextSaveWritesAgain) {
    const CachedFolderTable small = {{SequenceGuid(), {{folder("a"), {1, 1, 0, 0}}}}};
    CachedFolderTable large = small;
    for (int i = 0; i < 40; ++i) {
        large[SequenceGuid()].push_back({folder("b") + W(std::to_string(i)), {}});
    }
    cache_.save(small);
    const std::vector<uint8_t> before = bytesOf(Vigil::Watch::kCacheFileName3);
    {
        // The larger file cannot be written past this size, as on a disk that is full.
        const ScopedFileSizeLimit limit(before.size() + 100);
        try {
            cache_.save(large);
            ADD_FAILURE() << "no exception";
        } catch (const Osb::ExSystem& e) {
            EXPECT_EQ(e.status(), Osb::Err::kFileTooLarge);
        }
    }
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), before);
    EXPECT_EQ(dataFiles(), std::set<std::string>{"WatchFolder.3.cache"});
    cache_.save(large);
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), Vigil::Watch::encodeCacheFile(large));
}

TEST_F(WatchFolderCacheTest, ADataFolderThatIsALinkOrAnotherUsersIsNotWritten) {
    const std::string real = root_ / "real/";
    const std::string link = root_ / "link";
    fs::create_directories(real);
    fs::create_directory_symlink(real, link);
    const CachedFolderTable table = {{SequenceGuid(), {{folder("a"), {1, 1, 0, 0}}}}};
    for (const std::string& folderPath : {link + "/", link, data_}) {
        SCOPED_TRACE(folderPath);
        if (folderPath == data_) {
            ASSERT_EQ(::chown(data_.c_str(), 65534, 65534), 0);
        }
        Vigil::Watch::WatchFolderCache cache;
        cache.setDataFolder(W(folderPath));
        try {
            cache.save(table);
            ADD_FAILURE() << "no exception";
        } catch (const Osb::ExSystem& e) {
            EXPECT_EQ(e.status(), Osb::Err::kAccessDenied);
        }
    }
    EXPECT_TRUE(fs::is_empty(real));
    EXPECT_TRUE(dataFiles().empty());
}

TEST_F(WatchFolderCacheTest, LoadTightensAnOpenFileAndDoesNotFollowALinkAtItsName) {
    const vigil_test::ScopedUmask openMask(0);
    const std::string current = data_ + "WatchFolder.3.cache";
    put(Vigil::Watch::kCacheFileName3, Utf16Le(u"0.5\n" + line3("a")));
    fs::permissions(current, fs::perms(0644));
    EXPECT_EQ(load().paths(), folders({"a"}));
    EXPECT_EQ(vigil_test::ModeOf(current.c_str()), 0600);
    fs::remove(current);

    // A readable list elsewhere, linked in where the current file belongs.
    const std::string elsewhere = root_ / "elsewhere.cache";
    std::ofstream(elsewhere, std::ios::binary) << Utf16Le<std::string>(u"0.5\n" + line3("a"));
    fs::permissions(elsewhere, fs::perms(0644));
    fs::create_symlink(elsewhere, data_ + "WatchFolder.3.cache");
    const Loaded loaded = load();
    EXPECT_TRUE(loaded.folders.empty());
    EXPECT_EQ(vigil_test::ModeOf(elsewhere.c_str()), 0644);
}

// The cache as Watch::Database drives it: open loads and migrates through the database's own
// table, watches and save; a save that cannot write fails the operation but keeps its change.
class WatchFolderCacheDatabaseTest : public WatchFolderCacheTest {
  protected:
    std::vector<WatchedFolder> listed(Vigil::Watch::Database& database) {
        std::vector<WatchedFolder> result;
        database.getFolders(SequenceGuid(), result);
        return result;
    }
    static size_t watchesOnceSettled(Vigil::Watch::Database& database) {
        EXPECT_TRUE(vigil_test::PollUntil([&] { return database.startsSettledForTesting(); }));
        return database.activeWatches();
    }
    static uint32_t statusOf(const std::function<void()>& work) {
        try {
            work();
        } catch (const Osb::ExSystem& e) {
            return e.status();
        }
        return 0;
    }
};

TEST_F(WatchFolderCacheDatabaseTest, OpenTakesOverAnOlderFileWatchesItsFoldersAndRemovesIt) {
    put(Vigil::Watch::kCacheFileName2,
        Utf16Le(u"0.3\n" + line2("a", u'1') + line2("gone", u'1') + line2("b", u'0') +
                line2("a", u'0')));  // a second line for a known path changes nothing
    put(Vigil::Watch::kCacheFileName1, Utf16Le(u"old"));
    Vigil::Watch::Database database;
    database.open(W(data_));

    const std::vector<WatchedFolder> folders = listed(database);
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_EQ(folders[0].path, folder("a"));
    EXPECT_EQ(folders[1].path, folder("b"));
    EXPECT_EQ(watchesOnceSettled(database), 2u);
    // Written in the current form by the database's own save, and only then is the older file
    // gone; the generation 1 file was never looked for.
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3),
              Utf16Le(u"0.5\n" + line3("a", u"1, 1, 0, 0") + line3("b", u"0, 1, 0, 0")));
    EXPECT_EQ(dataFiles(), (std::set<std::string>{"WatchFolder.3.cache", "WatchFolder.cache"}));
    database.close();
}

// An open that cannot read the cache (a folder where the last name is looked for), or whose
// migration cannot save (a folder in place of the current file), raises 5 with the thread running:
// what was read stays in the table and is watched, and the older file it came from is not lost.
TEST_F(WatchFolderCacheDatabaseTest, OpenThatCannotReadOrMigrateRaisesWithTheThreadRunning) {
    for (const bool migrating : {false, true}) {
        SCOPED_TRACE(migrating ? "migration" : "unreadable");
        for (const auto& entry : fs::directory_iterator(data_)) fs::remove_all(entry.path());
        if (migrating) {
            fs::create_directories(data_ + "WatchFolder.3.cache");
            put(Vigil::Watch::kCacheFileName2, Utf16Le(u"0.3\n" + line2("a", u'1')));
        } else {
            fs::create_directories(data_ + "WatchFolder.cache");
        }
        Vigil::Watch::Database database;
        EXPECT_EQ(statusOf([&] { database.open(W(data_)); }), 5u);
        // Opened all the same: a second open neither reads again nor raises.
        EXPECT_EQ(statusOf([&] { database.open(W(data_)); }), 0u);
        if (migrating) {
            ASSERT_EQ(listed(database).size(), 1u);
            EXPECT_EQ(watchesOnceSettled(database), 1u);
            EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName2), Utf16Le(u"0.3\n" + line2("a", u'1')));
        } else {
            database.addFolders(SequenceGuid(), {{folder("a"), {1, 1, 0, 0}}});
            EXPECT_EQ(watchesOnceSettled(database), 1u);
            EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3), Utf16Le(u"0.5\n" + line3("a")));
        }
        database.close();
    }
}

TEST_F(WatchFolderCacheDatabaseTest, SaveThatCannotWriteFailsButKeepsTheChangeAndItsWatch) {
    Vigil::Watch::Database database;
    database.open(W(data_));
    fs::create_directories(data_ + "WatchFolder.3.cache");  // the current file cannot be opened

    EXPECT_EQ(statusOf([&] {
                  database.addFolders(SequenceGuid(),
                                      {{folder("a"), {1, 1, 0, 0}}, {folder("b"), {0, 1, 1, 0}}});
              }),
              5u);
    ASSERT_EQ(listed(database).size(), 2u);
    EXPECT_EQ(watchesOnceSettled(database), 2u);
    EXPECT_EQ(statusOf([&] { database.removeFolders(SequenceGuid(), {{folder("a"), {}}}); }), 5u);
    ASSERT_EQ(listed(database).size(), 1u);
    EXPECT_EQ(database.activeWatches(), 1u);
    // Removing the last folder leaves an empty table, which writes nothing and so cannot fail.
    EXPECT_EQ(statusOf([&] { database.removeFolders(SequenceGuid(), {{folder("b"), {}}}); }), 0u);
    // Once the file can be written again, the next change writes the whole table.
    fs::remove(data_ + "WatchFolder.3.cache");
    database.addFolders(SequenceGuid(), {{folder("b"), {0, 1, 1, 0}}});
    EXPECT_EQ(bytesOf(Vigil::Watch::kCacheFileName3),
              Utf16Le(u"0.5\n" + line3("b", u"0, 1, 1, 0")));
    database.close();
}

}  // namespace
