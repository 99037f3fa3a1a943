#include "service/VigilHandlers.h"

#include <cstring>

#include "service/VigilClientIo.h"
#include "service/VigilExceptions.h"

namespace Vigil {

using namespace Protocol;

void HandleHello(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    if (body.length < kHelloMinBody) throw ExInvalidLength(OSB_HERE);
    if (!body.has(0, kHelloMinBody)) throw ExInvalidLength(OSB_HERE);

    // Stored before the version test, so that a refused Hello leaves its values in force.
    std::memcpy(client->guid.bytes.data(), body.data + 8, kGuidBytes);
    client->versionMajor = body.field(4);
    client->versionMinor = body.field(0);

    if (client->versionMajor > kProtocolMajor) throw ExInvalidVersion(OSB_HERE);
    if (client->versionMajor == kProtocolMajor && client->versionMinor > kProtocolMinor) {
        throw ExInvalidVersion(OSB_HERE);
    }
    SendHelloReply(client, requestId, kProtocolMajor, kProtocolMinor, kProgramMajor, kProgramMinor,
                   kProgramBuild);
}

void HandleConnectionCheck(const ClientSoftRef& client, uint32_t requestId,
                           const RequestBody& body) {
    if (body.length < kConnectionCheckMinBody) throw ExInvalidLength(OSB_HERE);
    if (body.field(0) != 0) throw ExInvalidDataValues(OSB_HERE);
    SendStatusReply(client, requestId, kConnectionCheckReply);
}

void HandleConnectionNoop(const ClientSoftRef& client, uint32_t requestId,
                          const RequestBody& body) {
    if (body.length < kConnectionNoopMinBody) throw ExInvalidLength(OSB_HERE);
    SendStatusReply(client, requestId, kConnectionNoopReply);
}

void SendHelloReply(const ClientSoftRef& client, uint32_t requestId, uint32_t protocolMajor,
                    uint32_t protocolMinor, uint32_t programMajor, uint32_t programMinor,
                    uint32_t programBuild) {
    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, kHeaderBytes + kHelloReplyBody, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {kHelloReply, kHelloReplyBody, requestId, client->id});
    uint8_t* body = out + kHeaderBytes;
    Store32(body + 0, protocolMinor);
    Store32(body + 4, protocolMajor);
    Store32(body + 8, client->id);
    Store32(body + 12, programMajor);
    Store32(body + 16, programMinor);
    Store32(body + 20, programBuild);
    client->send(request);
}

void SendStatusReply(const ClientSoftRef& client, uint32_t requestId, uint32_t code) {
    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, kHeaderBytes + kStatusReplyBody, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {code, kStatusReplyBody, requestId, client->id});
    Store32(out + kHeaderBytes, 0);
    client->send(request);
}

}  // namespace Vigil
