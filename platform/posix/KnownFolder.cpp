#include "platform/KnownFolder.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/SystemRoot.h"
#include "platform/Utf.h"

namespace Osb {

uint32_t SHGetFolderPathW(int csidl, uint32_t flags, std::u16string& path) {
    (void)flags;  // no folder is redirected here, so the default and the current path agree
    if (csidl != kCsidlCommonAppData) return kEInvalidArg;
    const std::string folder = CommonAppDataFolder();
    path = Utf8ToUtf16(folder);
    struct stat st;
    if (::stat(folder.c_str(), &st) != 0)
        return errno == ENOENT || errno == ENOTDIR ? kSFalse : kEFail;
    return S_ISDIR(st.st_mode) ? kSOk : kEFail;
}

}  // namespace Osb
