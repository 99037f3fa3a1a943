// systemctl(1), run as a child process with a deadline: the systemd backend of the service control
// calls speaks to systemd through it, so every wait on systemd has a limit and what systemctl says
// on failure reaches the user. Internal to the POSIX backend.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Osb::Scm {

struct SystemctlResult {
    // 0: systemctl ran and ended; otherwise the Windows code of what went wrong: 1053 when it did
    // not end within the time given (it is then killed; a job it queued goes on in systemd), or
    // the code of the failed fork or exec (2 when systemctl is not installed).
    uint32_t error = 0;
    int exitStatus = -1;  // systemctl's exit status when it ended normally, -1 otherwise
    std::string output;   // what it wrote on standard output
    std::string errors;   // what it wrote on standard error, without the final line feed
};

// Runs `systemctl --no-ask-password ARGS...` and collects its output until it ends or `timeoutMs`
// passes. Any thread. Sets no last error: the caller decides what a failure means.
SystemctlResult RunSystemctl(const std::vector<std::string>& args, int timeoutMs);

// The value of each property of `systemctl show -p P1 -p P2 ... UNIT`, in the order asked, empty
// for one systemctl did not print. False when systemctl failed (`result` says how).
bool ShowUnitProperties(const std::string& unit, const std::vector<std::string>& properties,
                        std::vector<std::string>& values, SystemctlResult& result, int timeoutMs);

}  // namespace Osb::Scm
