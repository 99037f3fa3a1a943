#include "platform/posix/ServiceLauncher.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "platform/posix/ServiceFiles.h"

extern char** environ;

namespace Osb::Scm {

namespace {

bool ReadExactly(int fd, void* data, size_t size) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = ::read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

void WriteAllOrNothing(int fd, const void* data, size_t size) {
    while (::write(fd, data, size) < 0 && errno == EINTR) {
    }
}

}  // namespace

uint32_t LaunchService(const std::string& name, const std::string& binaryPath, int& pidfd) {
    pidfd = -1;
    const std::string logPath = LogPath(name);
    if (const uint32_t code = CreatePrivateFolder(SystemRoot() + "/var/log/orvanta");
        code != Err::kSuccess) {
        return code;
    }
    // Opened here, 0600 and never through a link (which the child could not do without
    // allocating); close-on-exec, so only its copies on 1 and 2 reach the service.
    const int out = OpenPrivateFile(logPath, true);
    // Everything the child needs is made here: between fork and exec of a threaded process only
    // async-signal-safe calls are allowed, which excludes allocating.
    const std::string serviceVariable = "VIGIL_SERVICE=" + name;
    std::vector<char*> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        // NOTIFY_SOCKET belongs to the starter: a service of the own manager must not report to
        // the systemd unit that the starter may run in.
        if (std::strncmp(*entry, "VIGIL_SERVICE=", 14) != 0 &&
            std::strncmp(*entry, "NOTIFY_SOCKET=", 14) != 0) {
            env.push_back(*entry);
        }
    }
    env.push_back(const_cast<char*>(serviceVariable.c_str()));
    env.push_back(nullptr);
    char* argv[] = {const_cast<char*>(binaryPath.c_str()), nullptr};

    // `status` carries the grandchild's pid and then, only when exec fails, its errno. It is
    // close-on-exec, so a successful exec ends it with end-of-file.
    int status[2];
    if (::pipe2(status, O_CLOEXEC) != 0) {
        const uint32_t code = SetLastErrorFromErrno(errno);
        if (out >= 0) ::close(out);
        return code;
    }
    const pid_t middle = ::fork();
    if (middle < 0) {
        const uint32_t code = SetLastErrorFromErrno(errno);
        ::close(status[0]);
        ::close(status[1]);
        if (out >= 0) ::close(out);
        return code;
    }
    if (middle == 0) {
        // The middle process makes the service an orphan that init reaps, so the starter keeps no
        // zombie and the service no tie to the starter's session or terminal.
        ::close(status[0]);
        ::setsid();
        const pid_t service = ::fork();
        if (service != 0) {
            WriteAllOrNothing(status[1], &service, sizeof(service));
            ::_exit(service < 0 ? 1 : 0);
        }
        const int in = ::open("/dev/null", O_RDONLY);
        if (in >= 0) ::dup2(in, 0);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        if (::chdir("/") != 0) {
            // The root always exists; should it not, the binary runs where the starter stood.
        }
        ::execve(binaryPath.c_str(), argv, env.data());
        const int err = errno;
        WriteAllOrNothing(status[1], &err, sizeof(err));
        ::_exit(127);
    }
    ::close(status[1]);
    if (out >= 0) ::close(out);
    int middleStatus = 0;
    while (::waitpid(middle, &middleStatus, 0) < 0 && errno == EINTR) {
    }
    pid_t service = -1;
    int execErr = 0;
    const bool havePid = ReadExactly(status[0], &service, sizeof(service)) && service > 0;
    const bool execFailed = havePid && ReadExactly(status[0], &execErr, sizeof(execErr));
    ::close(status[0]);
    if (!havePid) {
        SetLastError(Err::kNotEnoughMemory);  // the second fork failed: out of processes
        return Err::kNotEnoughMemory;
    }
    if (execFailed) return SetLastErrorFromErrno(execErr, binaryPath.c_str());
    // The service is not our child, so waitpid cannot watch it; a pidfd can.
    const long fd = ::syscall(SYS_pidfd_open, service, 0);
    pidfd = fd >= 0 ? static_cast<int>(fd) : errno == ESRCH ? kProcessEnded : -1;

    return Err::kSuccess;
}

}  // namespace Osb::Scm
