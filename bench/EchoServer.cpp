#include "bench/EchoServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "platform/SystemRoot.h"

namespace vigil_bench {

EchoServer::EchoServer(const std::u16string& pipeName) {
    if (Osb::PipeSocketPath(pipeName, path_) != 0) throw std::runtime_error("bad echo pipe name");
    std::string folder = path_.substr(0, path_.rfind('/'));
    if (Osb::CreateDirectories(folder) != 0) throw std::runtime_error("cannot make " + folder);
    ::unlink(path_.c_str());
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(listenFd_, 256) != 0) {
        throw std::runtime_error("echo server cannot listen on " + path_);
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

EchoServer::~EchoServer() {
    stopping_ = true;
    ::shutdown(listenFd_, SHUT_RDWR);
    acceptor_.join();
    for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
    for (auto& worker : workers_) worker.join();
    for (int fd : connections_) ::close(fd);
    ::close(listenFd_);
    ::unlink(path_.c_str());
}

void EchoServer::acceptLoop() {
    while (!stopping_) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) break;
        connections_.push_back(fd);
        workers_.emplace_back([fd] {
            char buffer[4096];
            for (;;) {
                ssize_t n = ::read(fd, buffer, sizeof(buffer));
                if (n <= 0) return;
                for (ssize_t sent = 0; sent < n;) {
                    ssize_t w =
                        ::send(fd, buffer + sent, static_cast<size_t>(n - sent), MSG_NOSIGNAL);
                    if (w <= 0) return;
                    sent += w;
                }
            }
        });
    }
}

}  // namespace vigil_bench
