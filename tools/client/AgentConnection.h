// A connection to the service over its pipe, one request at a time: each request waits for its
// reply (or Error). Raises Osb::ExSystem when the pipe fails, DecodeError for a reply that does
// not hold together, and RequestRefused when the service answers with Error. The named requests
// raise std::length_error, sending nothing, for a body longer than the service reassembles
// (MaxRequestBody); request() sends whatever it is given.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/PipeClient.h"
#include "tools/client/ClientCodec.h"

namespace vigil_client {

struct Reply {
    uint32_t code = 0;
    uint32_t requestId = 0;
    uint32_t clientId = 0;
    Bytes body;
};

class RequestRefused : public std::runtime_error {
  public:
    explicit RequestRefused(ErrorReply reply);
    const ErrorReply& reply() const { return reply_; }

  private:
    ErrorReply reply_;
};

class AgentConnection {
  public:
    explicit AgentConnection(const std::u16string& pipeName);

    // Bounds the wait for each whole reply from now on (-1, the default: no bound); a reply that
    // does not arrive in time raises Osb::ExSystem with 1460 (ERROR_TIMEOUT).
    void setReplyTimeout(int timeoutMs) { replyTimeoutMs_ = timeoutMs; }

    // Sends one message as it is, whatever its length, and returns the reply, whatever its code.
    // The reply must carry the request's id.
    Reply request(uint32_t code, const Bytes& body);

    HelloReply hello(const Guid& guid, uint32_t versionMajor, uint32_t versionMinor);
    void connectionCheck();
    void connectionNoop();
    std::vector<std::string> getFolders();
    void addFolders(const FolderOptions& options, const std::vector<std::string>& paths);
    void removeFolders(bool watchSubtree, const std::vector<std::string>& paths);
    // The changes and the reply's raw body (to hand back as RemoveChanges).
    std::vector<FolderChanges> getChanges(bool clear, Bytes* rawBody = nullptr);
    // Hands a GetChanges reply's body back unchanged as RemoveChanges, or, when it is longer than
    // one request may be, the same names over several requests (std::length_error for a name
    // that cannot go in one request at all).
    void removeChanges(const Bytes& getChangesBody);

    uint32_t clientId() const { return clientId_; }
    uint32_t versionMajor() const { return versionMajor_; }

  private:
    // The reply of `code`'s request, or RequestRefused.
    Bytes expect(uint32_t code, const Bytes& body);

    // Reads exactly `bytes` of the reply under way, by `deadline` when the wait is bounded.
    void readReply(void* data, size_t bytes, std::chrono::steady_clock::time_point deadline);

    std::unique_ptr<Osb::PipeClient> pipe_;
    int replyTimeoutMs_ = -1;
    uint32_t clientId_ = 0;
    uint32_t versionMajor_ = 1;
    uint32_t nextRequestId_ = 1;
};

}  // namespace vigil_client
