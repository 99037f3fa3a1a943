// The service control calls' backend when systemd manages the services: installed services are
// unit files in /etc/systemd/system, start and stop are systemd jobs, and pause, continue and the
// paused state go to the running service's own control endpoint, which systemd has no notion of.
// Internal to the POSIX backend; ServiceControl.cpp picks it per manager handle. Each call returns
// 0 or a Windows code and says on standard error what systemctl answered when that explains a
// failure. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "platform/ServiceControl.h"
#include "platform/posix/SystemdUnit.h"

namespace Osb::Scm::Systemd {

// True when the calls act on systemd: VIGIL_SERVICE_MANAGER=systemd, or, unless it says "own",
// the system root is "/" and systemd is the running init (/run/systemd/system exists).
bool Manages();

// 0 when the caller may write the unit folder, 5 (or the folder's error) otherwise.
uint32_t CheckWritable();

// 0 when systemd has a unit file for the service, 1060 otherwise, 123 for a name systemd refuses.
uint32_t Find(const std::string& name);

// Writes the unit, has systemd reload and, with autoStart, enables it. 1073 when a unit of that
// name exists anywhere systemd looks, 1057 for a user the system does not know, 1075 for a
// dependency systemd has no unit for, 123 for a name systemd refuses; on any failure nothing of the
// unit is left.
uint32_t Install(const std::string& name, const UnitSettings& settings);

// Replaces the description of the unit installed under `name` and has systemd reload.
uint32_t SetDescription(const std::string& name, const std::string& description);

// Disables the unit, removes it and has systemd reload. 1060 when it is gone; 5 for a unit that
// is not in /etc/systemd/system (a package's, which the package removes).
uint32_t Remove(const std::string& name);

// `systemctl start`, waited for up to `timeoutMs` (1053 after). 1056 when it runs; when the start
// fails, the service's exit status, 1068 when a dependency failed, 1064 when there is neither.
uint32_t Start(const std::string& name, int timeoutMs);

// `systemctl stop`, waited for up to `timeoutMs`; `status` is stopped, or stop-pending when the
// time ran out with the job still under way. 1062 when the service does not run.
uint32_t Stop(const std::string& name, int timeoutMs, SERVICE_STATUS& status);

// systemd's state of the unit; while it is active, the status the service itself last reported
// (paused, say), when its endpoint answers.
uint32_t Query(const std::string& name, int timeoutMs, SERVICE_STATUS& status);

}  // namespace Osb::Scm::Systemd
