#include "platform/CondVar.h"

#include <algorithm>
#include <chrono>

#include "platform/posix/ThreadParker.h"

namespace Osb {

// Each waiter sleeps on its own thread's parker; the CondVar keeps the list of parkers waiting on
// it. A signal hands itself to one parker under listMutex_, so a waiter that leaves the list
// knows for certain whether it was picked, and no signal is lost between two waiters.
// The mutex is released and retaken inside, which the analysis cannot follow.
WaitResult CondVar::wait_(Mutex& mutex, int32_t timeoutMs) OSB_NO_THREAD_SAFETY_ANALYSIS {
    detail::ThreadParker* parker = detail::CurrentParker().get();
    {
        std::lock_guard<std::mutex> parkerLock(parker->mutex);
        parker->signalled = false;
    }
    {
        std::lock_guard<std::mutex> listLock(listMutex_);
        waiters_.push_back(parker);
    }
    mutex.unlock();

    std::deque<std::function<void()>> apcs;
    bool timedOut = false;
    {
        std::unique_lock<std::mutex> parkerLock(parker->mutex);
        auto woken = [parker] { return parker->signalled || !parker->apcs.empty(); };
        if (timeoutMs < 0) {
            parker->wake.wait(parkerLock, woken);
        } else {
            timedOut =
                !parker->wake.wait_for(parkerLock, std::chrono::milliseconds(timeoutMs), woken);
        }
        apcs = parker->takeApcs();
    }
    {
        std::lock_guard<std::mutex> listLock(listMutex_);
        auto it = std::find(waiters_.begin(), waiters_.end(), parker);
        if (it != waiters_.end()) waiters_.erase(it);
    }
    // A signal given between the wake-up and the removal above belongs to this wait; the caller
    // tests its condition anyway, so it is honoured by returning.
    bool signalled;
    {
        std::lock_guard<std::mutex> parkerLock(parker->mutex);
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
    std::lock_guard<std::mutex> listLock(listMutex_);
    if (waiters_.empty()) return;
    detail::ThreadParker* parker = waiters_.front();
    waiters_.erase(waiters_.begin());
    {
        std::lock_guard<std::mutex> parkerLock(parker->mutex);
        parker->signalled = true;
    }
    parker->wake.notify_one();
}

void CondVar::broadcast() {
    std::lock_guard<std::mutex> listLock(listMutex_);
    for (detail::ThreadParker* parker : waiters_) {
        {
            std::lock_guard<std::mutex> parkerLock(parker->mutex);
            parker->signalled = true;
        }
        parker->wake.notify_one();
    }
    waiters_.clear();
}

}  // namespace Osb
