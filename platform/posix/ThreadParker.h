// The per-thread object behind every alertable wait: a thread sleeps on its own parker, and both a
// CondVar's signal and a queued APC wake it there. Private to the POSIX backend.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace Osb::detail {

struct ThreadParker {
    std::mutex mutex;  // guards every field below; taken after CondVar::listMutex_, never before
    std::condition_variable wake;
    bool signalled = false;                  // a CondVar picked this thread for its signal
    std::deque<std::function<void()>> apcs;  // queued, not yet run
    bool ended = false;                      // the thread is gone; APCs are refused

    // Takes the queued APCs out; the caller runs them with no lock held.
    std::deque<std::function<void()>> takeApcs() {
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
