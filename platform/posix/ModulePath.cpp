#include "platform/ModulePath.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {

namespace {

// readlink gives no length up front and does not say whether it cut the text, so the buffer grows
// until the answer is shorter than the room offered.
bool ReadExeLink(std::string& out) {
    std::string buffer(256, '\0');
    for (;;) {
        const ssize_t got = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (got < 0) {
            SetLastErrorFromErrno(errno);
            return false;
        }
        if (static_cast<size_t>(got) < buffer.size()) {
            buffer.resize(static_cast<size_t>(got));
            out = std::move(buffer);
            return true;
        }
        buffer.resize(buffer.size() * 2);
    }
}

}  // namespace

std::u16string ModuleFileName() {
    std::string path;
    if (!ReadExeLink(path)) return {};
    return Utf8ToUtf16(path);
}

uint32_t GetModuleFileNameW(char16_t* buffer, uint32_t size) {
    const std::u16string path = ModuleFileName();
    if (path.empty()) return 0;
    if (buffer == nullptr || size == 0) {
        SetLastError(Err::kInsufficientBuffer);
        return size;
    }
    if (path.size() < size) {
        std::copy(path.begin(), path.end(), buffer);
        buffer[path.size()] = u'\0';
        SetLastError(Err::kSuccess);
        return static_cast<uint32_t>(path.size());
    }
    std::copy_n(path.begin(), size - 1, buffer);
    buffer[size - 1] = u'\0';
    SetLastError(Err::kInsufficientBuffer);
    return size;
}

std::u16string ModuleFolder() {
    std::u16string path = ModuleFileName();
    const size_t slash = path.rfind(u'/');
    path.resize(slash == std::u16string::npos ? 0 : slash);
    return path;
}

}  // namespace Osb
