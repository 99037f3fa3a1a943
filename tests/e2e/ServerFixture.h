// A pipe server of the service in this process: the platform, the dispatch tables, the watch
// database opened on a data folder below a scratch system root, and one ClientAccept on a pipe of
// its own there. Connections talk raw bytes.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/IoDevicePipeServer.h"
#include "platform/PipeClient.h"
#include "tests/service/ClientHarness.h"
#include "tests/support/ScratchRoot.h"

namespace vigil_test {

class Connection {
  public:
    explicit Connection(const std::u16string& pipe) : pipe_(Osb::PipeClient::Connect(pipe)) {}
    void send(const Bytes& bytes) { pipe_->writeAll(bytes.data(), bytes.size()); }
    // The next whole reply; fails the test when none comes within `timeoutMs`.
    Reply receive(int timeoutMs = 10000);
    // True when nothing arrives within `timeoutMs`.
    bool silentFor(int timeoutMs) { return !pipe_->waitReadable(timeoutMs); }
    // True when the server closed the connection (a read returns 0) within `timeoutMs`.
    bool closedWithin(int timeoutMs);
    // Sends Hello with `guid` and version 1.0; returns the id the reply gave.
    uint32_t hello(const Vigil::Watch::Guid& guid, uint32_t requestId = 1);
    Osb::PipeClient& pipe() { return *pipe_; }

  private:
    std::unique_ptr<Osb::PipeClient> pipe_;
};

class ServerFixture : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Stops the server and the platform (also done by TearDown).
    void stopServer();

    std::optional<ScratchRoot> root_;
    std::string dataFolder_;  // the watch database's, ends with '/'; the cache file is in it
    std::u16string pipeName_;
    Osb::SmartPointer<Osb::IoDevicePipeServer> server_;
    bool running_ = false;
};

}  // namespace vigil_test
