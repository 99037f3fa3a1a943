// Osb::Mutex: a plain, non-recursive exclusion lock.
//
// It is constant-initialised, so a Mutex at namespace scope is usable before main and during static
// destruction. Any thread may lock it; the thread that locked it unlocks it.
#pragma once

#include <mutex>

#include "platform/ThreadAnnotations.h"

namespace Osb {

class CondVar;

class OSB_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() noexcept = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() OSB_ACQUIRE() { impl_.lock(); }
    void unlock() OSB_RELEASE() { impl_.unlock(); }

private:
    friend class CondVar;
    std::mutex impl_;
};

// Holds a Mutex for one scope. The lock is released on every way out, exceptions included.
class OSB_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) OSB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() OSB_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// Holds a Mutex from construction until unlock() or the end of the scope, whichever comes first:
// for a path that must let go before the scope ends (to post work that may take the lock).
class OSB_SCOPED_CAPABILITY UniqueMutexLock {
public:
    explicit UniqueMutexLock(Mutex& mutex) OSB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~UniqueMutexLock() OSB_RELEASE() {
        if (held_) mutex_.unlock();
    }
    void unlock() OSB_RELEASE() {
        mutex_.unlock();
        held_ = false;
    }
    UniqueMutexLock(const UniqueMutexLock&) = delete;
    UniqueMutexLock& operator=(const UniqueMutexLock&) = delete;

private:
    Mutex& mutex_;
    bool held_ = true;
};

}  // namespace Osb
