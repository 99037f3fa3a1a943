// Bounded waits on the lock files of the service manager. No call of the manager waits on a lock
// without a limit: a lock that stays held past the limit fails the call with 1053 and says on
// standard error which file was held and for how long, since the caller of a failed start has
// nothing else to tell it why.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Osb::Scm {

// Holds NAME.start for one start, so that two starters never both launch a process. The lock is
// taken within `limitMs` or not at all: error() is then 1053 (or the code of the failed open, 5
// for a caller who may not open the file), also left as the last error.
class StartLock {
public:
    StartLock(const std::string& name, int limitMs);
    ~StartLock();
    StartLock(const StartLock&) = delete;
    StartLock& operator=(const StartLock&) = delete;
    uint32_t error() const { return error_; }

private:
    int fd_ = -1;
    uint32_t error_ = 0;
};

// Waits until no process holds NAME.lock in any way, which is when a new process of the service
// can take it. While it is held, `running` is asked whether a live service holds it: when it says
// so, the wait ends with 1056. Otherwise the wait gives up after `limitMs` with 1053 and a line
// on standard error. Returns 0, or the Windows code, also left as the last error.
uint32_t AwaitInstanceLockFree(const std::string& name, int limitMs,
                               const std::function<bool()>& running);

}  // namespace Osb::Scm
