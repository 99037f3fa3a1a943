#include "platform/posix/FdIo.h"

#include <unistd.h>

#include <cerrno>

namespace Osb::posix {

int ReadAll(int fd, std::string& text) {
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got == 0) return 0;
        if (got < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = ::write(fd, text.data(), text.size());
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            if (put == 0) errno = ENOSPC;
            return false;
        }
        text.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

}  // namespace Osb::posix
