#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/KnownFolder.h"
#include "platform/Utf.h"
#include "service/VigilDataFolder.h"
#include "tests/support/ScratchRoot.h"

namespace Vigil {
namespace {

namespace fs = std::filesystem;

// A stand-in for the system: what the folder query answers, which paths exist, and the error that
// CreateDirectoryW gives for each level (0 for success). Every call is recorded.
struct FakeSystem {
    static inline uint32_t queryResult = Osb::kSOk;
    static inline bool folderExists = false;
    static inline std::vector<uint32_t> createErrors;
    static inline std::vector<std::u16string> created;

    static DataFolderCalls calls() {
        return {
            [](std::u16string& path) {
                path = u"/sys";
                return queryResult;
            },
            [](const std::u16string&) { return folderExists; },
            [](const std::u16string& path) {
                const size_t index = created.size();
                created.push_back(path);
                const uint32_t error = index < createErrors.size() ? createErrors[index] : 0;
                if (error != 0) Osb::SetLastError(error);
                return error == 0;
            },
        };
    }
    static void reset(uint32_t result, bool exists, std::vector<uint32_t> errors) {
        queryResult = result;
        folderExists = exists;
        createErrors = std::move(errors);
        created.clear();
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
    }
}

TEST(DataFolderTest, CreatesEachLevelInTurnAndToleratesOnlyExistingOrInvalidNames) {
    const std::vector<std::u16string> levels = {u"/sys/Orvanta", u"/sys/Orvanta/Mirelle Studio",
                                                u"/sys/Orvanta/Mirelle Studio/File Agent"};
    const struct {
        std::vector<uint32_t> errors;
        uint32_t status;
        size_t calls;
    } cases[] = {
        {{}, 0, 3},
        {{Osb::Err::kAlreadyExists}, 0, 3},
        {{Osb::Err::kAlreadyExists, Osb::Err::kInvalidName, Osb::Err::kAlreadyExists}, 0, 3},
        {{Osb::Err::kAccessDenied}, Osb::Err::kAccessDenied, 1},
        {{0, Osb::Err::kDiskFull}, Osb::Err::kDiskFull, 2},
        {{0, 0, Osb::Err::kPathNotFound}, Osb::Err::kPathNotFound, 3},
    };
    for (const auto& c : cases) {
        FakeSystem::reset(Osb::kSOk, false, c.errors);
        EXPECT_EQ(StatusOf(FakeSystem::calls()), c.status);
        ASSERT_EQ(FakeSystem::created.size(), c.calls);
        for (size_t i = 0; i < c.calls; ++i) EXPECT_EQ(FakeSystem::created[i], levels[i]);
    }
    FakeSystem::reset(Osb::kSOk, false, {});
    EXPECT_EQ(DataFolderWith(FakeSystem::calls()), u"/sys/Orvanta/Mirelle Studio/File Agent/");
}

TEST(DataFolderTest, ExistingFolderIsReturnedWithoutCreatingAnything) {
    FakeSystem::reset(Osb::kSOk, true, {Osb::Err::kAccessDenied});
    EXPECT_EQ(DataFolderWith(FakeSystem::calls()), u"/sys/Orvanta/Mirelle Studio/File Agent/");
    EXPECT_TRUE(FakeSystem::created.empty());
}

TEST(DataFolderTest, OnADiskCreatesTheMissingLevelsBelowTheSystemFolder) {
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "var/lib/Orvanta");
    const std::u16string expected =
        Osb::Utf8ToUtf16(root / "var/lib/Orvanta/Mirelle Studio/File Agent/");
    EXPECT_EQ(DataFolderWith(DataFolderCalls::system()), expected);
    EXPECT_TRUE(fs::is_directory(root / "var/lib/Orvanta/Mirelle Studio/File Agent"));
    // The second run finds the whole path.
    EXPECT_EQ(DataFolderWith(DataFolderCalls::system()), expected);
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
