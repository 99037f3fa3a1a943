// The one root of everything per-machine: "/" by default, or the value of VIGIL_SYSTEM_ROOT when
// it is set and not empty. It is read at each call, so a test may point a process at a scratch root.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

// The root with no trailing slash ("" for "/"), so that SystemRoot() + "/var/lib" is a path.
std::string SystemRoot();

// ROOT/var/lib: the common application data folder. It is never created by the program.
std::string CommonAppDataFolder();

// The socket path of pipe `name`: ROOT/run/orvanta/pipe/NAME, where NAME is `name` without a
// leading "\\.\pipe\". Returns 0 and sets `path`, or 123 for an empty name or one that holds '/' or
// a zero unit, or 206 when the path passes the system's limit for a socket address.
uint32_t PipeSocketPath(const std::u16string& name, std::string& path);

// Creates `path` and every missing parent as directories (mode 0755). Returns 0 or a Windows code.
uint32_t CreateDirectories(const std::string& path);

}  // namespace Osb
