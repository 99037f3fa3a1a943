// The per-thread object behind every alertable wait: a thread sleeps on its own parker, and both a
// CondVar's signal and a queued APC wake it there. Private to the POSIX backend.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>

#include "platform/posix/NativeMutex.h"

namespace Osb::detail {

struct ThreadParker {
    // Lock order: taken after a CondVar's list lock (a signal marks the parker it picks under
    // both), never before it; nothing else is taken while it is held. The two belong to different
    // classes, one per waiting thread, so the order is kept by hand rather than declared.
    NativeMutex mutex;
    std::condition_variable wake;  // waited on under `mutex`; notified with or without it
    bool signalled OSB_GUARDED_BY(mutex) = false;  // a CondVar picked this thread for its signal
    std::deque<std::function<void()>> apcs OSB_GUARDED_BY(mutex);  // queued, not yet run
    bool ended OSB_GUARDED_BY(mutex) = false;  // the thread is gone; APCs are refused

    // Takes the queued APCs out; the caller runs them with no lock held.
    std::deque<std::function<void()>> takeApcs() OSB_REQUIRES(mutex) {
        std::deque<std::function<void()>> taken;
        taken.swap(apcs);
        return taken;
    }
};

// The calling thread's parker, made on first use. Thread::begin installs one made in advance.
const std::shared_ptr<ThreadParker>& CurrentParker();
void InstallParker(std::shared_ptr<ThreadParker> parker);

// Runs APCs in order; an exception that leaves one is reported on standard error and dropped.
void RunApcs(std::deque<std::function<void()>>& apcs);

}  // namespace Osb::detail
