// The header, the connection family and the replies every request may get (status, Error).
#include "service/VigilCodec.h"

#include <cstring>

#include "service/VigilCodecWriter.h"

namespace Vigil::Codec {

using namespace Protocol;
using namespace Writer;

namespace {

// The body is at least `minimum` bytes long, as announced and as in hand.
Result Minimum(const BodyReader& reader, uint32_t minimum) {
    if (reader.announced() < minimum || !reader.has(0, minimum)) return Result::kInvalidLength;
    return Result::kOk;
}

}  // namespace

const char* Describe(Result result) {
    switch (result) {
        case Result::kOk:
            return "well formed";
        case Result::kInvalidLength:
            return "the body is too short or points outside itself";
        case Result::kInvalidDataValues:
            return "the body holds a value that cannot be taken";
    }
    return "unknown";
}

Result decodeHeader(std::span<const uint8_t> message, MessageHeader& out) {
    if (message.size() < kHeaderBytes) return Result::kInvalidLength;
    out = LoadHeader(message.data());
    return Result::kOk;
}

void encodeHeader(const MessageHeader& header, Bytes& out) {
    const size_t at = out.size();
    out.resize(at + kHeaderBytes);
    StoreHeader(out.data() + at, header);
}

bool frameMessage(Bytes& message, uint32_t code, uint32_t requestId, uint32_t clientId) {
    if (message.size() < kHeaderBytes || message.size() - kHeaderBytes > UINT32_MAX) return false;
    const auto bodyLength = static_cast<uint32_t>(message.size() - kHeaderBytes);
    StoreHeader(message.data(), {code, bodyLength, requestId, clientId});
    return true;
}

Bytes message(uint32_t code, uint32_t requestId, uint32_t clientId, std::span<const uint8_t> body) {
    Bytes out(kHeaderBytes + body.size());
    StoreHeader(out.data(), {code, static_cast<uint32_t>(body.size()), requestId, clientId});
    if (!body.empty()) std::memcpy(out.data() + kHeaderBytes, body.data(), body.size());
    return out;
}

Result decodeHello(RequestBody body, HelloRequest& out) {
    const BodyReader reader(body);
    if (Result r = Minimum(reader, kHelloMinBody); r != Result::kOk) return r;
    reader.u32(0, out.versionMinor);
    reader.u32(4, out.versionMajor);
    reader.copy(8, out.guid.data(), kGuidBytes);
    return Result::kOk;
}

void encodeHello(const HelloRequest& request, Bytes& out) {
    Put32(out, request.versionMinor);
    Put32(out, request.versionMajor);
    out.insert(out.end(), request.guid.begin(), request.guid.end());
}

Result decodeHelloReply(RequestBody body, HelloReply& out) {
    const BodyReader reader(body);
    if (Result r = Minimum(reader, kHelloReplyBody); r != Result::kOk) return r;
    uint32_t* fields[] = {&out.protocolMinor, &out.protocolMajor, &out.clientId,
                          &out.programMajor,  &out.programMinor,  &out.programBuild};
    for (uint32_t i = 0; i < 6; ++i) reader.u32(4 * i, *fields[i]);
    return Result::kOk;
}

void encodeHelloReply(const HelloReply& reply, Bytes& out) {
    for (uint32_t field : {reply.protocolMinor, reply.protocolMajor, reply.clientId,
                           reply.programMajor, reply.programMinor, reply.programBuild}) {
        Put32(out, field);
    }
}

Result decodeConnectionCheck(RequestBody body) {
    const BodyReader reader(body);
    if (reader.announced() < kConnectionCheckMinBody) return Result::kInvalidLength;
    uint32_t first = 0;
    if (Result r = reader.u32(0, first); r != Result::kOk) return r;
    return first == 0 ? Result::kOk : Result::kInvalidDataValues;
}

void encodeConnectionCheck(uint32_t firstField, Bytes& out) {
    Put32(out, firstField);
    out.resize(out.size() + kConnectionCheckMinBody - 4, 0);
}

Result decodeConnectionNoop(RequestBody body) {
    return body.length < kConnectionNoopMinBody ? Result::kInvalidLength : Result::kOk;
}

Result decodeGetFolders(RequestBody body) {
    return body.length < kGetFoldersMinBody ? Result::kInvalidLength : Result::kOk;
}

void encodeEmptyBody(Bytes& out) { Put32(out, 0); }

Result decodeStatusReply(RequestBody body, uint32_t& status) {
    return BodyReader(body).u32(0, status);
}

Result decodeErrorReply(RequestBody body, ErrorReply& out) {
    const BodyReader reader(body);
    uint32_t count = 0, table = 0;
    if (Result r = reader.u32(0, out.status); r != Result::kOk) return r;
    if (Result r = reader.u32(4, count); r != Result::kOk) return r;
    if (Result r = reader.u32(12, table); r != Result::kOk) return r;
    if (!reader.has(table, uint64_t{kStringRefBytes} * count)) return Result::kInvalidLength;
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t entry = table + uint64_t{kStringRefBytes} * i;
        uint32_t offset = 0, bytes = 0;
        reader.u32(entry, offset);
        reader.u32(entry + 4, bytes);
        std::u16string reason;
        if (Result r = reader.sizedString(offset, bytes, reason); r != Result::kOk) return r;
        out.reasons.push_back(std::move(reason));
    }
    return Result::kOk;
}

void encodeErrorReply(const ErrorReply& reply, Bytes& out) {
    const size_t base = out.size();
    Put32(out, reply.status);
    PutStringTable(out, base, reply.reasons);
}

Result decodeFolderListReply(RequestBody body, std::vector<std::u16string>& paths) {
    const BodyReader reader(body);
    uint32_t count = 0, table = 0;
    if (Result r = reader.u32(0, count); r != Result::kOk) return r;
    if (Result r = reader.u32(8, table); r != Result::kOk) return r;
    if (!reader.has(table, uint64_t{kStringRefBytes} * count)) return Result::kInvalidLength;
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t entry = table + uint64_t{kStringRefBytes} * i;
        uint32_t offset = 0, bytes = 0;
        reader.u32(entry, offset);
        reader.u32(entry + 4, bytes);
        std::u16string path;
        if (Result r = reader.sizedString(offset, bytes, path); r != Result::kOk) return r;
        paths.push_back(std::move(path));
    }
    return Result::kOk;
}

void encodeFolderListReply(const std::vector<std::u16string>& paths, Bytes& out) {
    PutStringTable(out, out.size(), paths);
}

}  // namespace Vigil::Codec
