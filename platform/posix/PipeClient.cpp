#include "platform/PipeClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/SystemRoot.h"

namespace Osb {

namespace {

class SocketPipeClient : public PipeClient {
  public:
    explicit SocketPipeClient(int fd) : fd_(fd) {}
    ~SocketPipeClient() override { close(); }

    void writeAll(const void* data, size_t bytes) override {
        const auto* at = static_cast<const uint8_t*>(data);
        while (bytes > 0) {
            ssize_t sent = ::send(fd_, at, bytes, MSG_NOSIGNAL);
            if (sent < 0) {
                if (errno == EINTR) continue;
                throw ExSystem(SetLastErrorFromErrno(errno), OSB_HERE);
            }
            at += sent;
            bytes -= static_cast<size_t>(sent);
        }
    }

    size_t readSome(void* data, size_t bytes) override {
        for (;;) {
            ssize_t got = ::recv(fd_, data, bytes, 0);
            if (got >= 0) return static_cast<size_t>(got);
            if (errno == EINTR) continue;
            if (errno == ECONNRESET) return 0;
            throw ExSystem(SetLastErrorFromErrno(errno), OSB_HERE);
        }
    }

    bool waitReadable(int timeoutMs) override {
        pollfd p{fd_, POLLIN, 0};
        for (;;) {
            int ready = ::poll(&p, 1, timeoutMs);
            if (ready >= 0) return ready > 0;
            if (errno != EINTR) throw ExSystem(SetLastErrorFromErrno(errno), OSB_HERE);
        }
    }

    void closeSending() override {
        if (fd_ >= 0 && ::shutdown(fd_, SHUT_WR) != 0) {
            throw ExSystem(SetLastErrorFromErrno(errno), OSB_HERE);
        }
    }

    void close() override {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

}  // namespace

std::unique_ptr<PipeClient> PipeClient::Connect(const std::u16string& name) {
    std::string path;
    if (uint32_t status = PipeSocketPath(name, path)) {
        SetLastError(status);
        throw ExSystem(status, OSB_HERE);
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw ExSystem(SetLastErrorFromErrno(errno), OSB_HERE);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    while (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno == EINTR) continue;
        int err = errno;
        ::close(fd);
        // No socket, or nobody behind it: the pipe does not exist.
        uint32_t status = (err == ENOENT || err == ECONNREFUSED) ? Err::kFileNotFound
                                                                 : SetLastErrorFromErrno(err);
        SetLastError(status);
        throw ExSystem(status, OSB_HERE);
    }
    return std::make_unique<SocketPipeClient>(fd);
}

}  // namespace Osb
