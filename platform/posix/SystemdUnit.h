// The unit file that installing a service under systemd writes, as text. Internal to the POSIX
// backend; pure functions, so the text is tested without systemd.
//
// The unit runs the binary as a Type=notify service, as the given user or root, hardened as far as
// a service allows that must read every folder a client may watch: no new privileges, the whole
// file system read-only but the run and data folders, and only the capabilities it uses (reading
// any folder, judging a client's access under the client's identity, and taking over or
// tightening its own files). The description is the comment block at the top, so that changing it
// leaves the rest of the file alone.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Osb::Scm {

struct UnitSettings {
    std::string displayName;
    std::string description;
    std::string binaryPath;
    std::string user;                       // empty: root
    std::vector<std::string> dependencies;  // service names, without ".service"
    bool autoStart = false;                 // an [Install] section, so that it can be enabled
    std::string systemRoot = "/";           // the root the service is to run on
};

// True for a name systemd accepts before ".service": 1 to 247 of the characters
// A-Z a-z 0-9 : _ . - (and no leading '.' or '-', which systemd would take for something else).
bool ValidUnitName(std::string_view name);

// The unit's text.
std::string FormatUnit(const UnitSettings& settings);

// `unitText` with its leading comment block replaced by `description`, one "# " line per line of
// it.
std::string WithDescription(std::string_view unitText, std::string_view description);

// The account as systemd's User= takes it, from the form the service's command line gives: "bob",
// ".\bob" or "DOMAIN\bob". Empty for the accounts that mean the system itself (LocalSystem,
// NT AUTHORITY\SYSTEM, in any case), so that the service runs as root.
std::string UnitUser(std::string_view account);

}  // namespace Osb::Scm
