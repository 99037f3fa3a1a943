// Dispatch: the header checks, the two handler tables, and the Error reply.
//
// The tables exist from InitDispatch to TermDispatch and do not change in between. A message that
// arrives outside that span (after TermDispatch, while the pipe server still runs) is dropped
// without a reply: it never reaches a freed table.
#pragma once

#include <cstdint>

#include "platform/Exception.h"
#include "service/VigilClient.h"
#include "service/VigilCodecReader.h"

namespace Vigil {

// A request handler. It signals failure by raising; Dispatch turns that into an Error reply.
using Handler = void (*)(const ClientSoftRef& client, uint32_t requestId,
                         const Codec::RequestBody& body);

struct DispatchTable {
    uint32_t family;
    Handler handlers[256];
};

// Builds both tables. Called once at the start of the service's run, before clients can connect.
void InitDispatch();
// Frees both tables. Waits for dispatches in progress to end.
void TermDispatch();

// Checks the header of `message` (of which `available` bytes, at least 16, are in hand), calls the
// handler, and answers every failure with an Error. Returns normally in every case.
// REQUIRES: the client's mutex is held.
void Dispatch(const ClientSoftRef& client, const uint8_t* message, uint32_t available);

// Writes an Error reply carrying the reasons of `error`, then dumps them to standard error.
void SendError(const ClientSoftRef& client, uint32_t requestId, uint32_t status,
               const Osb::Exception& error);

// The handler of every slot without one of its own.
void HandleUnsupported(const ClientSoftRef& client, uint32_t requestId,
                       const Codec::RequestBody& body);

}  // namespace Vigil
