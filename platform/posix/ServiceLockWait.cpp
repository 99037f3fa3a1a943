#include "platform/posix/ServiceLockWait.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>

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

// Takes the exclusive lock of `fd` (the file `path`), looking again every kPollMs until `limitMs`
// have passed. Between two looks, `stop` may end the wait with a code of its own (non-zero).
// Returns 0 once the lock is taken, else the code of the failure or of the timeout.
uint32_t LockExclusiveWithin(int fd, const std::string& path, int limitMs,
                             const std::function<uint32_t()>& stop) {
    const auto since = Clock::now();
    const auto deadline = since + std::chrono::milliseconds(limitMs);
    for (;;) {
        // An exclusive lock conflicts with every other holder: the service's own exclusive one,
        // and a shared one of anybody who may open the file.
        const int err = TryLock(fd, LOCK_EX);
        if (err == 0) return Err::kSuccess;
        if (err != EWOULDBLOCK) return SetLastErrorFromErrno(err, path.c_str());
        if (const uint32_t code = stop ? stop() : 0) return code;
        if (Clock::now() >= deadline) return GiveUp(path, since, "the start");
        ::usleep(kPollMs * 1000);
    }
}

}  // namespace

StartLock::StartLock(const std::string& name, int limitMs) {
    const std::string path = StartLockPath(name);
    fd_ = OpenPrivateFile(path, false);
    if (fd_ < 0) {
        error_ = ErrorCode();
        return;
    }
    error_ = LockExclusiveWithin(fd_, path, limitMs, nullptr);
    if (error_ == Err::kSuccess) return;
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
    // Taken only to see that nobody holds it; closing below lets go of it again.
    const uint32_t code = LockExclusiveWithin(fd, path, limitMs, [&]() -> uint32_t {
        if (!running()) return Err::kSuccess;
        SetLastError(Err::kServiceAlreadyRunning);
        return Err::kServiceAlreadyRunning;
    });
    ::close(fd);
    return code;
}

}  // namespace Osb::Scm
