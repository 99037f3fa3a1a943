#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/ModulePath.h"
#include "platform/Utf.h"

namespace {

// The path the kernel reports for this test binary, independently of the code under test.
std::u16string ExpectedPath() {
    return Osb::Utf8ToUtf16(std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(ModulePathTest, FullPathIsTheRunningExecutable) {
    const std::u16string path = Osb::ModuleFileName();
    EXPECT_EQ(path, ExpectedPath());
    EXPECT_EQ(path.front(), u'/');
}

TEST(ModulePathTest, FolderIsThePathUpToItsLastSlash) {
    const std::u16string path = ExpectedPath();
    const std::u16string folder = Osb::ModuleFolder();
    EXPECT_EQ(folder, path.substr(0, path.rfind(u'/')));
    EXPECT_TRUE(std::filesystem::is_directory(Osb::Utf16ToUtf8(folder)));
}

TEST(ModulePathTest, BufferLargeEnoughGetsPathAndLength) {
    const std::u16string expected = ExpectedPath();
    std::vector<char16_t> buffer(expected.size() + 1, u'x');
    Osb::SetLastError(Osb::Err::kAccessDenied);
    const uint32_t length =
        Osb::GetModuleFileNameW(buffer.data(), static_cast<uint32_t>(buffer.size()));
    EXPECT_EQ(length, expected.size());
    EXPECT_EQ(std::u16string(buffer.data()), expected);
    EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kSuccess);
}

// Windows cuts the path to the room less one, terminates it, and returns the room with 122.
TEST(ModulePathTest, ShortBufferGetsCutTerminatedPath) {
    const std::u16string expected = ExpectedPath();
    for (const uint32_t room : {1u, 4u, static_cast<uint32_t>(expected.size())}) {
        std::vector<char16_t> buffer(room + 1, u'x');
        const uint32_t result = Osb::GetModuleFileNameW(buffer.data(), room);
        EXPECT_EQ(result, room);
        EXPECT_EQ(Osb::ErrorCode(), Osb::Err::kInsufficientBuffer);
        EXPECT_EQ(std::u16string(buffer.data()), expected.substr(0, room - 1)) << room;
        EXPECT_EQ(buffer[room], u'x') << "wrote past the buffer with room " << room;
    }
}

}  // namespace
