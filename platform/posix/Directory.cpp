#include "platform/Directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "platform/posix/OwnFolder.h"

namespace Osb {

namespace {

bool MakeDirectory(const std::u16string& path, mode_t mode) {
    if (path.find(u'\0') != std::u16string::npos) {
        SetLastError(Err::kInvalidName);
        return false;
    }
    const std::string narrow = Utf16ToUtf8(path);
    if (::mkdir(narrow.c_str(), mode) == 0) return true;
    SetLastErrorFromErrno(errno, narrow.c_str());
    return false;
}

}  // namespace

bool CreateDirectoryW(const std::u16string& path) { return MakeDirectory(path, 0755); }

bool CreatePrivateDirectory(const std::u16string& path) { return MakeDirectory(path, 0700); }

uint32_t MakeFolderPrivate(const std::u16string& path) {
    if (path.find(u'\0') != std::u16string::npos) {
        SetLastError(Err::kInvalidName);
        return Err::kInvalidName;
    }
    const std::string narrow = Utf16ToUtf8(path);
    // Checked and changed through one descriptor, so that what is checked is what is changed.
    const int fd = posix::OpenOwnFolder(narrow, narrow, Err::kDirectory);
    if (fd < 0) return ErrorCode();
    struct stat st;
    uint32_t code = 0;
    if (::fstat(fd, &st) != 0) {
        code = SetLastErrorFromErrno(errno, narrow.c_str());
    } else if ((st.st_mode & 07777) != 0700 && ::fchmod(fd, 0700) != 0) {
        code = SetLastErrorFromErrno(errno, narrow.c_str());
    }
    ::close(fd);
    return code;
}

}  // namespace Osb
