// Drives a Client without a socket: bytes go in through onData, replies are captured from its send
// hook. Requests are built with the helpers below.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/SmartPointer.h"
#include "service/VigilClient.h"
#include "service/VigilProtocol.h"

namespace vigil_test {

using Bytes = std::vector<uint8_t>;

Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, const Bytes& body);
Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, uint32_t bodyLength,
              const Bytes& body);
Bytes HelloBody(uint32_t major, uint32_t minor, const Vigil::Watch::Guid& guid);
Bytes Le32(std::initializer_list<uint32_t> values);

// One decoded reply.
struct Reply {
    Vigil::Protocol::MessageHeader header;
    Bytes body;
    Bytes raw;
    // The reason texts of an Error reply (empty for other codes).
    std::vector<std::u16string> errorTexts() const;
};

class DrivenClient {
  public:
    DrivenClient();
    // A client of the given user (the default is this process's own).
    explicit DrivenClient(const Osb::PeerIdentity& peer);
    void feed(const Bytes& bytes);
    uint32_t id() const { return client_->id; }
    Vigil::Client& client() { return *client_; }
    // Replies so far, oldest first; take() empties the list.
    std::vector<Reply> take();

  private:
    Osb::SmartPointer<Vigil::Client> client_;
    std::vector<Reply> replies_;
};

// The English text of a message id, as the service sends it.
std::u16string EnglishText(uint32_t messageId);

}  // namespace vigil_test
