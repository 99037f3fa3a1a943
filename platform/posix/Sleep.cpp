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
        std::unique_lock<std::mutex> lock(parker->mutex);
        parker->wake.wait_for(lock, std::chrono::milliseconds(ms),
                              [parker] { return !parker->apcs.empty(); });
        apcs = parker->takeApcs();
    }
    if (apcs.empty()) return 0;
    detail::RunApcs(apcs);
    return kWaitIoCompletion;
}

}  // namespace Osb
