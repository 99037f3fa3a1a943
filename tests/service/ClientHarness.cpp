#include "tests/service/ClientHarness.h"

#include <stdexcept>

#include "platform/IoRequest.h"
#include "platform/MessageTable.h"
#include "service/VigilCodec.h"

namespace vigil_test {

using namespace Vigil::Protocol;

Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, uint32_t bodyLength,
              const Bytes& body) {
    // Built whole, then given the bodyLength a test wants to lie about.
    Bytes m = Vigil::Codec::message(code, requestId, clientId, body);
    StoreHeader(m.data(), {code, bodyLength, requestId, clientId});
    return m;
}

Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, const Bytes& body) {
    return Vigil::Codec::message(code, requestId, clientId, body);
}

Bytes Le32(std::initializer_list<uint32_t> values) {
    Bytes out;
    for (uint32_t v : values) {
        uint8_t b[4];
        Store32(b, v);
        out.insert(out.end(), b, b + 4);
    }
    return out;
}

Bytes HelloBody(uint32_t major, uint32_t minor, const Vigil::Watch::Guid& guid) {
    Bytes body;
    Vigil::Codec::encodeHello({minor, major, guid.bytes}, body);
    return body;
}

std::vector<std::u16string> Reply::errorTexts() const {
    if (header.code != kError) return {};
    Vigil::Codec::ErrorReply error;
    if (Vigil::Codec::decodeErrorReply(body, error) != Vigil::Codec::Result::kOk) {
        throw std::runtime_error("malformed Error body");
    }
    return error.reasons;
}

DrivenClient::DrivenClient() : DrivenClient(Osb::ProcessIdentity()) {}

DrivenClient::DrivenClient(const Osb::PeerIdentity& peer)
    : client_(Vigil::Client::create(Osb::SmartPointer<Osb::IoDevice>(), peer)) {
    client_->setSendHookForTesting([this](const Osb::SmartPointer<Osb::IoRequest>& request) {
        Reply reply;
        reply.raw.assign(request->buffer(), request->buffer() + request->length());
        if (Vigil::Codec::decodeHeader(reply.raw, reply.header) != Vigil::Codec::Result::kOk) {
            throw std::runtime_error("reply shorter than a header");
        }
        reply.body.assign(reply.raw.begin() + kHeaderBytes, reply.raw.end());
        if (reply.body.size() != reply.header.bodyLength) {
            throw std::runtime_error("bodyLength does not match the reply's size");
        }
        replies_.push_back(std::move(reply));
    });
}

void DrivenClient::feed(const Bytes& bytes) {
    client_->onData(static_cast<uint32_t>(bytes.size()), bytes.data());
}

std::vector<Reply> DrivenClient::take() {
    std::vector<Reply> out;
    out.swap(replies_);
    return out;
}

std::u16string EnglishText(uint32_t messageId) {
    return std::u16string(Osb::MessageText(messageId, Osb::MessageLanguage::kEnglish));
}

}  // namespace vigil_test
