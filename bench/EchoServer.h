// The baseline of the request/reply benchmark: a minimal echo server on the same kind of socket as
// the service's pipe, one blocking thread per connection, writing back whatever it reads.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vigil_bench {

class EchoServer {
  public:
    // Listens on the socket path of pipe `pipeName`.
    explicit EchoServer(const std::u16string& pipeName);
    ~EchoServer();

  private:
    void acceptLoop();

    int listenFd_ = -1;
    std::string path_;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::vector<std::thread> workers_;  // owned by the acceptor thread until the destructor
    std::vector<int> connections_;
};

}  // namespace vigil_bench
