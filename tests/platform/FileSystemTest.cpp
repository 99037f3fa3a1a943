#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/FileSystem.h"
#include "platform/Utf.h"
#include "tests/support/FileNamesIn.h"
#include "tests/support/ScopedUmask.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
namespace Err = Osb::Err;

std::u16string Wide(const std::string& path) { return Osb::Utf8ToUtf16(path); }

TEST(FileSystemTest, WriteEmptiesOldContentAndBytesReadBackUnchanged) {
    vigil_test::ScratchRoot root;
    const std::u16string path = Wide(root / "f.bin");
    const std::vector<uint8_t> longer(40000, 0x5A);  // more than one read chunk
    const std::vector<uint8_t> bytes = {0x30, 0x00, 0x0A, 0x00, 0x0D, 0xFF, 0x00};
    for (const auto* content : {&longer, &bytes, &longer}) {
        ASSERT_EQ(Osb::WriteFileBytes(path, *content), 0u);
        std::vector<uint8_t> back = {1, 2, 3};
        ASSERT_EQ(Osb::ReadFileBytes(path, back), 0u);
        EXPECT_EQ(back, *content);
    }
    EXPECT_TRUE(Osb::PathExists(path));
    EXPECT_EQ(Osb::RemoveFile(path), 0u);
    EXPECT_FALSE(fs::exists(root / "f.bin"));
}

TEST(FileSystemTest, FailuresReturnAndRecordWindowsCodes) {
    vigil_test::ScratchRoot root;
    fs::create_directories(root / "dir");
    fs::create_symlink(root / "gone", root / "dangling");
    std::u16string withZero = Wide(root / "dir");
    withZero += u'\0';

    struct Row {
        std::u16string path;
        bool exists;
        uint32_t readCode;  // also the code of the existence test and of a removal
    };
    const Row rows[] = {{Wide(root / "missing"), false, Err::kFileNotFound},
                        {Wide(root / "nope/missing"), false, Err::kPathNotFound},
                        {Wide(root / "dangling"), false, Err::kFileNotFound},
                        {Wide(root / "dir/"), true, Err::kAccessDenied},  // a folder is no file
                        {withZero, false, Err::kInvalidName}};
    for (const Row& row : rows) {
        SCOPED_TRACE(Osb::Utf16ToUtf8(row.path));
        Osb::SetLastError(0);
        EXPECT_EQ(Osb::PathExists(row.path), row.exists);
        EXPECT_EQ(Osb::ErrorCode(), row.exists ? 0u : row.readCode);
        std::vector<uint8_t> bytes = {7};
        EXPECT_EQ(Osb::ReadFileBytes(row.path, bytes), row.readCode);
        EXPECT_EQ(Osb::ErrorCode(), row.readCode);
        EXPECT_TRUE(bytes.empty());
        if (row.path != Wide(root / "dangling")) {  // unlink removes the link itself
            EXPECT_EQ(Osb::RemoveFile(row.path), row.readCode);
            EXPECT_EQ(Osb::WriteFileBytes(row.path, std::vector<uint8_t>{1}),
                      row.readCode == Err::kFileNotFound ? 0u : row.readCode);
        }
    }
    EXPECT_TRUE(fs::is_directory(root / "dir"));

    Osb::File closed;
    size_t got = 1;
    uint8_t buffer[4];
    EXPECT_EQ(closed.read(buffer, sizeof(buffer), got), Err::kInvalidHandle);
    EXPECT_EQ(got, 0u);
}

TEST(FileSystemTest, AtomicReplacementSetsTheRightsWhateverTheUmaskAndTakesSingleNamesOnly) {
    vigil_test::ScratchRoot root;
    const std::u16string folder = Wide(root.path() + "/");
    const std::vector<uint8_t> bytes = {1, 2, 3};
    struct Row {
        mode_t umask;
        Osb::FileAccess access;
        int mode;
    };
    const Row rows[] = {{0, Osb::FileAccess::kOwnerOnly, 0600},
                        {0, Osb::FileAccess::kOthersRead, 0644},
                        {077, Osb::FileAccess::kOthersRead, 0644},
                        {0777, Osb::FileAccess::kOwnerOnly, 0600}};
    for (const Row& row : rows) {
        const vigil_test::ScopedUmask mask(row.umask);
        ASSERT_EQ(Osb::ReplaceFileAtomically(folder, u"f", u"f.tmp", bytes, row.access), 0u);
        EXPECT_EQ(vigil_test::ModeOf((root / "f").c_str()), row.mode);
        std::vector<uint8_t> back;
        EXPECT_EQ(Osb::ReadFileBytes(Wide(root / "f"), back), 0u);
        EXPECT_EQ(back, bytes);
    }
    for (const std::u16string& bad : {std::u16string(u"a/f"), std::u16string(u""),
                                      std::u16string(u".."), std::u16string(u"f\0", 2)}) {
        EXPECT_EQ(Osb::ReplaceFileAtomically(folder, bad, u"f.tmp", bytes,
                                             Osb::FileAccess::kOwnerOnly),
                  Err::kInvalidName);
        EXPECT_EQ(Osb::ReplaceFileAtomically(folder, u"f", bad, bytes,
                                             Osb::FileAccess::kOwnerOnly),
                  Err::kInvalidName);
    }
    EXPECT_EQ(Osb::ReplaceFileAtomically(folder, u"f", u"f", bytes, Osb::FileAccess::kOwnerOnly),
              Err::kInvalidName);
    EXPECT_EQ(vigil_test::FileNamesIn(root.path()), (std::set<std::string>{"f", "var"}));
}

}  // namespace
