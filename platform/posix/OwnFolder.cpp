#include "platform/posix/OwnFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/ErrorCode.h"

namespace Osb::posix {

int OpenOwnFolder(std::string folder, const std::string& errorPath, uint32_t notFolderCode) {
    // O_NOFOLLOW looks at the last component only, and a separator behind it would have the
    // system follow a link there after all.
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (folder.empty()) {
        SetLastError(Err::kPathNotFound);
        return -1;
    }
    int fd;
    do {
        fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        const int err = errno;
        struct stat st;
        // Linux answers ENOTDIR for a link as for a file; only lstat tells them apart.
        if ((err == ENOTDIR || err == ELOOP) && ::lstat(folder.c_str(), &st) == 0) {
            if (S_ISLNK(st.st_mode)) {
                SetLastErrorFromErrno(EACCES, folder.c_str());
            } else {
                SetLastError(notFolderCode);
            }
        } else {
            SetLastErrorFromErrno(err, errorPath.c_str());
        }
        return -1;
    }
    struct stat st;
    const bool statted = ::fstat(fd, &st) == 0;
    if (!statted || st.st_uid != ::geteuid()) {
        SetLastErrorFromErrno(statted ? EACCES : errno, folder.c_str());
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace Osb::posix
