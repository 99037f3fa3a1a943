#include "platform/posix/ServiceLockWait.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "platform/ErrorCode.h"
#include "platform/posix/ServiceFiles.h"

namespace Osb::Scm {

namespace {

using Clock = std::chrono::steady_clock;

// How often a waiting call looks again.
constexpr int kPollMs = 10;

// flock with LOCK_NB: 0 when taken, EWOULDBLOCK while somebody else holds a conflicting lock, or
// another errno.
int TryLock(int fd, int operation) {
    for (;;) {
        if (::flock(fd, operation | LOCK_NB) == 0) return 0;
        if (errno != EINTR) return errno;
    }
}

uint32_t GiveUp(const std::string& path, Clock::time_point since, const char* what) {
    const auto waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
    std::fprintf(stderr,
                 "service manager: %s is locked by another process and stayed locked for %lld ms; "
                 "%s gives up (error %u)\n",
                 path.c_str(), static_cast<long long>(waited), what,
                 static_cast<unsigned>(Err::kServiceRequestTimeout));
    std::fflush(stderr);
    SetLastError(Err::kServiceRequestTimeout);
    return Err::kServiceRequestTimeout;
}

}  // namespace

StartLock::StartLock(const std::string& name, int limitMs) {
    const std::string path = StartLockPath(name);
    fd_ = OpenPrivateFile(path, false);
    if (fd_ < 0) {
        error_ = ErrorCode();
        return;
    }
    const auto since = Clock::now();
    const auto deadline = since + std::chrono::milliseconds(limitMs);
    for (;;) {
        const int err = TryLock(fd_, LOCK_EX);
        if (err == 0) return;
        if (err != EWOULDBLOCK) {
            error_ = SetLastErrorFromErrno(err, path.c_str());
            break;
        }
        if (Clock::now() >= deadline) {
            error_ = GiveUp(path, since, "the start");
            break;
        }
        ::usleep(kPollMs * 1000);
    }
    ::close(fd_);
    fd_ = -1;
}

StartLock::~StartLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

uint32_t AwaitInstanceLockFree(const std::string& name, int limitMs,
                               const std::function<bool()>& running) {
    const std::string path = LockPath(name);
    const int fd = OpenPrivateFile(path, false);
    if (fd < 0) return ErrorCode();
    const auto since = Clock::now();
    const auto deadline = since + std::chrono::milliseconds(limitMs);
    uint32_t code = Err::kSuccess;
    for (;;) {
        // An exclusive lock conflicts with every other holder: the service's own exclusive one,
        // and a shared one of anybody who may open the file.
        const int err = TryLock(fd, LOCK_EX);
        if (err == 0) break;  // closing below lets go of it again
        if (err != EWOULDBLOCK) {
            code = SetLastErrorFromErrno(err, path.c_str());
            break;
        }
        if (running()) {
            SetLastError(Err::kServiceAlreadyRunning);
            code = Err::kServiceAlreadyRunning;
            break;
        }
        if (Clock::now() >= deadline) {
            code = GiveUp(path, since, "the start");
            break;
        }
        ::usleep(kPollMs * 1000);
    }
    ::close(fd);
    return code;
}

}  // namespace Osb::Scm
