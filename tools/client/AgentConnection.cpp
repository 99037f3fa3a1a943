#include "tools/client/AgentConnection.h"

#include <algorithm>
#include <string>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "service/VigilCodec.h"
#include "service/VigilProtocol.h"

namespace vigil_client {

using namespace Vigil::Protocol;

namespace {
std::string FirstReason(const ErrorReply& reply) {
    return reply.reasons.empty() ? "the service refused the request" : reply.reasons.front();
}
}  // namespace

RequestRefused::RequestRefused(ErrorReply reply)
    : std::runtime_error(FirstReason(reply)), reply_(std::move(reply)) {}

AgentConnection::AgentConnection(const std::u16string& pipeName)
    : pipe_(Osb::PipeClient::Connect(pipeName)) {}

void AgentConnection::readReply(void* data, size_t bytes,
                                std::chrono::steady_clock::time_point deadline) {
    auto* at = static_cast<uint8_t*>(data);
    while (bytes > 0) {
        if (replyTimeoutMs_ >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !pipe_->waitReadable(static_cast<int>(left.count()))) {
                throw Osb::ExSystem(Osb::Err::kTimeout, OSB_HERE);
            }
        }
        const size_t got = pipe_->readSome(at, bytes);
        if (got == 0) throw Osb::ExSystem(Osb::Err::kBrokenPipe, OSB_HERE);
        at += got;
        bytes -= got;
    }
}

Reply AgentConnection::request(uint32_t code, const Bytes& body) {
    const uint32_t requestId = nextRequestId_++;
    Bytes message = Frame(code, requestId, code == kHello ? 0 : clientId_, body);
    pipe_->writeAll(message.data(), message.size());

    // One deadline for the whole reply: a service that sends a header and stalls is no better.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(replyTimeoutMs_, 0));
    uint8_t header[kHeaderBytes];
    readReply(header, sizeof(header), deadline);
    MessageHeader h{};
    Vigil::Codec::decodeHeader(header, h);  // cannot fail: the whole header is in hand
    Reply reply{h.code, h.requestId, h.clientId, {}};
    // Grown as the bytes come, so a length field that lies costs no more memory than the bytes
    // that really arrive.
    constexpr size_t kChunk = size_t{1} << 20;
    for (size_t have = 0; have < h.bodyLength;) {
        const size_t piece = std::min<size_t>(kChunk, h.bodyLength - have);
        reply.body.resize(have + piece);
        readReply(reply.body.data() + have, piece, deadline);
        have += piece;
    }
    if (reply.requestId != requestId) throw DecodeError("the reply answers another request");
    return reply;
}

Bytes AgentConnection::expect(uint32_t code, const Bytes& body) {
    // The service could not reassemble it: what it did not take would be read as new messages.
    if (body.size() > MaxRequestBody()) {
        throw std::length_error("the request has " + std::to_string(body.size()) +
                                " bytes of body; the service takes at most " +
                                std::to_string(MaxRequestBody()));
    }
    Reply reply = request(code, body);
    if (reply.code == kError) throw RequestRefused(DecodeErrorReply(reply.body));
    if (reply.code != ReplyCodeOf(code)) throw DecodeError("the reply has an unexpected code");
    return std::move(reply.body);
}

HelloReply AgentConnection::hello(const Guid& guid, uint32_t versionMajor, uint32_t versionMinor) {
    Reply reply = request(kHello, EncodeHello(versionMajor, versionMinor, guid));
    // Even a refused Hello names the client's id in its header.
    clientId_ = reply.clientId;
    if (reply.code == kError) throw RequestRefused(DecodeErrorReply(reply.body));
    if (reply.code != kHelloReply) throw DecodeError("the reply has an unexpected code");
    versionMajor_ = versionMajor;
    return DecodeHelloReply(reply.body);
}

void AgentConnection::connectionCheck() {
    DecodeStatusReply(expect(kConnectionCheck, EncodeConnectionCheck()));
}

void AgentConnection::connectionNoop() {
    DecodeStatusReply(expect(kConnectionNoop, EncodeEmptyRequest()));
}

std::vector<std::string> AgentConnection::getFolders() {
    return DecodeFolderList(expect(kGetFolders, EncodeEmptyRequest()));
}

void AgentConnection::addFolders(const FolderOptions& options,
                                 const std::vector<std::string>& paths) {
    DecodeStatusReply(expect(kAddFolders, EncodeAddFolders(versionMajor_, options, paths)));
}

void AgentConnection::removeFolders(bool watchSubtree, const std::vector<std::string>& paths) {
    DecodeStatusReply(expect(kRemoveFolders, EncodeRemoveFolders(watchSubtree, paths)));
}

std::vector<FolderChanges> AgentConnection::getChanges(bool clear, Bytes* rawBody) {
    Bytes body = expect(kGetChanges, EncodeGetChanges(clear));
    std::vector<FolderChanges> changes = DecodeChanges(body);
    if (rawBody) *rawBody = std::move(body);
    return changes;
}

void AgentConnection::removeChanges(const Bytes& getChangesBody) {
    if (getChangesBody.size() <= MaxRequestBody()) {
        DecodeStatusReply(expect(kRemoveChanges, getChangesBody));
        return;
    }
    // Too long to be reassembled in one piece: the same names in several requests.
    for (const Bytes& body : EncodeRemoveChangesRequests(DecodeChanges(getChangesBody))) {
        DecodeStatusReply(expect(kRemoveChanges, body));
    }
}

}  // namespace vigil_client
