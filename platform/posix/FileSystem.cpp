#include "platform/FileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "platform/posix/FdIo.h"
#include "platform/posix/OwnFolder.h"

namespace Osb {

namespace {

// Converts `path` to the system's form. A zero unit would silently cut the path short at the
// system call, so it is refused here instead (123), as Windows refuses it.
bool NativePath(const std::u16string& path, std::string& out) {
    if (path.find(u'\0') != std::u16string::npos) {
        SetLastError(Err::kInvalidName);
        return false;
    }
    out = Utf16ToUtf8(path);
    return true;
}

// A name that stays inside its folder: one component, not "." or "..".
bool SingleName(const std::u16string& name) {
    return !name.empty() && name != u"." && name != u".." &&
           name.find_first_of(std::u16string_view(u"/\0", 2)) == std::u16string::npos;
}

// Writes all of `bytes` to `fd`; 0 or the code of the failure.
uint32_t WriteBytes(int fd, std::span<const uint8_t> bytes) {
    if (posix::WriteAll(fd, std::string_view(reinterpret_cast<const char*>(bytes.data()),
                                             bytes.size()))) {
        return 0;
    }
    return SetLastErrorFromErrno(errno);
}

}  // namespace

bool PathExists(const std::u16string& path) {
    std::string native;
    if (!NativePath(path, native)) return false;
    if (::access(native.c_str(), F_OK) == 0) return true;
    SetLastErrorFromErrno(errno, native.c_str());
    return false;
}

uint32_t RemoveFile(const std::u16string& path) {
    std::string native;
    if (!NativePath(path, native)) return Err::kInvalidName;
    if (::unlink(native.c_str()) == 0) return 0;
    // unlink of a folder reports EISDIR on Linux, which the table turns into 5 as on Windows.
    return SetLastErrorFromErrno(errno, native.c_str());
}

File::~File() { close(); }

File::File(File&& other) noexcept : handle_(std::exchange(other.handle_, -1)) {}

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        close();
        handle_ = std::exchange(other.handle_, -1);
    }
    return *this;
}

uint32_t File::open(const std::u16string& path, Mode mode) {
    close();
    std::string native;
    if (!NativePath(path, native)) return Err::kInvalidName;
    int flags = O_RDONLY;
    if (mode == Mode::kWrite) flags = O_WRONLY | O_CREAT | O_TRUNC;
    if (mode == Mode::kReadNoLink) flags = O_RDONLY | O_NOFOLLOW;
    int fd;
    do {
        fd = ::open(native.c_str(), flags | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return SetLastErrorFromErrno(errno, native.c_str());
    // Linux lets a folder be opened for reading; Windows refuses it with 5, and so do we, so that a
    // folder that stands where a file is expected is not taken for an empty file.
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd);
        return SetLastErrorFromErrno(EISDIR);
    }
    handle_ = fd;
    return 0;
}

uint32_t File::read(void* buffer, size_t size, size_t& got) {
    got = 0;
    if (handle_ < 0) {
        SetLastError(Err::kInvalidHandle);
        return Err::kInvalidHandle;
    }
    for (;;) {
        const ssize_t n = ::read(handle_, buffer, size);
        if (n >= 0) {
            got = static_cast<size_t>(n);
            return 0;
        }
        if (errno != EINTR) return SetLastErrorFromErrno(errno);
    }
}

uint32_t File::write(std::span<const uint8_t> bytes) {
    if (handle_ < 0) {
        SetLastError(Err::kInvalidHandle);
        return Err::kInvalidHandle;
    }
    return WriteBytes(handle_, bytes);
}

uint32_t File::close() {
    if (handle_ < 0) return 0;
    const int fd = std::exchange(handle_, -1);
    // After close fails the descriptor is gone anyway (Linux), so it is never retried.
    if (::close(fd) != 0 && errno != EINTR) return SetLastErrorFromErrno(errno);
    return 0;
}

uint32_t File::restrictToOwner() {
    if (handle_ < 0) {
        SetLastError(Err::kInvalidHandle);
        return Err::kInvalidHandle;
    }
    struct stat st;
    if (::fstat(handle_, &st) != 0) return SetLastErrorFromErrno(errno);
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid() || st.st_nlink != 1) return 0;
    if ((st.st_mode & 077) == 0) return 0;
    if (::fchmod(handle_, 0600) != 0) return SetLastErrorFromErrno(errno);
    return 0;
}

uint32_t ReadFileBytes(const std::u16string& path, std::vector<uint8_t>& bytes) {
    bytes.clear();
    File file;
    if (const uint32_t status = file.open(path, File::Mode::kRead)) return status;
    uint8_t chunk[16384];
    for (;;) {
        size_t got = 0;
        if (const uint32_t status = file.read(chunk, sizeof(chunk), got)) return status;
        if (got == 0) break;
        bytes.insert(bytes.end(), chunk, chunk + got);
    }
    return file.close();
}

uint32_t WriteFileBytes(const std::u16string& path, std::span<const uint8_t> bytes) {
    File file;
    if (const uint32_t status = file.open(path, File::Mode::kWrite)) return status;
    if (const uint32_t status = file.write(bytes)) return status;
    return file.close();
}

namespace {

// The work of ReplaceFileAtomically inside the folder `dir`.
uint32_t ReplaceIn(int dir, const std::string& target, const std::string& temporary,
                   std::span<const uint8_t> bytes, FileAccess access) {
    // Whatever a crash left there goes first, a planted link included (unlink never follows).
    // Anything that cannot be removed makes the exclusive create below fail.
    ::unlinkat(dir, temporary.c_str(), 0);
    const mode_t mode = access == FileAccess::kOwnerOnly ? 0600 : 0644;
    int fd;
    do {
        fd = ::openat(dir, temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return SetLastErrorFromErrno(errno);

    // The umask may have taken bits off the mode given to openat; the descriptor gets it whole.
    uint32_t code = 0;
    if (::fchmod(fd, mode) != 0) code = SetLastErrorFromErrno(errno);
    if (code == 0) code = WriteBytes(fd, bytes);
    // Flushed before the rename: otherwise a power cut could leave the new name on a file whose
    // blocks never reached the disk.
    if (code == 0 && ::fsync(fd) != 0) code = SetLastErrorFromErrno(errno);
    if (::close(fd) != 0 && code == 0 && errno != EINTR) code = SetLastErrorFromErrno(errno);
    if (code == 0 && ::renameat(dir, temporary.c_str(), dir, target.c_str()) != 0) {
        code = SetLastErrorFromErrno(errno);
    }
    if (code != 0) {
        ::unlinkat(dir, temporary.c_str(), 0);
        return code;
    }
    // The rename lives in the folder's own blocks.
    if (::fsync(dir) != 0) return SetLastErrorFromErrno(errno);
    return 0;
}

}  // namespace

uint32_t ReplaceFileAtomically(const std::u16string& folder, const std::u16string& name,
                               const std::u16string& temporaryName, std::span<const uint8_t> bytes,
                               FileAccess access) {
    std::string folderNative;
    if (!SingleName(name) || !SingleName(temporaryName) || name == temporaryName ||
        !NativePath(folder, folderNative)) {
        SetLastError(Err::kInvalidName);
        return Err::kInvalidName;
    }
    const std::string target = Utf16ToUtf8(name);
    const std::string temporary = Utf16ToUtf8(temporaryName);
    // A file where the folder should be reads as a missing folder, as opening a path through it
    // would.
    const int dir = posix::OpenOwnFolder(folderNative, folderNative + "/" + target,
                                         Err::kPathNotFound);
    if (dir < 0) return ErrorCode();
    const uint32_t code = ReplaceIn(dir, target, temporary, bytes, access);
    ::close(dir);
    return code;
}

}  // namespace Osb
