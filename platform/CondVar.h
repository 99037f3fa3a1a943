// Osb::CondVar: a condition variable used with Osb::Mutex.
//
// wait_ is an alertable wait: besides signal and broadcast, an APC queued to the waiting thread
// (Apc.h) ends it, after the APC has run on that thread with the mutex released. Every waiter must
// therefore test its condition again in a loop, as with any condition variable.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/Mutex.h"

namespace Osb {

namespace detail {
struct ThreadParker;
}

enum class WaitResult {
    kSignalled,     // woken by signal or broadcast (or spuriously)
    kTimeout,       // the time limit passed
    kIoCompletion,  // one or more APCs ran on this thread during the wait
};

class CondVar {
public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Releases `mutex`, sleeps until woken, until `timeoutMs` milliseconds have passed (-1: no
    // limit) or until APCs for this thread have run, then retakes `mutex`.
    WaitResult wait_(Mutex& mutex, int32_t timeoutMs) OSB_REQUIRES(mutex);

    // Wakes one waiter, or all of them. Callable with or without the waiters' mutex held.
    void signal();
    void broadcast();

private:
    // Lock order: taken after the waiters' mutex when a waiter holds it, and before the lock of any
    // waiting thread's parker (the POSIX backend's per-thread sleeping place, which this header
    // cannot name); no other lock is taken while it is held.
    Mutex listMutex_;
    std::vector<detail::ThreadParker*> waiters_ OSB_GUARDED_BY(listMutex_);
};

}  // namespace Osb
