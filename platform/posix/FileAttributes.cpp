#include <sys/stat.h>
#include <unistd.h>

#include "platform/DirectoryChanges.h"
#include "platform/Utf.h"

namespace Osb {

uint32_t GetFileAttributes(const std::u16string& path) {
    std::string p = Utf16ToUtf8(path);
    struct stat st;
    if (::lstat(p.c_str(), &st) != 0) return kInvalidFileAttributes;
    uint32_t attributes = 0;
    if (S_ISDIR(st.st_mode)) attributes |= 0x10;
    if (S_ISLNK(st.st_mode)) attributes |= 0x400;
    std::string trimmed = p;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    auto slash = trimmed.rfind('/');
    std::string last = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    if (!last.empty() && last[0] == '.') attributes |= 0x02;
    if ((st.st_mode & S_IWUSR) == 0) attributes |= 0x01;
    return attributes == 0 ? 0x80 : attributes;
}

}  // namespace Osb
