// The files of the service manager's POSIX backend, shared by the manager's calls and the
// dispatcher of a service process. ROOT is SystemRoot(), read at each call.
//
//   ROOT/etc/orvanta/services/NAME.conf     the installed service (see ServiceRecord)
//   ROOT/etc/orvanta/services/NAME.delete   present while a deleted service still runs
//   ROOT/run/orvanta/services/NAME          the control endpoint (Unix stream socket)
//   ROOT/run/orvanta/services/NAME.lock     locked (flock) by the service's process for its life
//   ROOT/run/orvanta/services/NAME.start    locked by a starter, so that starts go one at a time
//   ROOT/var/log/orvanta/NAME.log           standard output and error of the service's process
//
// Who may touch them: every file here is made 0600 and opened without following a symbolic link,
// whatever the umask; one found readable or writable by others is tightened when opened, so that
// no other user can lock, fill or read it. The folders are 0755. The endpoint's socket is 0600 and
// the dispatcher answers only callers of user 0 or of the service's own user (everybody else gets
// 5, for queries too: other users may not learn the service's state either).
//
// The endpoint speaks one request and one reply per connection, both in host byte order (the two
// ends are on one machine):
//   request  8 bytes: op (1 control, 2 query), control code (0 for a query)
//   reply   32 bytes: result (0 or the Windows code the control failed with), SERVICE_STATUS
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/ServiceControl.h"

namespace Osb::Scm {

// A service name as the manager accepts it: 1 to 256 units, none of them '/', '\' or zero.
bool ValidServiceName(std::u16string_view name);

std::string ServicesFolder();
std::string RunFolder();
std::string RecordPath(const std::string& name);
std::string DeleteMarkPath(const std::string& name);
std::string EndpointPath(const std::string& name);
std::string LockPath(const std::string& name);
std::string StartLockPath(const std::string& name);
std::string LogPath(const std::string& name);

// The installed service, as NAME.conf holds it. Texts are UTF-8.
struct ServiceRecord {
    std::string displayName;
    std::string description;
    std::string binaryPath;
    uint32_t startType = SERVICE_DEMAND_START;
    uint32_t errorControl = SERVICE_ERROR_NORMAL;
    std::string account;
    std::string dependencies;  // entries joined by '/'
};

// Line feed, carriage return and backslash as \n, \r and \\; everything else as it is.
std::string EscapeValue(std::string_view value);
// The reverse. A backslash before any other character, or at the end, stands for itself.
std::string UnescapeValue(std::string_view text);

// The record as the file's text: one Key=Value line each, ended by a line feed.
std::string FormatRecord(const ServiceRecord& record);
// Reads a record from the file's text. Lines may end with CR LF; unknown keys, blank lines and
// lines without '=' are skipped, an absent key keeps its default. False when a number is not a
// decimal that fits 32 bits, or when BinaryPath is missing or empty.
bool ParseRecord(std::string_view text, ServiceRecord& record);

// Reads NAME.conf, narrowing a record that others may read to 0600: 0, 1060 when there is none,
// the code of a failed read, or 13 (ERROR_INVALID_DATA) when the file does not parse.
uint32_t ReadRecord(const std::string& name, ServiceRecord& record);
// Writes NAME.conf through a temporary file, so that no reader sees half a record. With
// `createNew`, fails with 1073 when the record exists (two creators cannot both succeed);
// otherwise replaces it. Returns 0 or a Windows code.
uint32_t WriteRecord(const std::string& name, const ServiceRecord& record, bool createNew);

// Opens `path` for writing (`append`) or for reading and writing, creating it 0600 when missing and
// never through a symbolic link. A file found with any permission for group or others is set to
// 0600, and one that belongs to neither root nor the caller is taken over when the caller is root.
// Returns the descriptor, or -1 with the Windows code as last error (5 for a file the caller may
// not open, 1920 (ERROR_CANT_ACCESS_FILE) for something that is not a plain file).
int OpenPrivateFile(const std::string& path, bool append);

// CreateDirectories, then takes write permission for group and others away from `path` when it has
// it and the caller may change it. Returns 0 or a Windows code.
uint32_t CreatePrivateFolder(const std::string& path);

// True while a process holds NAME.lock, i.e. the service's process lives.
bool InstanceAlive(const std::string& name);
// When NAME.delete exists and no process of the service lives, removes the record and the mark.
void FinishPendingDeletion(const std::string& name);

constexpr uint32_t kOpControl = 1;
constexpr uint32_t kOpQuery = 2;

struct EndpointRequest {
    uint32_t op;
    uint32_t control;
};
struct EndpointReply {
    uint32_t result;
    SERVICE_STATUS status;
};

// One request to the endpoint of `name`. Returns 0 with `reply` filled; 1062 when nobody serves
// the endpoint (no socket, a socket left by a dead process, or one closed before it answered);
// 1053 when no answer came within `timeoutMs`; 5 when the caller may not connect to the socket;
// 206 when the path is too long for a socket.
uint32_t CallEndpoint(const std::string& name, const EndpointRequest& request,
                      EndpointReply& reply, int timeoutMs);

// Shortens the 30 seconds that a start waits for registration and a control for its answer.
void SetAnswerTimeoutForTesting(int ms);

// The status of a service that does not run.
SERVICE_STATUS StoppedStatus();

}  // namespace Osb::Scm
