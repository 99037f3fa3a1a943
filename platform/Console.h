// The console of the process, and the stop signals of console mode (and of a service that systemd
// runs, whose dispatcher takes them as its stop control).
//
// A process started by a service manager (VIGIL_SERVICE or systemd's NOTIFY_SOCKET set and not
// empty) has no console; any other process has one. AllocConsole is the program's test for which
// of the two it is.
#pragma once

#include <cstdint>

namespace Osb {

// Console control types passed to a ConsoleStopHandler's handler.
constexpr uint32_t CTRL_C_EVENT = 0;      // SIGINT
constexpr uint32_t CTRL_CLOSE_EVENT = 2;  // SIGTERM

// 1 when the process had no console and now has one (service mode), 0 when a console is already
// attached (console mode, last error 5). Nothing is created: the service's console is given back
// by FreeConsole. Any thread.
int AllocConsole();
// Always succeeds with 1.
int FreeConsole();

// While an instance lives, SIGINT and SIGTERM no longer end the process: each calls `handler`
// with CTRL_C_EVENT or CTRL_CLOSE_EVENT on a thread the instance owns, never inside the signal
// handler, one signal at a time. The handler's result is not used. At most one instance at a time
// (a second one is a programming error). Destruction restores the previous dispositions and joins
// the thread; a signal that arrives after that acts as it did before.
class ConsoleStopHandler {
  public:
    explicit ConsoleStopHandler(bool (*handler)(uint32_t ctrlType));
    ~ConsoleStopHandler();
    ConsoleStopHandler(const ConsoleStopHandler&) = delete;
    ConsoleStopHandler& operator=(const ConsoleStopHandler&) = delete;

  private:
    struct State;
    State* state_;  // owned
};

}  // namespace Osb
