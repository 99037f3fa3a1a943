#include "platform/Directory.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {

bool CreateDirectoryW(const std::u16string& path) {
    if (path.find(u'\0') != std::u16string::npos) {
        SetLastError(Err::kInvalidName);
        return false;
    }
    const std::string narrow = Utf16ToUtf8(path);
    if (::mkdir(narrow.c_str(), 0755) == 0) return true;
    SetLastErrorFromErrno(errno, narrow.c_str());
    return false;
}

}  // namespace Osb
