#include "platform/posix/Journal.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/Mutex.h"

namespace Osb::Journal {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";
// The first 96 bits of every MESSAGE_ID of the program, drawn at random once. The README gives
// the scheme, so that `journalctl MESSAGE_ID=...` can be typed for an event.
constexpr char kMessageIdBase[] = "eb42d24211294da2955331fb";

// Guards the journal's socket path, which tests point elsewhere. A leaf: nothing else is taken or
// called under it.
Mutex pathMutex;
std::string socketPath OSB_GUARDED_BY(pathMutex) = kJournalSocket;

std::string SocketPath() {
    MutexLock lock(pathMutex);
    return socketPath;
}

}  // namespace

std::string Encode(std::initializer_list<Field> fields) {
    std::string entry;
    for (const Field& field : fields) {
        entry += field.name;
        if (field.value.find('\n') == std::string_view::npos) {
            entry += '=';
        } else {
            entry += '\n';
            uint64_t length = field.value.size();
            for (int byte = 0; byte < 8; ++byte) {
                entry += static_cast<char>(length & 0xFF);
                length >>= 8;
            }
        }
        entry += field.value;
        entry += '\n';
    }
    return entry;
}

bool Send(const std::string& entry) {
    const std::string path = SocketPath();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ssize_t sent = -1;
    do {
        sent = ::sendto(fd, entry.data(), entry.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (sent < 0 && errno == EINTR);
    ::close(fd);
    return sent == static_cast<ssize_t>(entry.size());
}

std::string MessageId(uint32_t id) {
    char tail[9];
    std::snprintf(tail, sizeof(tail), "%08x", static_cast<unsigned>(id));
    return std::string(kMessageIdBase) + tail;
}

void SetSocketPathForTesting(const std::string& path) {
    MutexLock lock(pathMutex);
    socketPath = path.empty() ? kJournalSocket : path;
}

}  // namespace Osb::Journal
