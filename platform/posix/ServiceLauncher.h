// Starting a service's process: its binary with no arguments, detached from the starter in a
// session of its own, with the starter's environment plus VIGIL_SERVICE=NAME, standard input from
// /dev/null and standard output and error appended to ROOT/var/log/orvanta/NAME.log.
#pragma once

#include <cstdint>
#include <string>

namespace Osb::Scm {

constexpr int kProcessEnded = -2;

// Starts the process. Returns 0 once it runs the binary, with `pidfd` a descriptor that becomes
// readable when the process ends, kProcessEnded when it has ended and been reaped already, or -1
// where the system cannot give one (the caller then learns of the end only by the lack of an
// answer). Fails with the Windows code of the exec's errno (2 for a
// missing binary, 5 for one that may not be run) or of the fork, and no process is left behind.
uint32_t LaunchService(const std::string& name, const std::string& binaryPath, int& pidfd);

}  // namespace Osb::Scm
