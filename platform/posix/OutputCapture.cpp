#include "platform/posix/OutputCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/ErrorCode.h"

namespace Osb::Scm {

uint32_t OutputCapture::begin(const std::string& path, uint64_t limit, int keep) {
    if (thread_.joinable()) {
        SetLastError(Err::kInvalidParameter);
        return Err::kInvalidParameter;
    }
    auto log = std::make_unique<RotatingLog>(path, limit, keep);
    if (const uint32_t code = log->open(); code != Err::kSuccess) return code;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return SetLastErrorFromErrno(errno);
    // What stdio holds for the old descriptors goes there first, so the order stays.
    std::fflush(stdout);
    std::fflush(stderr);
    // dup2 swaps each descriptor in one step: a concurrent write goes to the old file or to the
    // pipe, never nowhere.
    if (::dup2(ends[1], 1) < 0 || ::dup2(ends[1], 2) < 0) {
        const uint32_t code = SetLastErrorFromErrno(errno);
        ::dup2(log->fd(), 1);
        ::dup2(log->fd(), 2);
        ::close(ends[0]);
        ::close(ends[1]);
        return code;
    }
    {
        MutexLock lock(mutex_);
        log_ = std::move(log);
    }
    readEnd_ = ends[0];
    writeEnd_ = ends[1];
    thread_ = std::thread([this] { copy(); });
    return Err::kSuccess;
}

void OutputCapture::copy() {
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(readEnd_, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        MutexLock lock(mutex_);
        if (got <= 0) {  // every write end is closed: end() has handed the file over
            log_->flush();
            return;
        }
        log_->write(std::string_view(buffer, static_cast<size_t>(got)));
    }
}

void OutputCapture::end() {
    if (!thread_.joinable()) return;
    std::fflush(stdout);
    std::fflush(stderr);
    // While the thread writes out the rest of its pipe (rotating as ever), 1 and 2 point at a
    // second pipe, so that output made meanwhile waits instead of going astray.
    int interim[2] = {-1, -1};
    const bool haveInterim = ::pipe2(interim, O_CLOEXEC) == 0;
    if (haveInterim) {
        ::dup2(interim[1], 1);
        ::dup2(interim[1], 2);
    }
    // Without the interim pipe, 1 and 2 still hold the capture's pipe and the thread would never
    // see its end: they go to /dev/null for the moment instead.
    if (!haveInterim) {
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, 1);
        ::dup2(null, 2);
        if (null >= 0) ::close(null);
    }
    ::close(writeEnd_);  // the last write end of the capture's pipe: the thread reads to its end
    writeEnd_ = -1;
    thread_.join();
    ::close(readEnd_);
    readEnd_ = -1;

    MutexLock lock(mutex_);
    log_->stopRotating();  // the file that 1 and 2 now get is the last one
    const int direct = ::dup(log_->fd());
    if (direct >= 0) {
        ::dup2(direct, 1);
        ::dup2(direct, 2);
        ::close(direct);
    }
    if (haveInterim) {
        ::close(interim[1]);
        char buffer[4096];
        for (;;) {
            const ssize_t got = ::read(interim[0], buffer, sizeof(buffer));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            log_->write(std::string_view(buffer, static_cast<size_t>(got)));
        }
        ::close(interim[0]);
    }
    log_->flush();
    log_.reset();
}

}  // namespace Osb::Scm
