// A datagram socket that a test binds and reads: the far end of a notification or journal socket
// that the code under test writes to.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

namespace vigil_test {

class DatagramSink {
  public:
    // `name` is a path, or an abstract name written with a leading '@'. bound() tells whether
    // the bind worked.
    explicit DatagramSink(const std::string& name) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (fd_ < 0 || name.empty() || name.size() >= sizeof(address.sun_path)) return;
        std::memcpy(address.sun_path, name.data(), name.size());
        const bool abstract = name[0] == '@';
        if (abstract) address.sun_path[0] = '\0';
        const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) +
                                                      name.size() + (abstract ? 0 : 1));
        if (!abstract) ::unlink(name.c_str());
        bound_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), size) == 0;
    }
    ~DatagramSink() {
        if (fd_ >= 0) ::close(fd_);
    }
    DatagramSink(const DatagramSink&) = delete;
    DatagramSink& operator=(const DatagramSink&) = delete;

    bool bound() const { return bound_; }

    // The next datagram, or nothing when none came within `limit`.
    std::optional<std::string> next(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        pollfd entry = {fd_, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(limit.count())) != 1) return std::nullopt;
        std::string data(1 << 16, '\0');
        const ssize_t got = ::recv(fd_, data.data(), data.size(), 0);
        if (got < 0) return std::nullopt;
        data.resize(static_cast<size_t>(got));
        return data;
    }

  private:
    int fd_ = -1;
    bool bound_ = false;
};

}  // namespace vigil_test
