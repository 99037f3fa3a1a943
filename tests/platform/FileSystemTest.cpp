#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
namespace Err = Osb::Err;

std::u16string Wide(const std::string& path) { return Osb::Utf8ToUtf16(path); }

TEST(FileSystemTest, WrittenBytesReadBackUnchangedAndWriteEmptiesOldContent) {
    vigil_test::ScratchRoot root;
    const std::u16string path = Wide(root / "f.bin");
    const std::vector<uint8_t> longer(40000, 0x5A);  // more than one read chunk
    ASSERT_EQ(Osb::WriteFileBytes(path, longer), 0u);
    const std::vector<uint8_t> bytes = {0x30, 0x00, 0x0A, 0x00, 0x0D, 0xFF, 0x00};
    ASSERT_EQ(Osb::WriteFileBytes(path, bytes), 0u);

    std::vector<uint8_t> back = {1, 2, 3};
    ASSERT_EQ(Osb::ReadFileBytes(path, back), 0u);
    EXPECT_EQ(back, bytes);

    ASSERT_EQ(Osb::WriteFileBytes(path, longer), 0u);
    ASSERT_EQ(Osb::ReadFileBytes(path, back), 0u);
    EXPECT_EQ(back, longer);
}

TEST(FileSystemTest, FailuresReturnAndRecordWindowsCodes) {
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "dir");
    const std::u16string missing = Wide(root / "missing");
    const std::u16string missingParent = Wide(root / "nope/missing");
    const std::u16string folder = Wide(root / "dir");
    std::u16string withZero = Wide(root / "dir");
    withZero += u'\0';
    withZero += u"x";

    struct Row {
        std::u16string path;
        uint32_t code;
    };
    const Row rows[] = {{missing, Err::kFileNotFound},
                        {missingParent, Err::kPathNotFound},
                        {folder, Err::kAccessDenied},
                        {withZero, Err::kInvalidName}};
    for (const Row& row : rows) {
        SCOPED_TRACE(Osb::Utf16ToUtf8(row.path));
        std::vector<uint8_t> bytes = {7};
        Osb::SetLastError(0);
        EXPECT_EQ(Osb::ReadFileBytes(row.path, bytes), row.code);
        EXPECT_EQ(Osb::ErrorCode(), row.code);
        EXPECT_TRUE(bytes.empty());
        Osb::SetLastError(0);
        EXPECT_EQ(Osb::RemoveFile(row.path), row.code);
        EXPECT_EQ(Osb::ErrorCode(), row.code);
    }
    // The refused removal of a folder leaves it where it was.
    EXPECT_TRUE(fs::is_directory(root / "dir"));
    EXPECT_EQ(Osb::WriteFileBytes(missingParent, std::vector<uint8_t>{1}), Err::kPathNotFound);
    EXPECT_EQ(Osb::WriteFileBytes(folder, std::vector<uint8_t>{1}), Err::kAccessDenied);
}

TEST(FileSystemTest, ExistenceTestSeesFilesAndFoldersOnly) {
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "dir");
    ASSERT_EQ(Osb::WriteFileBytes(Wide(root / "dir/file"), std::vector<uint8_t>{}), 0u);
    fs::create_symlink(root / "gone", root / "dangling");

    struct Row {
        std::string relative;
        bool exists;
        uint32_t code;  // last error when it does not exist
    };
    const Row rows[] = {{"dir", true, 0},
                        {"dir/", true, 0},
                        {"dir/file", true, 0},
                        {"dir/other", false, Err::kFileNotFound},
                        {"nope/other", false, Err::kPathNotFound},
                        {"dangling", false, Err::kFileNotFound}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.relative);
        Osb::SetLastError(0);
        EXPECT_EQ(Osb::PathExists(Wide(root / row.relative)), row.exists);
        EXPECT_EQ(Osb::ErrorCode(), row.code);
    }
    std::u16string withZero = Wide(root / "dir");
    withZero += u'\0';
    EXPECT_FALSE(Osb::PathExists(withZero));
    EXPECT_EQ(Osb::ErrorCode(), Err::kInvalidName);
}

TEST(FileSystemTest, RemoveDeletesTheFileAndAMovedFromFileIsClosed) {
    vigil_test::ScratchRoot root;
    const std::u16string path = Wide(root / "f");
    Osb::File file;
    ASSERT_EQ(file.open(path, Osb::File::Mode::kWrite), 0u);
    Osb::File moved(std::move(file));
    EXPECT_FALSE(file.isOpen());  // NOLINT(bugprone-use-after-move): the state after a move is the point
    size_t got = 1;
    uint8_t buffer[4];
    EXPECT_EQ(file.read(buffer, sizeof(buffer), got), Err::kInvalidHandle);
    EXPECT_EQ(got, 0u);
    ASSERT_EQ(moved.write(std::vector<uint8_t>{1, 2, 3}), 0u);
    EXPECT_EQ(moved.close(), 0u);
    EXPECT_EQ(fs::file_size(root / "f"), 3u);

    EXPECT_EQ(Osb::RemoveFile(path), 0u);
    EXPECT_FALSE(fs::exists(root / "f"));
}

}  // namespace
