// Osb::SharedMutex: a lock many readers may hold at once, or one writer, that the lock analysis
// can see. ReaderLock and WriterLock hold it for one scope.
#pragma once

#include <shared_mutex>

#include "platform/ThreadAnnotations.h"

namespace Osb {

class OSB_CAPABILITY("shared mutex") SharedMutex {
public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() OSB_ACQUIRE() { impl_.lock(); }
    void unlock() OSB_RELEASE() { impl_.unlock(); }
    void lockShared() OSB_ACQUIRE_SHARED() { impl_.lock_shared(); }
    void unlockShared() OSB_RELEASE_SHARED() { impl_.unlock_shared(); }

private:
    std::shared_mutex impl_;
};

class OSB_SCOPED_CAPABILITY ReaderLock {
public:
    explicit ReaderLock(SharedMutex& mutex) OSB_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
        mutex_.lockShared();
    }
    ~ReaderLock() OSB_RELEASE_GENERIC() { mutex_.unlockShared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

private:
    SharedMutex& mutex_;
};

class OSB_SCOPED_CAPABILITY WriterLock {
public:
    explicit WriterLock(SharedMutex& mutex) OSB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~WriterLock() OSB_RELEASE() { mutex_.unlock(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

private:
    SharedMutex& mutex_;
};

}  // namespace Osb
