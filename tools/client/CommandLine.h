// The client tool's command line, checked whole before anything is sent: a command the tool does
// not know, a missing or extra argument, an option that does not apply to the command or a bad
// value is refused here, so that it says so (exit 64) without needing a service.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/client/ClientCodec.h"

namespace vigil_client {

// What the tool's usage text and --version print.
extern const char kUsage[];
extern const char kToolVersion[];

// The default wait for each reply; a paused service keeps a request waiting for as long as it is
// paused, and a tool run from a script must not hang with it.
inline constexpr int kDefaultTimeoutMs = 30000;

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    enum class Action { kRun, kHelp, kVersion };
    Action action = Action::kRun;
    std::string pipe;
    Guid guid{};
    uint32_t major = 1, minor = 0;  // the protocol version stated in Hello
    int timeoutMs = kDefaultTimeoutMs;  // per reply; -1 waits as long as it takes
    bool json = false;
    bool subtree = false, noChanged = false, removed = false, clear = false, ack = false;
    int interval = 1000;
    long count = -1;
    std::string command;
    std::vector<std::string> arguments;
    // raw: the message code and its body, from the two arguments.
    uint32_t rawCode = 0;
    Bytes rawBody;
};

// `args` without the program's name. Options take their value as "--name value" or
// "--name=value", and may stand before or after the command. Raises UsageError with the reason.
Options ParseCommandLine(const std::vector<std::string>& args);

}  // namespace vigil_client
