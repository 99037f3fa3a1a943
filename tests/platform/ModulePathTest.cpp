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

TEST(ModulePathTest, PathAndFolderAreTheRunningExecutables) {
    const std::u16string expected = ExpectedPath();
    EXPECT_EQ(Osb::ModuleFileName(), expected);
    EXPECT_EQ(Osb::ModuleFolder(), expected.substr(0, expected.rfind(u'/')));
}

// A buffer with room for the path and its NUL gets both and the length. A smaller one gets the
// path cut to the room less one and terminated, and the call returns the room with 122.
TEST(ModulePathTest, BufferGetsPathOrCutTerminatedPath) {
    const std::u16string expected = ExpectedPath();
    const uint32_t size = static_cast<uint32_t>(expected.size());
    for (const uint32_t room : {1u, 4u, size, size + 1, size + 10}) {
        std::vector<char16_t> buffer(room + 1, u'x');
        Osb::SetLastError(Osb::Err::kAccessDenied);
        const uint32_t result = Osb::GetModuleFileNameW(buffer.data(), room);
        const bool fits = room > size;
        EXPECT_EQ(result, fits ? size : room) << room;
        EXPECT_EQ(Osb::ErrorCode(), fits ? Osb::Err::kSuccess : Osb::Err::kInsufficientBuffer);
        EXPECT_EQ(std::u16string(buffer.data()), expected.substr(0, fits ? size : room - 1));
        EXPECT_EQ(buffer[room], u'x') << "wrote past the buffer with room " << room;
    }
}

}  // namespace
