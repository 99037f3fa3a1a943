#include "tests/service/ClientHarness.h"

#include <cstring>
#include <stdexcept>

#include "platform/IoRequest.h"
#include "platform/MessageTable.h"

namespace vigil_test {

using namespace Vigil::Protocol;

Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, uint32_t bodyLength,
              const Bytes& body) {
    // Sized once and filled in place (GCC 12 warns falsely on a vector insert after 16 bytes).
    Bytes m(16 + body.size());
    StoreHeader(m.data(), {code, bodyLength, requestId, clientId});
    if (!body.empty()) std::memcpy(m.data() + 16, body.data(), body.size());
    return m;
}

Bytes Request(uint32_t code, uint32_t clientId, uint32_t requestId, const Bytes& body) {
    return Request(code, clientId, requestId, static_cast<uint32_t>(body.size()), body);
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
    Bytes body = Le32({minor, major});
    body.insert(body.end(), guid.bytes.begin(), guid.bytes.end());
    return body;
}

std::vector<std::u16string> Reply::errorTexts() const {
    std::vector<std::u16string> texts;
    if (header.code != kError) return texts;
    if (body.size() < 16) throw std::runtime_error("short Error body");
    uint32_t count = Load32(body.data() + 4);
    uint32_t table = Load32(body.data() + 12);
    for (uint32_t i = 0; i < count; ++i) {
        size_t entry = table + size_t{12} * i;
        if (entry + 12 > body.size()) throw std::runtime_error("Error table past the body");
        uint32_t offset = Load32(body.data() + entry);
        uint32_t bytes = Load32(body.data() + entry + 4);
        if (bytes < 2 || bytes % 2 != 0 || size_t{offset} + bytes > body.size()) {
            throw std::runtime_error("Error string past the body");
        }
        std::u16string text((bytes - 2) / 2, u'\0');
        std::memcpy(text.data(), body.data() + offset, bytes - 2);
        if (body[offset + bytes - 2] != 0 || body[offset + bytes - 1] != 0) {
            throw std::runtime_error("Error string without terminator");
        }
        texts.push_back(text);
    }
    return texts;
}

DrivenClient::DrivenClient() : DrivenClient(Osb::ProcessIdentity()) {}

DrivenClient::DrivenClient(const Osb::PeerIdentity& peer)
    : client_(Vigil::Client::create(Osb::SmartPointer<Osb::IoDevice>(), peer)) {
    client_->setSendHookForTesting([this](const Osb::SmartPointer<Osb::IoRequest>& request) {
        Reply reply;
        reply.raw.assign(request->buffer(), request->buffer() + request->length());
        if (reply.raw.size() < 16) throw std::runtime_error("reply shorter than a header");
        reply.header = LoadHeader(reply.raw.data());
        reply.body.assign(reply.raw.begin() + 16, reply.raw.end());
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
