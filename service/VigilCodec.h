// Every message of the wire format (VigilProtocol.h) encoded and decoded in one place, as pure
// functions over bytes: no I/O, no service, no platform. Strings are UTF-16 as the wire has them.
//
// Decoders. Each has the form `Result decodeX(RequestBody body, X& out)`; a plain
// std::span<const uint8_t> converts to a RequestBody whose announced length is its size, so
// `decodeX(bytes, out)` is the whole contract a caller needs. A decoder never reads outside the
// span, whatever the numbers inside it say, and refuses with:
//   kInvalidLength      the body is below the request's minimum bodyLength, or a field, a table
//                       entry or a string begins or reaches beyond the body;
//   kInvalidDataValues  the body is long enough but what it says cannot be taken: a string with no
//                       zero unit before it ends, a folder path that does not fit the 260-unit path
//                       buffer with the separator the parser adds, an empty folder path, a
//                       ConnectionCheck whose first field is not 0.
// Request decoders check what the service reads, in the order it reads it, so that a refusal names
// the first fault of the body; reply decoders (for clients) check every string by its byteLength.
// On a refusal `out` holds what was decoded before the fault and nothing else is promised of it.
//
// Encoders append a body to `out`. frameMessage() then puts the header in front: the caller
// reserves kHeaderBytes at the front of `out` before encoding, so that a reply is built once.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "service/VigilCodecReader.h"
#include "service/VigilProtocol.h"

namespace Vigil::Codec {

using Bytes = std::vector<uint8_t>;

// The separator every folder path leaves the folder list decoders with, added where missing.
constexpr char16_t kPathSeparator = u'/';
// A folder path is decoded in a buffer of this many units, terminator and separator included.
constexpr uint32_t kPathBufferUnits = 260;

// A text for a refusal, for messages of tools and tests.
const char* Describe(Result result);

// ---- Message header ----

// The header at the front of `message`; kInvalidLength below kHeaderBytes.
Result decodeHeader(std::span<const uint8_t> message, Protocol::MessageHeader& out);
void encodeHeader(const Protocol::MessageHeader& header, Bytes& out);
// Writes the header into the first kHeaderBytes of `message` (reserved by the caller), with the
// bodyLength of what follows. Returns false, writing nothing, when that length does not fit.
bool frameMessage(Bytes& message, uint32_t code, uint32_t requestId, uint32_t clientId);
// A whole message of `body` behind its header.
Bytes message(uint32_t code, uint32_t requestId, uint32_t clientId, std::span<const uint8_t> body);

// ---- Connection family ----

struct HelloRequest {
    uint32_t versionMinor = 0;
    uint32_t versionMajor = 0;
    std::array<uint8_t, Protocol::kGuidBytes> guid{};
};
struct HelloReply {
    uint32_t protocolMinor = 0, protocolMajor = 0, clientId = 0;
    uint32_t programMajor = 0, programMinor = 0, programBuild = 0;
};
struct ErrorReply {
    uint32_t status = 0;
    std::vector<std::u16string> reasons;
};

Result decodeHello(RequestBody body, HelloRequest& out);
void encodeHello(const HelloRequest& request, Bytes& out);
Result decodeHelloReply(RequestBody body, HelloReply& out);
void encodeHelloReply(const HelloReply& reply, Bytes& out);
// The first field must be 0; the 24 bytes behind it are not read.
Result decodeConnectionCheck(RequestBody body);
void encodeConnectionCheck(uint32_t firstField, Bytes& out);
// ConnectionNoop and GetFolders: nothing is read, but four bytes are demanded.
Result decodeConnectionNoop(RequestBody body);
Result decodeGetFolders(RequestBody body);
// The four zero bytes of a body that carries nothing: those two requests and every status reply.
void encodeEmptyBody(Bytes& out);
Result decodeStatusReply(RequestBody body, uint32_t& status);
Result decodeErrorReply(RequestBody body, ErrorReply& out);
void encodeErrorReply(const ErrorReply& reply, Bytes& out);

// ---- Watch family ----

// AddFolders and RemoveFolders. The short layout carries watchSubtree alone: it decodes with
// reportChanged 1 and reportRemoved 0 and encodes without the other two.
struct FolderListRequest {
    bool watchSubtree = false;
    bool reportChanged = true;
    bool reportRemoved = false;
    std::vector<std::u16string> paths;
};
struct FolderChanges {
    std::u16string path;
    std::vector<std::u16string> names;
};

// The layout follows `versionMajor`, the one the client stated in Hello: with options from 1 up.
// Each path is cut at its first zero unit within its byteLength and leaves ending in
// kPathSeparator. On a refusal `out.paths` holds the paths before the faulty entry, in order.
Result decodeAddFolders(RequestBody body, uint32_t versionMajor, FolderListRequest& out);
void encodeAddFolders(uint32_t versionMajor, const FolderListRequest& request, Bytes& out);
// Always the short layout.
Result decodeRemoveFolders(RequestBody body, FolderListRequest& out);
void encodeRemoveFolders(const FolderListRequest& request, Bytes& out);

Result decodeGetChanges(RequestBody body, bool& clear);
void encodeGetChanges(bool clear, Bytes& out);

Result decodeFolderListReply(RequestBody body, std::vector<std::u16string>& paths);
void encodeFolderListReply(const std::vector<std::u16string>& paths, Bytes& out);

// The GetChanges reply; a RemoveChanges request has the same shape and encodes with it.
Result decodeChangesReply(RequestBody body, std::vector<FolderChanges>& out);
void encodeChanges(const std::vector<FolderChanges>& changes, Bytes& out);
// The same into `body`, which must be exactly changesBodyBytes(changes) long: the reply that has no
// size limit is written straight into the buffer it is sent from.
void encodeChangesInto(const std::vector<FolderChanges>& changes, std::span<uint8_t> body);
// Bytes of the body encodeChanges() gives for `changes`.
uint64_t changesBodyBytes(const std::vector<FolderChanges>& changes);

// A RemoveChanges request, checked whole but copied out one folder at a time: its entries may name
// the same strings over and over, and all their copies at once could take thousands of times the
// size of the body. Only each FolderRef's offset, count and tableOffset and each name's offset are
// read; strings run to their zero unit. It refers to the body it was decoded from, which must
// outlive it.
class RemoveChangesRequest {
  public:
    uint32_t folderCount() const { return count_; }
    uint32_t nameCount(uint32_t folder) const;
    // The path and the names of one folder, as the client spelled them.
    void folder(uint32_t folder, std::u16string& path, std::vector<std::u16string>& names) const;

  private:
    friend Result decodeRemoveChanges(RequestBody body, RemoveChangesRequest& out);
    uint64_t entry(uint32_t folder) const;
    mutable BodyReader reader_{RequestBody{}};  // mutable: its cache of string lengths
    uint32_t count_ = 0;
    uint32_t tableOffset_ = 0;
};
Result decodeRemoveChanges(RequestBody body, RemoveChangesRequest& out);

}  // namespace Vigil::Codec
