// The handlers of the connection family, their reply writers, and what every handler shares: the
// refusal of a body the codec does not take, and the sending of an encoded reply. They run under
// the client's mutex (Dispatch), so the client's fields need no other guard.
#pragma once

#include <cstdint>

#include "service/VigilClient.h"
#include "service/VigilCodec.h"

namespace Vigil {

using Codec::RequestBody;

// Hello: stores the client's GUID and version, then accepts versions 0.x and 1.0 and answers with
// the client's id; a later version gets ExInvalidVersion, its values stored all the same.
void HandleHello(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);
// ConnectionCheck: the first field must be 0.
void HandleConnectionCheck(const ClientSoftRef& client, uint32_t requestId,
                           const RequestBody& body);
// ConnectionNoop: nothing but the length check and the reply.
void HandleConnectionNoop(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);

void SendHelloReply(const ClientSoftRef& client, uint32_t requestId, uint32_t protocolMajor,
                    uint32_t protocolMinor, uint32_t programMajor, uint32_t programMinor,
                    uint32_t programBuild);
// A reply of `code` whose body is one 32-bit status of 0.
void SendStatusReply(const ClientSoftRef& client, uint32_t requestId, uint32_t code);

// Raises ExInvalidLength or ExInvalidDataValues for a refusal of the codec.
void Require(Codec::Result result);
// The message in `message`, whose first kHeaderBytes were reserved for the header, sent as a reply
// of `code` to the client. A body too long for bodyLength raises std::length_error.
void SendMessage(const ClientSoftRef& client, const Codec::Bytes& message, uint32_t code,
                 uint32_t requestId);
// A buffer with the header's room reserved, for the encoders to append a body to.
Codec::Bytes NewMessage();

}  // namespace Vigil
