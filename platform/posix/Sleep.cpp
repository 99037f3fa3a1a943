#include "platform/Sleep.h"

#include <chrono>
#include <thread>

#include "platform/posix/ThreadParker.h"

namespace Osb {

void Sleep(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

uint32_t SleepEx(uint32_t ms, bool alertable) {
    if (!alertable) {
        Sleep(ms);
        return 0;
    }
    detail::ThreadParker* parker = detail::CurrentParker().get();
    std::deque<std::function<void()>> apcs;
    {
        detail::NativeMutexLock lock(parker->mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (parker->apcs.empty() && lock.waitUntil(parker->wake, deadline)) {
        }
        apcs = parker->takeApcs();
    }
    if (apcs.empty()) return 0;
    detail::RunApcs(apcs);
    return kWaitIoCompletion;
}

}  // namespace Osb
