#include "tools/client/ClientCodec.h"

#include <algorithm>
#include <stdexcept>

#include "platform/Utf.h"
#include "service/VigilCodec.h"
#include "service/VigilProtocol.h"

namespace vigil_client {

using namespace Vigil::Protocol;
namespace Codec = Vigil::Codec;

namespace {

std::vector<std::u16string> Wide(const std::vector<std::string>& utf8) {
    std::vector<std::u16string> out;
    out.reserve(utf8.size());
    for (const std::string& s : utf8) out.push_back(Osb::Utf8ToUtf16(s));
    return out;
}

std::vector<std::string> Narrow(const std::vector<std::u16string>& wide) {
    std::vector<std::string> out;
    out.reserve(wide.size());
    for (const std::u16string& s : wide) out.push_back(Osb::Utf16ToUtf8(s));
    return out;
}

void Check(Codec::Result result) {
    if (result != Codec::Result::kOk) throw DecodeError(Codec::Describe(result));
}

}  // namespace

Bytes Frame(uint32_t code, uint32_t requestId, uint32_t clientId, const Bytes& body) {
    return Codec::message(code, requestId, clientId, body);
}

Bytes EncodeHello(uint32_t versionMajor, uint32_t versionMinor, const Guid& guid) {
    Codec::HelloRequest hello{versionMinor, versionMajor, {}};
    std::copy(guid.begin(), guid.end(), hello.guid.begin());
    Bytes body;
    Codec::encodeHello(hello, body);
    return body;
}

Bytes EncodeConnectionCheck() {
    Bytes body;
    Codec::encodeConnectionCheck(0, body);
    return body;
}

Bytes EncodeEmptyRequest() {
    Bytes body;
    Codec::encodeEmptyBody(body);
    return body;
}

Bytes EncodeAddFolders(uint32_t versionMajor, const FolderOptions& options,
                       const std::vector<std::string>& paths) {
    Bytes body;
    Codec::encodeAddFolders(
        versionMajor,
        {options.watchSubtree, options.reportChanged, options.reportRemoved, Wide(paths)}, body);
    return body;
}

Bytes EncodeRemoveFolders(bool watchSubtree, const std::vector<std::string>& paths) {
    Bytes body;
    Codec::encodeRemoveFolders({watchSubtree, true, false, Wide(paths)}, body);
    return body;
}

Bytes EncodeGetChanges(bool clear) {
    Bytes body;
    Codec::encodeGetChanges(clear, body);
    return body;
}

Bytes EncodeRemoveChanges(const std::vector<FolderChanges>& changes) {
    std::vector<Codec::FolderChanges> wide;
    wide.reserve(changes.size());
    for (const FolderChanges& f : changes)
        wide.push_back({Osb::Utf8ToUtf16(f.path), Wide(f.names)});
    Bytes body;
    Codec::encodeChanges(wide, body);
    return body;
}

Bytes::size_type MaxRequestBody() { return kMaxRequestBytes - 1 - kHeaderBytes; }

std::vector<Bytes> EncodeRemoveChangesRequests(const std::vector<FolderChanges>& changes,
                                               Bytes::size_type maxBody) {
    // Bytes on the wire: UTF-16 units and the terminator.
    auto wireBytes = [](const std::string& utf8) { return 2 * Osb::Utf8ToUtf16(utf8).size() + 2; };
    std::vector<Bytes> bodies;
    std::vector<FolderChanges> chunk;
    size_t chunkBytes = kStatusArrayTable;
    auto flush = [&] {
        if (!chunk.empty()) bodies.push_back(EncodeRemoveChanges(chunk));
        chunk.clear();
        chunkBytes = kStatusArrayTable;
    };
    for (const FolderChanges& folder : changes) {
        const size_t folderBytes = kFolderRefBytes + wireBytes(folder.path);
        bool opened = false;  // the folder is the chunk's last entry
        for (const std::string& name : folder.names) {
            const size_t nameBytes = kStringRefBytes + wireBytes(name);
            if (chunkBytes + nameBytes + (opened ? 0 : folderBytes) > maxBody) {
                flush();
                opened = false;
                if (chunkBytes + folderBytes + nameBytes > maxBody) {
                    throw std::length_error("a name is too long for one request: " + name);
                }
            }
            if (!opened) {
                chunk.push_back({folder.path, {}});
                chunkBytes += folderBytes;
                opened = true;
            }
            chunk.back().names.push_back(name);
            chunkBytes += nameBytes;
        }
    }
    flush();
    return bodies;
}

HelloReply DecodeHelloReply(const Bytes& body) {
    Codec::HelloReply reply;
    Check(Codec::decodeHelloReply(body, reply));
    return HelloReply{reply.protocolMinor, reply.protocolMajor, reply.clientId,
                      reply.programMajor,  reply.programMinor,  reply.programBuild};
}

uint32_t DecodeStatusReply(const Bytes& body) {
    uint32_t status = 0;
    Check(Codec::decodeStatusReply(body, status));
    return status;
}

ErrorReply DecodeErrorReply(const Bytes& body) {
    Codec::ErrorReply reply;
    Check(Codec::decodeErrorReply(body, reply));
    return ErrorReply{reply.status, Narrow(reply.reasons)};
}

std::vector<std::string> DecodeFolderList(const Bytes& body) {
    std::vector<std::u16string> paths;
    Check(Codec::decodeFolderListReply(body, paths));
    return Narrow(paths);
}

std::vector<FolderChanges> DecodeChanges(const Bytes& body) {
    std::vector<Codec::FolderChanges> wide;
    Check(Codec::decodeChangesReply(body, wide));
    std::vector<FolderChanges> changes;
    changes.reserve(wide.size());
    for (const Codec::FolderChanges& f : wide) {
        changes.push_back({Osb::Utf16ToUtf8(f.path), Narrow(f.names)});
    }
    return changes;
}

}  // namespace vigil_client
