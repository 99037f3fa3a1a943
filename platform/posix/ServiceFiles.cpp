#include "platform/posix/ServiceFiles.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "platform/posix/FdIo.h"

namespace Osb::Scm {

namespace {

constexpr uint32_t kInvalidData = 13;      // ERROR_INVALID_DATA
constexpr uint32_t kCantAccessFile = 1920;  // ERROR_CANT_ACCESS_FILE
constexpr size_t kMaxNameUnits = 256;

struct Key {
    const char* name;
    std::string ServiceRecord::*text;  // null for the two numbers
};

bool ParseNumber(std::string_view text, uint32_t& value) {
    if (text.empty()) return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// Reads the whole of `path`, a file of the manager's; 0 or a Windows code. One that others may
// read (written before records were made 0600) is narrowed when the caller may change it.
uint32_t ReadFile(const std::string& path, std::string& text) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return SetLastErrorFromErrno(errno == ELOOP ? EACCES : errno, path.c_str());
    struct stat info = {};
    if (::fstat(fd, &info) == 0 && (info.st_mode & 077) != 0 &&
        (info.st_uid == ::geteuid() || ::geteuid() == 0)) {
        [[maybe_unused]] const int narrowed = ::fchmod(fd, 0600);
    }
    text.clear();
    const int err = posix::ReadAll(fd, text);
    ::close(fd);
    return err == 0 ? Err::kSuccess : SetLastErrorFromErrno(err);
}

}  // namespace

bool ValidServiceName(std::u16string_view name) {
    return !name.empty() && name.size() <= kMaxNameUnits &&
           name.find_first_of(std::u16string_view(u"/\\\0", 3)) == std::u16string_view::npos &&
           name != u"." && name != u"..";
}

std::string ServicesFolder() { return SystemRoot() + "/etc/orvanta/services"; }
std::string RunFolder() { return SystemRoot() + "/run/orvanta/services"; }
std::string RecordPath(const std::string& name) { return ServicesFolder() + "/" + name + ".conf"; }
std::string DeleteMarkPath(const std::string& name) {
    return ServicesFolder() + "/" + name + ".delete";
}
std::string EndpointPath(const std::string& name) { return RunFolder() + "/" + name; }
std::string LockPath(const std::string& name) { return RunFolder() + "/" + name + ".lock"; }
std::string StartLockPath(const std::string& name) { return RunFolder() + "/" + name + ".start"; }
std::string LogPath(const std::string& name) {
    return SystemRoot() + "/var/log/orvanta/" + name + ".log";
}

std::string EscapeValue(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (const char c : value) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\\') {
            out += "\\\\";
        } else {
            out += c;
        }
    }
    return out;
}

std::string UnescapeValue(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c != '\\' || i + 1 == text.size()) {
            out += c;
            continue;
        }
        const char next = text[i + 1];
        if (next == 'n') {
            out += '\n';
        } else if (next == 'r') {
            out += '\r';
        } else if (next == '\\') {
            out += '\\';
        } else {
            out += c;  // not an escape the writer makes: keep the backslash, read `next` as text
            continue;
        }
        ++i;
    }
    return out;
}

std::string FormatRecord(const ServiceRecord& record) {
    std::string text;
    text += "DisplayName=" + EscapeValue(record.displayName) + "\n";
    text += "Description=" + EscapeValue(record.description) + "\n";
    text += "BinaryPath=" + EscapeValue(record.binaryPath) + "\n";
    text += "StartType=" + std::to_string(record.startType) + "\n";
    text += "ErrorControl=" + std::to_string(record.errorControl) + "\n";
    text += "Account=" + EscapeValue(record.account) + "\n";
    text += "Dependencies=" + EscapeValue(record.dependencies) + "\n";
    return text;
}

bool ParseRecord(std::string_view text, ServiceRecord& record) {
    static const Key kKeys[] = {
        {"DisplayName", &ServiceRecord::displayName}, {"Description", &ServiceRecord::description},
        {"BinaryPath", &ServiceRecord::binaryPath},   {"Account", &ServiceRecord::account},
        {"Dependencies", &ServiceRecord::dependencies}, {"StartType", nullptr},
        {"ErrorControl", nullptr},
    };
    ServiceRecord parsed;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, equals);
        const std::string_view value = line.substr(equals + 1);
        for (const Key& known : kKeys) {
            if (key != known.name) continue;
            if (known.text != nullptr) {
                parsed.*known.text = UnescapeValue(value);
            } else if (!ParseNumber(value, key == "StartType" ? parsed.startType
                                                              : parsed.errorControl)) {
                return false;
            }
        }
    }
    if (parsed.binaryPath.empty()) return false;
    record = std::move(parsed);
    return true;
}

uint32_t ReadRecord(const std::string& name, ServiceRecord& record) {
    std::string text;
    const uint32_t code = ReadFile(RecordPath(name), text);
    if (code == Err::kFileNotFound || code == Err::kPathNotFound) {
        SetLastError(Err::kServiceDoesNotExist);
        return Err::kServiceDoesNotExist;
    }
    if (code != Err::kSuccess) return code;
    if (!ParseRecord(text, record)) {
        SetLastError(kInvalidData);
        return kInvalidData;
    }
    return Err::kSuccess;
}

uint32_t WriteRecord(const std::string& name, const ServiceRecord& record, bool createNew) {
    const std::string folder = ServicesFolder();
    if (const uint32_t code = CreatePrivateFolder(folder); code != Err::kSuccess) return code;
    // The temporary name starts with a dot and has no ".conf" end, so it never reads as a service.
    std::string temp = folder + "/.tmp-" + name + "-XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return SetLastErrorFromErrno(errno, temp.c_str());
    // mkostemp makes the file 0600, which is what a record keeps: it names an account and a binary
    // that only root and the service's own user need to read.
    const bool written = posix::WriteAll(fd, FormatRecord(record));
    const int writeErr = errno;
    ::close(fd);
    if (!written) {
        ::unlink(temp.c_str());
        return SetLastErrorFromErrno(writeErr);
    }
    const std::string path = RecordPath(name);
    // link() fails when the target exists, where rename() would replace it: that is the one test
    // of existence that two creators cannot both pass.
    const int result = createNew ? ::link(temp.c_str(), path.c_str())
                                 : ::rename(temp.c_str(), path.c_str());
    const int err = errno;
    ::unlink(temp.c_str());
    if (result == 0) return Err::kSuccess;
    if (createNew && err == EEXIST) {
        SetLastError(Err::kServiceExists);
        return Err::kServiceExists;
    }
    return SetLastErrorFromErrno(err, path.c_str());
}

int OpenPrivateFile(const std::string& path, bool append) {
    const int access = append ? O_WRONLY | O_APPEND : O_RDWR;
    const int fd = ::open(path.c_str(), access | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        // O_NOFOLLOW refuses a link with ELOOP, which says nothing useful to the caller.
        const int err = errno == ELOOP ? EACCES : errno;
        SetLastErrorFromErrno(err, path.c_str());
        return -1;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        SetLastError(kCantAccessFile);
        return -1;
    }
    // The mode given to open() counts only for a new file and is cut by the umask anyway; the one
    // set here on the descriptor is what holds. A foreign owner could widen it again at will.
    if (info.st_uid != 0 && info.st_uid != ::geteuid() && ::geteuid() == 0) {
        [[maybe_unused]] const int taken = ::fchown(fd, 0, static_cast<gid_t>(-1));
    }
    if ((info.st_mode & 077) != 0 && ::fchmod(fd, 0600) != 0) {
        const int err = errno;
        ::close(fd);
        SetLastErrorFromErrno(err, path.c_str());
        return -1;
    }
    return fd;
}

uint32_t CreatePrivateFolder(const std::string& path) {
    if (const uint32_t code = CreateDirectories(path); code != Err::kSuccess) return code;
    struct stat info = {};
    if (::stat(path.c_str(), &info) == 0 && (info.st_mode & 022) != 0 &&
        (info.st_uid == ::geteuid() || ::geteuid() == 0)) {
        // A folder others may write lets them swap the manager's files for their own.
        [[maybe_unused]] const int changed = ::chmod(path.c_str(), info.st_mode & 07755);
    }
    return Err::kSuccess;
}

bool InstanceAlive(const std::string& name) {
    const int fd = ::open(LockPath(name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    // Without the file there is no process; a file the caller may not open may well be held.
    if (fd < 0) return errno != ENOENT;
    // A shared lock is refused only while the process holds its exclusive one.
    const bool alive = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return alive;
}

void FinishPendingDeletion(const std::string& name) {
    const std::string mark = DeleteMarkPath(name);
    if (::access(mark.c_str(), F_OK) != 0 || InstanceAlive(name)) return;
    ::unlink(RecordPath(name).c_str());
    ::unlink(mark.c_str());
}

SERVICE_STATUS StoppedStatus() {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    return status;
}

uint32_t CallEndpoint(const std::string& name, const EndpointRequest& request,
                      EndpointReply& reply, int timeoutMs) {
    const std::string path = EndpointPath(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        SetLastError(Err::kFilenameExcedRange);
        return Err::kFilenameExcedRange;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // Non-blocking, so that a full backlog cannot hold the caller: a Unix socket's connect() would
    // wait for room without limit, where this one fails with EAGAIN and is tried again until the
    // deadline.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return SetLastErrorFromErrno(errno);
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint32_t code = Err::kServiceNotActive;
    bool connected = false;
    for (;;) {
        connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        if (connected || (errno != EAGAIN && errno != EINTR)) break;
        if (Clock::now() >= deadline) {
            code = Err::kServiceRequestTimeout;
            break;
        }
        ::poll(nullptr, 0, 5);
    }
    // No socket (ENOENT), or one that nobody listens on any more (ECONNREFUSED), is a service
    // that does not run; a socket the caller may not use is a service it may not control.
    if (!connected && (errno == EACCES || errno == EPERM)) code = Err::kAccessDenied;
    // The request is 8 bytes on a fresh connection: it always fits the socket's buffer.
    if (connected &&
        ::send(fd, &request, sizeof(request), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(request))) {
        auto* bytes = reinterpret_cast<char*>(&reply);
        size_t have = 0;
        while (have < sizeof(reply)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - Clock::now());
            pollfd entry = {fd, POLLIN, 0};
            const int ready = ::poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
            if (ready < 0 && errno == EINTR) continue;
            if (ready == 0) {
                code = Err::kServiceRequestTimeout;
                break;
            }
            const ssize_t got = ready < 0 ? -1 : ::recv(fd, bytes + have, sizeof(reply) - have, 0);
            if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (got <= 0) break;  // closed unanswered: the service has just stopped
            have += static_cast<size_t>(got);
        }
        if (have == sizeof(reply)) code = Err::kSuccess;
    }
    ::close(fd);
    if (code != Err::kSuccess) SetLastError(code);
    return code;
}

}  // namespace Osb::Scm
