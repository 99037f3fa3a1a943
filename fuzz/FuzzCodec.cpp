// Every decoder of the wire codec against arbitrary bytes, with a round trip: whatever a decoder
// takes must encode to a body that decodes to the same value and encodes to the same bytes again.
// The first byte picks the decoder; the rest is the body. AddressSanitizer proves that nothing
// outside the body is read, whatever its offsets and counts say.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "service/VigilCodec.h"

namespace {

using namespace Vigil::Codec;

// A round trip that breaks is a fault of the codec: stop with a crash libFuzzer records.
void Expect(bool holds) {
    if (!holds) std::abort();
}

bool Same(const FolderChanges& a, const FolderChanges& b) {
    return a.path == b.path && a.names == b.names;
}

bool Same(const std::vector<FolderChanges>& a, const std::vector<FolderChanges>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const FolderChanges& x, const FolderChanges& y) { return Same(x, y); });
}

// decode(encode(v)) == v and encode(decode(encode(v))) == encode(v), for a value `v` that decoded.
template <typename Value, typename Encode, typename Decode, typename Same>
void RoundTrip(const Value& value, Encode encode, Decode decode, Same same) {
    Bytes first;
    encode(value, first);
    Value again{};
    Expect(decode(RequestBody(first), again) == Result::kOk);
    Expect(same(value, again));
    Bytes second;
    encode(again, second);
    Expect(first == second);
}

bool SameList(const FolderListRequest& a, const FolderListRequest& b, bool withOptions) {
    if (a.watchSubtree != b.watchSubtree || a.paths != b.paths) return false;
    return !withOptions || (a.reportChanged == b.reportChanged && a.reportRemoved == b.reportRemoved);
}

void AddFolders(const RequestBody& body, uint32_t versionMajor) {
    FolderListRequest request;
    if (decodeAddFolders(body, versionMajor, request) != Result::kOk) return;
    RoundTrip(
        request, [&](const FolderListRequest& v, Bytes& out) { encodeAddFolders(versionMajor, v, out); },
        [&](const RequestBody& b, FolderListRequest& v) { return decodeAddFolders(b, versionMajor, v); },
        [&](const FolderListRequest& a, const FolderListRequest& b) {
            return SameList(a, b, versionMajor >= 1);
        });
}

void RemoveChanges(const RequestBody& body) {
    RemoveChangesRequest request;
    if (decodeRemoveChanges(body, request) != Result::kOk) return;
    // Copied out folder by folder, it is a changes list; that list must survive the round trip
    // through the request's own decoder.
    std::vector<FolderChanges> changes(request.folderCount());
    for (uint32_t i = 0; i < request.folderCount(); ++i) {
        request.folder(i, changes[i].path, changes[i].names);
        Expect(changes[i].names.size() == request.nameCount(i));
    }
    Bytes encoded;
    encodeChanges(changes, encoded);
    Expect(encoded.size() == changesBodyBytes(changes));
    RemoveChangesRequest again;
    Expect(decodeRemoveChanges(RequestBody(encoded), again) == Result::kOk);
    Expect(again.folderCount() == request.folderCount());
    for (uint32_t i = 0; i < again.folderCount(); ++i) {
        FolderChanges folder;
        again.folder(i, folder.path, folder.names);
        Expect(Same(folder, changes[i]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    const RequestBody body(bytes);
    switch (data[0] % 13) {
        case 0: {
            Vigil::Protocol::MessageHeader header;
            if (decodeHeader(bytes, header) != Result::kOk) break;
            Bytes out;
            encodeHeader(header, out);
            Expect(out.size() == Vigil::Protocol::kHeaderBytes &&
                   std::equal(out.begin(), out.end(), bytes.begin()));
            break;
        }
        case 1: {
            HelloRequest hello;
            if (decodeHello(body, hello) != Result::kOk) break;
            RoundTrip(hello, encodeHello, decodeHello, [](const HelloRequest& a, const HelloRequest& b) {
                return a.versionMinor == b.versionMinor && a.versionMajor == b.versionMajor &&
                       a.guid == b.guid;
            });
            break;
        }
        case 2: {
            HelloReply reply;
            if (decodeHelloReply(body, reply) != Result::kOk) break;
            RoundTrip(reply, encodeHelloReply, decodeHelloReply, [](const HelloReply& a, const HelloReply& b) {
                return a.protocolMinor == b.protocolMinor && a.protocolMajor == b.protocolMajor &&
                       a.clientId == b.clientId && a.programMajor == b.programMajor &&
                       a.programMinor == b.programMinor && a.programBuild == b.programBuild;
            });
            break;
        }
        case 3:
            if (decodeConnectionCheck(body) == Result::kOk) {
                Bytes out;
                encodeConnectionCheck(0, out);
                Expect(decodeConnectionCheck(RequestBody(out)) == Result::kOk);
            }
            (void)decodeConnectionNoop(body);
            (void)decodeGetFolders(body);
            break;
        case 4: {
            uint32_t status = 0;
            (void)decodeStatusReply(body, status);
            break;
        }
        case 5: {
            ErrorReply reply;
            if (decodeErrorReply(body, reply) != Result::kOk) break;
            RoundTrip(reply, encodeErrorReply, decodeErrorReply, [](const ErrorReply& a, const ErrorReply& b) {
                return a.status == b.status && a.reasons == b.reasons;
            });
            break;
        }
        case 6:
            AddFolders(body, 0);
            break;
        case 7:
            AddFolders(body, 1);
            break;
        case 8: {
            FolderListRequest request;
            if (decodeRemoveFolders(body, request) != Result::kOk) break;
            RoundTrip(request, encodeRemoveFolders, decodeRemoveFolders,
                      [](const FolderListRequest& a, const FolderListRequest& b) {
                          return SameList(a, b, false);
                      });
            break;
        }
        case 9: {
            bool clear = false;
            if (decodeGetChanges(body, clear) != Result::kOk) break;
            RoundTrip(clear, encodeGetChanges, decodeGetChanges,
                      [](bool a, bool b) { return a == b; });
            break;
        }
        case 10: {
            std::vector<std::u16string> paths;
            if (decodeFolderListReply(body, paths) != Result::kOk) break;
            RoundTrip(paths, encodeFolderListReply, decodeFolderListReply,
                      [](const auto& a, const auto& b) { return a == b; });
            break;
        }
        case 11: {
            std::vector<FolderChanges> changes;
            if (decodeChangesReply(body, changes) != Result::kOk) break;
            RoundTrip(changes, encodeChanges, decodeChangesReply,
                      [](const auto& a, const auto& b) { return Same(a, b); });
            break;
        }
        case 12:
            RemoveChanges(body);
            break;
    }
    return 0;
}
