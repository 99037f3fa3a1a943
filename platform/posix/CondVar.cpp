#include "platform/CondVar.h"

#include <algorithm>
#include <chrono>

#include "platform/posix/ThreadParker.h"

namespace Osb {

// Each waiter sleeps on its own thread's parker; the CondVar keeps the list of parkers waiting on
// it. A signal hands itself to one parker under listMutex_, so a waiter that leaves the list
// knows for certain whether it was picked, and no signal is lost between two waiters.
WaitResult CondVar::wait_(Mutex& mutex, int32_t timeoutMs) {
    detail::ThreadParker* parker = detail::CurrentParker().get();
    {
        detail::NativeMutexLock parkerLock(parker->mutex);
        parker->signalled = false;
    }
    {
        MutexLock listLock(listMutex_);
        waiters_.push_back(parker);
    }
    mutex.unlock();

    std::deque<std::function<void()>> apcs;
    bool timedOut = false;
    {
        detail::NativeMutexLock parkerLock(parker->mutex);
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!parker->signalled && parker->apcs.empty()) {
            if (timeoutMs < 0) {
                parkerLock.wait(parker->wake);
            } else if (!parkerLock.waitUntil(parker->wake, deadline)) {
                timedOut = !parker->signalled && parker->apcs.empty();
                break;
            }
        }
        apcs = parker->takeApcs();
    }
    {
        MutexLock listLock(listMutex_);
        auto it = std::find(waiters_.begin(), waiters_.end(), parker);
        if (it != waiters_.end()) waiters_.erase(it);
    }
    // A signal given between the wake-up and the removal above belongs to this wait; the caller
    // tests its condition anyway, so it is honoured by returning.
    bool signalled;
    {
        detail::NativeMutexLock parkerLock(parker->mutex);
        signalled = parker->signalled;
        parker->signalled = false;
    }

    // Completions run here, on this thread, with the caller's mutex released.
    bool ranApcs = !apcs.empty();
    detail::RunApcs(apcs);
    mutex.lock();

    if (ranApcs) return WaitResult::kIoCompletion;
    if (signalled) return WaitResult::kSignalled;
    return timedOut ? WaitResult::kTimeout : WaitResult::kSignalled;
}

void CondVar::signal() {
    MutexLock listLock(listMutex_);
    if (waiters_.empty()) return;
    detail::ThreadParker* parker = waiters_.front();
    waiters_.erase(waiters_.begin());
    {
        detail::NativeMutexLock parkerLock(parker->mutex);
        parker->signalled = true;
    }
    parker->wake.notify_one();
}

void CondVar::broadcast() {
    MutexLock listLock(listMutex_);
    for (detail::ThreadParker* parker : waiters_) {
        {
            detail::NativeMutexLock parkerLock(parker->mutex);
            parker->signalled = true;
        }
        parker->wake.notify_one();
    }
    waiters_.clear();
}

}  // namespace Osb
