#include "platform/ServiceNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Osb {

bool ServiceNotifyWanted() {
    const char* path = std::getenv("NOTIFY_SOCKET");
    return path != nullptr && *path != '\0';
}

bool ServiceNotify(std::string_view assignments) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') return false;
    const size_t length = std::strlen(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (length >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path, length);
    // An abstract name has no terminating zero: its length is part of the name. A leading '@'
    // stands for the zero byte that starts it.
    if (path[0] == '@') address.sun_path[0] = '\0';
    const socklen_t size = static_cast<socklen_t>(
        offsetof(sockaddr_un, sun_path) + length + (path[0] == '@' ? 0 : 1));
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ssize_t sent = -1;
    do {
        sent = ::sendto(fd, assignments.data(), assignments.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address), size);
    } while (sent < 0 && errno == EINTR);
    ::close(fd);
    return sent == static_cast<ssize_t>(assignments.size());
}

}  // namespace Osb
