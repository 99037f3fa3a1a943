// PROVISIONAL until the platform's console support lands: the console test of the run role and
// the stop signals of console mode.
#pragma once

#include <cstdint>

namespace Osb {

// 1 when the process had no console (service mode: VIGIL_SERVICE is set), 0 when one is attached.
int AllocConsole();
int FreeConsole();

// While it lives, SIGINT and SIGTERM call `handler` (with 0 for SIGINT, 2 for SIGTERM) on a
// thread of its own, never in the signal handler itself.
class ConsoleStopHandler {
  public:
    explicit ConsoleStopHandler(bool (*handler)(uint32_t ctrlType));
    ~ConsoleStopHandler();
    ConsoleStopHandler(const ConsoleStopHandler&) = delete;
    ConsoleStopHandler& operator=(const ConsoleStopHandler&) = delete;
};

}  // namespace Osb
