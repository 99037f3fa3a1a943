#include <gtest/gtest.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "tests/support/RunAsUser.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
namespace Err = Osb::Err;


TEST(SystemRootTest, RootComesFromTheEnvironmentWithoutTrailingSlash) {
    struct Row {
        const char* variable;
        std::string root;
    };
    const Row rows[] = {
        {nullptr, ""},
        {"", ""},
        {"/", ""},
        {"//", ""},
        {"/srv/root", "/srv/root"},
        {"/srv/root/", "/srv/root"},
        {"/srv/root//", "/srv/root"},
    };
    for (const Row& row : rows) {
        vigil_test::ScopedEnv variable("VIGIL_SYSTEM_ROOT", row.variable);
        EXPECT_EQ(Osb::SystemRoot(), row.root) << (row.variable ? row.variable : "(unset)");
        EXPECT_EQ(Osb::CommonAppDataFolder(), row.root + "/var/lib");
    }
}

TEST(SystemRootTest, PipeNamesBecomeSocketPaths) {
    vigil_test::ScratchRoot root;
    const std::string folder = root / "run/orvanta/pipe/";
    struct Row {
        std::u16string name;
        std::string path;
    };
    const Row rows[] = {
        {u"\\\\.\\pipe\\Orvanta Vigil Watch 14.0", folder + "Orvanta Vigil Watch 14.0"},
        {u"\\\\.\\PIPE\\Orvanta", folder + "Orvanta"},
        {u"\\\\.\\Pipe\\x", folder + "x"},
        {u"Orvanta Vigil Watch 14.0", folder + "Orvanta Vigil Watch 14.0"},
        // Only one leading prefix is taken off; what remains is the name.
        {u"\\\\.\\pipe\\\\\\.\\pipe\\x", folder + "\\\\.\\pipe\\x"},
        {u"\\\\.\\pip\\x", folder + "\\\\.\\pip\\x"},
        {u"a\\b", folder + "a\\b"},
        {u"Caf\u00e9 \u65e5\u672c", folder + "Caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac"},
        {u"...", folder + "..."},
    };
    for (const Row& row : rows) {
        std::string path = "unchanged";
        EXPECT_EQ(Osb::PipeSocketPath(row.name, path), Err::kSuccess) << row.path;
        EXPECT_EQ(path, row.path);
    }
}

TEST(SystemRootTest, PipeNamesThatAreNoSingleNameAreRefused) {
    vigil_test::ScratchRoot root;
    for (const std::u16string& name :
         {std::u16string(), std::u16string(u"\\\\.\\pipe\\"), std::u16string(u"\\\\.\\PIPE\\"),
          std::u16string(u"a/b"), std::u16string(u"\\\\.\\pipe\\a/b"), std::u16string(u"/"),
          std::u16string(u"a\0b", 3), std::u16string(u"\0", 1), std::u16string(u"."),
          std::u16string(u"..")}) {
        std::string path = "unchanged";
        EXPECT_EQ(Osb::PipeSocketPath(name, path), Err::kInvalidName);
        EXPECT_EQ(path, "unchanged");
    }
}

TEST(SystemRootTest, SocketPathMustFitTheSocketAddress) {
    vigil_test::ScratchRoot root;
    const size_t limit = sizeof(sockaddr_un{}.sun_path) - 1;  // the terminating NUL needs a byte
    const std::string folder = root / "run/orvanta/pipe/";
    ASSERT_LT(folder.size() + 2, limit);
    const size_t longest = limit - folder.size();

    std::string path;
    const std::u16string fits(longest, u'n');
    ASSERT_EQ(Osb::PipeSocketPath(fits, path), Err::kSuccess);
    EXPECT_EQ(path.size(), limit);
    EXPECT_EQ(Osb::PipeSocketPath(u"\\\\.\\pipe\\" + fits, path), Err::kSuccess);

    path = "unchanged";
    EXPECT_EQ(Osb::PipeSocketPath(fits + u"n", path), Err::kFilenameExcedRange);
    EXPECT_EQ(path, "unchanged");
    // The limit counts bytes of UTF-8, not units: one unit more than fits in bytes is refused.
    const std::u16string wide = std::u16string(longest - 2, u'n') + u"\u00e9\u00e9";
    EXPECT_EQ(Osb::PipeSocketPath(wide, path), Err::kFilenameExcedRange);
    const std::u16string exact = std::u16string(longest - 2, u'n') + u"\u00e9";
    EXPECT_EQ(Osb::PipeSocketPath(exact, path), Err::kSuccess);
    EXPECT_EQ(path.size(), limit);
}

TEST(SystemRootTest, CreateDirectoriesMakesEveryMissingFolder) {
    vigil_test::ScratchRoot root;
    const std::string deep = root / "run/orvanta/pipe";
    EXPECT_EQ(Osb::CreateDirectories(deep), Err::kSuccess);
    EXPECT_TRUE(fs::is_directory(deep));
    EXPECT_EQ(Osb::CreateDirectories(deep), Err::kSuccess);
    EXPECT_EQ(Osb::CreateDirectories(deep + "/"), Err::kSuccess);
    EXPECT_EQ(Osb::CreateDirectories(root / "a//b///c/"), Err::kSuccess);
    EXPECT_TRUE(fs::is_directory(root / "a/b/c"));
    EXPECT_EQ(Osb::CreateDirectories(root.path()), Err::kSuccess);
    EXPECT_EQ(Osb::CreateDirectories("/"), Err::kSuccess);
}

TEST(SystemRootTest, CreateDirectoriesReportsWhatStandsInTheWay) {
    vigil_test::ScratchRoot root;
    std::ofstream(root / "file") << "x";
    Osb::SetLastError(0);
    EXPECT_EQ(Osb::CreateDirectories(root / "file"), Err::kAlreadyExists);
    EXPECT_EQ(Osb::ErrorCode(), Err::kAlreadyExists);
    EXPECT_EQ(Osb::CreateDirectories(root / "file/"), Err::kAlreadyExists);
    EXPECT_EQ(Osb::CreateDirectories(root / "file/below/deeper"), Err::kPathNotFound);
    EXPECT_EQ(Osb::ErrorCode(), Err::kPathNotFound);
    EXPECT_TRUE(fs::is_regular_file(root / "file"));

    const std::string tooLong = root / std::string(300, 'n');
    EXPECT_EQ(Osb::CreateDirectories(tooLong), Err::kFilenameExcedRange);
}

// A plain user below a folder it may not write: refused, while the existing folder is no failure.
TEST(SystemRootTest, CreateDirectoriesWhereTheCallerMayNotWriteIsDenied) {
    vigil_test::ScratchRoot root;
    ASSERT_EQ(Osb::CreateDirectories(root / "locked"), Err::kSuccess);
    fs::permissions(root.path(), fs::perms(0755));
    const vigil_test::ChildOutcome outcome = vigil_test::RunAsUser({65534, 65534, {}}, [&] {
        return std::to_string(Osb::CreateDirectories(root / "locked/sub/deeper")) + " " +
               std::to_string(Osb::CreateDirectories(root / "locked"));
    });
    if (outcome.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(outcome.output, std::to_string(Err::kAccessDenied) + " 0");
    EXPECT_FALSE(fs::exists(root / "locked/sub"));
}

}  // namespace
