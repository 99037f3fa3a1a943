// The handlers of the connection family and their reply writers. They run under the client's
// mutex (Dispatch), so the client's fields need no other guard.
#pragma once

#include <cstdint>

#include "service/VigilClient.h"
#include "service/VigilRequestBody.h"

namespace Vigil {

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

}  // namespace Vigil
