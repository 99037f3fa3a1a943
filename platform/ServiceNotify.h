// Notifications to a service manager that started the process and listens for them: systemd's
// notify protocol, where NOTIFY_SOCKET names a datagram socket (a path, or an abstract name written
// with a leading '@') and each datagram holds newline-separated KEY=VALUE assignments such as
// READY=1, STATUS=text or STOPPING=1.
//
// The variable is read at each call and left in the environment; nothing here changes it.
#pragma once

#include <string_view>

namespace Osb {

// True when NOTIFY_SOCKET is set and not empty: a manager waits for this process's notifications.
bool ServiceNotifyWanted();

// Sends `assignments` as one datagram. False when no manager listens or the send failed; the
// caller goes on either way, a notification is never worth a failure. Any thread.
bool ServiceNotify(std::string_view assignments);

}  // namespace Osb
