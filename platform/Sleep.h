// Sleeping, plain and alertable.
#pragma once

#include <cstdint>

namespace Osb {

// Blocks the calling thread for `ms` milliseconds.
void Sleep(uint32_t ms);

// Returned by SleepEx when APCs ran during the sleep (Windows' WAIT_IO_COMPLETION).
constexpr uint32_t kWaitIoCompletion = 0xC0;

// Sleeps `ms` milliseconds. When `alertable`, APCs queued to this thread end the sleep early after
// they have run, and the result is kWaitIoCompletion; otherwise the result is 0.
uint32_t SleepEx(uint32_t ms, bool alertable);

}  // namespace Osb
