#include "platform/FileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

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
    const int flags = mode == Mode::kRead ? O_RDONLY : (O_WRONLY | O_CREAT | O_TRUNC);
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
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(handle_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        // A write that moves nothing would loop forever; the only cause is a full device.
        if (n <= 0) return SetLastErrorFromErrno(n == 0 ? ENOSPC : errno);
        done += static_cast<size_t>(n);
    }
    return 0;
}

uint32_t File::close() {
    if (handle_ < 0) return 0;
    const int fd = std::exchange(handle_, -1);
    // After close fails the descriptor is gone anyway (Linux), so it is never retried.
    if (::close(fd) != 0 && errno != EINTR) return SetLastErrorFromErrno(errno);
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

}  // namespace Osb
