#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/KnownFolder.h"
#include "platform/Utf.h"
#include "service/VigilDataFolder.h"
#include "tests/support/ScopedUmask.h"
#include "tests/support/ScratchRoot.h"

namespace Vigil {
namespace {

namespace fs = std::filesystem;

// A stand-in for the system: what the folder query answers, which paths exist, the error that
// CreateDirectoryW gives for each level (0 for success) and what the privacy check answers. Every
// call is recorded; a level made private is recorded with a closing "!".
struct FakeSystem {
    static inline uint32_t queryResult = Osb::kSOk;
    static inline bool folderExists = false;
    static inline std::vector<uint32_t> createErrors;
    static inline std::vector<std::u16string> created;
    static inline uint32_t privateResult = 0;
    static inline std::vector<std::u16string> madePrivate;

    static bool create(const std::u16string& path) {
        const size_t index = created.size();
        created.push_back(path);
        const uint32_t error = index < createErrors.size() ? createErrors[index] : 0;
        if (error != 0) Osb::SetLastError(error);
        return error == 0;
    }
    static DataFolderCalls calls() {
        return {
            [](std::u16string& path) {
                path = u"/sys";
                return queryResult;
            },
            [](const std::u16string&) { return folderExists; },
            [](const std::u16string& path) { return create(path); },
            [](const std::u16string& path) { return create(path + u"!"); },
            [](const std::u16string& path) {
                madePrivate.push_back(path);
                return privateResult;
            },
        };
    }
    static void reset(uint32_t result, bool exists, std::vector<uint32_t> errors,
                      uint32_t privacy = 0) {
        queryResult = result;
        folderExists = exists;
        createErrors = std::move(errors);
        created.clear();
        privateResult = privacy;
        madePrivate.clear();
    }
};

uint32_t StatusOf(const DataFolderCalls& calls) {
    try {
        DataFolderWith(calls);
    } catch (const Osb::ExSystem& e) {
        return e.status();
    }
    return 0;
}

TEST(DataFolderTest, FolderQueryFailuresMapTo161Or160) {
    const struct {
        uint32_t result;
        uint32_t status;
    } cases[] = {
        {Osb::kSFalse, Osb::Err::kBadPathname},
        {Osb::kEFail, Osb::Err::kBadPathname},
        {Osb::kEInvalidArg, Osb::Err::kBadArguments},
        {0x80070005, Osb::Err::kBadArguments},
    };
    for (const auto& c : cases) {
        FakeSystem::reset(c.result, false, {});
        EXPECT_EQ(StatusOf(FakeSystem::calls()), c.status) << std::hex << c.result;
        EXPECT_TRUE(FakeSystem::created.empty());
        EXPECT_TRUE(FakeSystem::madePrivate.empty());
    }
}

TEST(DataFolderTest, CreatesEachLevelInTurnAndToleratesOnlyExistingOrInvalidNames) {
    // The data folder itself is made private; the levels above it are not.
    const std::vector<std::u16string> levels = {u"/sys/Orvanta", u"/sys/Orvanta/Mirelle Studio",
                                                u"/sys/Orvanta/Mirelle Studio/File Agent!"};
    const struct {
        std::vector<uint32_t> errors;
        uint32_t status;
        size_t calls;
        bool exists = false;
    } cases[] = {
        {{Osb::Err::kAccessDenied}, 0, 0, true},  // found: checked, nothing created
        {{}, 0, 3},
        {{Osb::Err::kAlreadyExists}, 0, 3},
        {{Osb::Err::kAlreadyExists, Osb::Err::kInvalidName, Osb::Err::kAlreadyExists}, 0, 3},
        {{Osb::Err::kAccessDenied}, Osb::Err::kAccessDenied, 1},
        {{0, Osb::Err::kDiskFull}, Osb::Err::kDiskFull, 2},
        {{0, 0, Osb::Err::kPathNotFound}, Osb::Err::kPathNotFound, 3},
    };
    for (const auto& c : cases) {
        FakeSystem::reset(Osb::kSOk, c.exists, c.errors);
        EXPECT_EQ(StatusOf(FakeSystem::calls()), c.status);
        ASSERT_EQ(FakeSystem::created.size(), c.calls);
        for (size_t i = 0; i < c.calls; ++i) EXPECT_EQ(FakeSystem::created[i], levels[i]);
        // Only a folder that is there, made or found, is checked.
        EXPECT_EQ(FakeSystem::madePrivate,
                  c.status == 0
                      ? std::vector<std::u16string>{u"/sys/Orvanta/Mirelle Studio/File Agent/"}
                      : std::vector<std::u16string>{});
    }
    FakeSystem::reset(Osb::kSOk, false, {});
    EXPECT_EQ(DataFolderWith(FakeSystem::calls()), u"/sys/Orvanta/Mirelle Studio/File Agent/");
}

TEST(DataFolderTest, AFolderThatCannotBeMadePrivateStopsTheStartAndIsNamed) {
    for (const bool exists : {true, false}) {
        for (const uint32_t code : {Osb::Err::kAccessDenied, Osb::Err::kDirectory}) {
            FakeSystem::reset(Osb::kSOk, exists, {}, code);
            try {
                DataFolderWith(FakeSystem::calls());
                ADD_FAILURE() << "no exception";
            } catch (const Osb::ExSystem& e) {
                EXPECT_EQ(e.status(), code);
                ASSERT_EQ(e.depth(), 2);
                EXPECT_NE(e.reason(1).what().find(u"/sys/Orvanta/Mirelle Studio/File Agent/"),
                          std::u16string::npos);
            }
        }
    }
}

// Every level is made on the first run and found on the next ones.
TEST(DataFolderTest, OnADiskTheDataFolderIsPrivateWhateverTheUmaskAndItsParentsAreNot) {
    const vigil_test::ScopedUmask openMask(0);
    vigil_test::ScratchRoot root;
    const std::string data = root / "var/lib/Orvanta/Mirelle Studio/File Agent";
    EXPECT_EQ(DataFolderWith(DataFolderCalls::system()), Osb::Utf8ToUtf16(data + "/"));
    EXPECT_EQ(vigil_test::ModeOf((root / "var/lib/Orvanta").c_str()), 0755);
    EXPECT_EQ(vigil_test::ModeOf((root / "var/lib/Orvanta/Mirelle Studio").c_str()), 0755);
    EXPECT_EQ(vigil_test::ModeOf(data.c_str()), 0700);
    // A folder that an older version left open to everybody is closed at the next start.
    for (const fs::perms loose : {fs::perms::all, fs::perms(0755), fs::perms(0500)}) {
        fs::permissions(data, loose);
        EXPECT_EQ(DataFolderWith(DataFolderCalls::system()), Osb::Utf8ToUtf16(data + "/"));
        EXPECT_EQ(vigil_test::ModeOf(data.c_str()), 0700);
    }
}

TEST(DataFolderTest, OnADiskALinkAFileOrAnotherUsersFolderIsRefusedAndLeftAlone) {
    struct Row {
        const char* what;
        uint32_t status;
    };
    const Row rows[] = {
        {"a symbolic link to a folder", Osb::Err::kAccessDenied},
        {"a dangling symbolic link", Osb::Err::kAccessDenied},
        {"a folder of another user", Osb::Err::kAccessDenied},
        {"a file", Osb::Err::kDirectory},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        vigil_test::ScratchRoot root;
        const std::string parent = root / "var/lib/Orvanta/Mirelle Studio";
        const std::string data = parent + "/File Agent";
        const std::string target = root / "elsewhere";
        fs::create_directories(parent);
        const std::string kind = row.what;
        if (kind == "a symbolic link to a folder") {
            fs::create_directories(target);
            fs::permissions(target, fs::perms(0755));
            fs::create_directory_symlink(target, data);
        } else if (kind == "a dangling symbolic link") {
            fs::create_directory_symlink(target, data);
        } else if (kind == "a folder of another user") {
            fs::create_directories(data);
            fs::permissions(data, fs::perms(0777));
            ASSERT_EQ(::chown(data.c_str(), 65534, 65534), 0);
        } else {
            std::FILE* f = std::fopen(data.c_str(), "w");
            ASSERT_NE(f, nullptr);
            std::fclose(f);
            fs::permissions(data, fs::perms(0644));
        }
        const int before = vigil_test::ModeOf(data.c_str());
        try {
            DataFolderWith(DataFolderCalls::system());
            ADD_FAILURE() << "no exception";
        } catch (const Osb::ExSystem& e) {
            EXPECT_EQ(e.status(), row.status);
            ASSERT_EQ(e.depth(), 2);
            EXPECT_NE(Osb::Utf16ToUtf8(e.reason(1).what()).find(data), std::string::npos);
        }
        // Nothing was followed, created or changed.
        EXPECT_EQ(vigil_test::ModeOf(data.c_str()), before);
        if (kind == "a symbolic link to a folder") {
            EXPECT_EQ(vigil_test::ModeOf(target.c_str()), 0755);
            EXPECT_TRUE(fs::is_empty(target));
        }
        if (kind == "a dangling symbolic link") {
            EXPECT_FALSE(fs::exists(target));
        }
    }
}

TEST(DataFolderTest, OnADiskAMissingOrBlockedSystemFolderFails) {
    vigil_test::ScratchRoot root;
    fs::remove(root / "var/lib");
    EXPECT_EQ(StatusOf(DataFolderCalls::system()), Osb::Err::kBadPathname);
    EXPECT_FALSE(fs::exists(root / "var/lib"));
    {
        std::FILE* blocker = std::fopen((root / "var/lib").c_str(), "w");
        ASSERT_NE(blocker, nullptr);
        std::fclose(blocker);
    }
    EXPECT_EQ(StatusOf(DataFolderCalls::system()), Osb::Err::kBadPathname);
    fs::remove(root / "var/lib");
    fs::create_directories(root / "var/lib");
    // A file where a level should be: creating the level below it fails with the system's code.
    {
        std::FILE* f = std::fopen((root / "var/lib/Orvanta").c_str(), "w");
        std::fclose(f);
    }
    EXPECT_EQ(StatusOf(DataFolderCalls::system()), Osb::Err::kPathNotFound);
}

}  // namespace
}  // namespace Vigil
