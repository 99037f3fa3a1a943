#include "service/VigilHandlers.h"

#include <cstring>
#include <stdexcept>

#include "service/VigilClientIo.h"
#include "service/VigilExceptions.h"

namespace Vigil {

using namespace Protocol;

void Require(Codec::Result result) {
    switch (result) {
        case Codec::Result::kOk:
            return;
        case Codec::Result::kInvalidLength:
            throw ExInvalidLength(OSB_HERE);
        case Codec::Result::kInvalidDataValues:
            throw ExInvalidDataValues(OSB_HERE);
    }
}

Codec::Bytes NewMessage() { return Codec::Bytes(kHeaderBytes); }

void SendMessage(const ClientSoftRef& client, const Codec::Bytes& message, uint32_t code,
                 uint32_t requestId) {
    if (message.size() - kHeaderBytes > UINT32_MAX - kHeaderBytes) {
        throw std::length_error("reply too long");
    }
    const auto size = static_cast<uint32_t>(message.size());
    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, size, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {code, size - kHeaderBytes, requestId, client->id});
    std::memcpy(out + kHeaderBytes, message.data() + kHeaderBytes, size - kHeaderBytes);
    request->length(size);
    client->send(request);
}

void HandleHello(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    Codec::HelloRequest hello;
    Require(Codec::decodeHello(body, hello));

    // Stored before the version test, so that a refused Hello leaves its values in force.
    client->guid.bytes = hello.guid;
    client->versionMajor = hello.versionMajor;
    client->versionMinor = hello.versionMinor;

    if (client->versionMajor > kProtocolMajor) throw ExInvalidVersion(OSB_HERE);
    if (client->versionMajor == kProtocolMajor && client->versionMinor > kProtocolMinor) {
        throw ExInvalidVersion(OSB_HERE);
    }
    SendHelloReply(client, requestId, kProtocolMajor, kProtocolMinor, kProgramMajor, kProgramMinor,
                   kProgramBuild);
}

void HandleConnectionCheck(const ClientSoftRef& client, uint32_t requestId,
                           const RequestBody& body) {
    Require(Codec::decodeConnectionCheck(body));
    SendStatusReply(client, requestId, kConnectionCheckReply);
}

void HandleConnectionNoop(const ClientSoftRef& client, uint32_t requestId,
                          const RequestBody& body) {
    Require(Codec::decodeConnectionNoop(body));
    SendStatusReply(client, requestId, kConnectionNoopReply);
}

void SendHelloReply(const ClientSoftRef& client, uint32_t requestId, uint32_t protocolMajor,
                    uint32_t protocolMinor, uint32_t programMajor, uint32_t programMinor,
                    uint32_t programBuild) {
    Codec::Bytes message = NewMessage();
    Codec::encodeHelloReply(
        {protocolMinor, protocolMajor, client->id, programMajor, programMinor, programBuild},
        message);
    SendMessage(client, message, kHelloReply, requestId);
}

void SendStatusReply(const ClientSoftRef& client, uint32_t requestId, uint32_t code) {
    Codec::Bytes message = NewMessage();
    Codec::encodeEmptyBody(message);
    SendMessage(client, message, code, requestId);
}

}  // namespace Vigil
