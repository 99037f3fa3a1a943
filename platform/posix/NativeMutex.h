// A std::mutex the lock analysis can see, for the one place that waits on a
// std::condition_variable: the thread parker. Osb::Mutex serves everything else.
//
// NativeMutexLock holds it for one scope, and its waits release and retake it inside the
// standard condition variable, where the analysis does not look; it is held again whenever they
// return, so to the analysis the lock is simply held for the whole scope.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/ThreadAnnotations.h"

namespace Osb::detail {

class OSB_CAPABILITY("mutex") NativeMutex {
public:
    NativeMutex() = default;
    NativeMutex(const NativeMutex&) = delete;
    NativeMutex& operator=(const NativeMutex&) = delete;

    void lock() OSB_ACQUIRE() { impl_.lock(); }
    void unlock() OSB_RELEASE() { impl_.unlock(); }

private:
    friend class NativeMutexLock;
    std::mutex impl_;
};

class OSB_SCOPED_CAPABILITY NativeMutexLock {
public:
    explicit NativeMutexLock(NativeMutex& mutex) OSB_ACQUIRE(mutex) : lock_(mutex.impl_) {}
    ~NativeMutexLock() OSB_RELEASE() {}
    NativeMutexLock(const NativeMutexLock&) = delete;
    NativeMutexLock& operator=(const NativeMutexLock&) = delete;

    // Sleeps on `wake` until notified (or spuriously woken).
    void wait(std::condition_variable& wake) { wake.wait(lock_); }
    // The same with a time limit; false once `deadline` has passed.
    bool waitUntil(std::condition_variable& wake, std::chrono::steady_clock::time_point deadline) {
        return wake.wait_until(lock_, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace Osb::detail
