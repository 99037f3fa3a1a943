// The bytes that pass between the service and a client on the pipe. Requests and replies alike are
// a 16-byte header and a body; integers are unsigned 32-bit little-endian, nothing is aligned or
// padded, strings are UTF-16LE with one zero unit (their byte length counts it), and every offset
// in a body counts from the body's first byte.
//
// Header, 16 bytes:
//   0  code        number (bits 0-7) | kind (bits 8-15: 0x01 request, 0x02 reply, 0x04 error)
//                  | family (bits 16-31: 0 connection, 1 watch)
//   4  bodyLength  bytes behind the header
//   8  requestId   the client's; copied unchanged into the reply
//   12 clientId    0 in Hello; else the id the Hello reply gave; in replies the client's id
//
// ArrayHeader, 12 bytes: count, entrySize (12 StringRef / 24 FolderRef), tableOffset.
// StringRef, 12 bytes: offset, byteLength (terminator included), type (5 when written).
// FolderRef, 24 bytes: StringRef of the folder path, then ArrayHeader of its names.
//
// Bodies:
//   Hello request (min 24):    versionMinor, versionMajor, clientGuid[16]
//   Hello reply (24):          0 (protocol minor), 1 (protocol major), clientId, 1, 0, 201
//   ConnectionCheck (min 28):  first field must be 0; 24 bytes behind it unread
//   ConnectionNoop (min 4):    nothing read
//   status replies (4):        status 0
//   Error:                     status 0, ArrayHeader(n, 12, 16), n StringRef, the texts in order
//   GetFolders request (min 4) / reply: ArrayHeader(n, 12, 12), n StringRef, the paths
//   AddFolders (min 16), versionMajor >= 1: watchSubtree, reportChanged, reportRemoved, reserved,
//                                           ArrayHeader at 16 of StringRef
//                        versionMajor 0:    watchSubtree, ArrayHeader at 4 of StringRef
//   RemoveFolders (min 16): always the short layout
//   GetChanges request (min 4): clear
//   GetChanges reply: status, ArrayHeader(F, 24, 16), F FolderRef, all name tables one behind the
//                     other, then folder 0's path, its names, folder 1's path, ...
//   RemoveChanges (min 16): unread field, ArrayHeader of FolderRef (the GetChanges reply's shape)
//
// Requests longer than kMaxRequestBytes in all are not reassembled; replies have no limit.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace Vigil::Protocol {

static_assert(std::endian::native == std::endian::little,
              "the wire format is read in place as little-endian");

constexpr uint32_t kHeaderBytes = 16;
constexpr uint32_t kMaxRequestBytes = 16384;  // a request must stay below this, header included
constexpr uint32_t kReadBytes = 4096;         // one read of a connection

constexpr uint32_t kKindRequest = 0x01;
constexpr uint32_t kKindReply = 0x02;
constexpr uint32_t kKindError = 0x04;
constexpr uint32_t kRequestBit = 0x100;  // bit 8 of code, the lowest bit of kind

constexpr uint32_t Code(uint32_t family, uint32_t kind, uint32_t number) {
    return (family << 16) | (kind << 8) | number;
}
constexpr uint32_t FamilyOf(uint32_t code) { return code >> 16; }
constexpr uint32_t NumberOf(uint32_t code) { return code & 0xFF; }
constexpr uint32_t ReplyCodeOf(uint32_t requestCode) {
    return (requestCode & 0xFFFF00FF) | (kKindReply << 8);
}

// Family 0: the connection.
constexpr uint32_t kHello = 0x00000101;
constexpr uint32_t kHelloReply = 0x00000201;
constexpr uint32_t kConnectionCheck = 0x00000102;
constexpr uint32_t kConnectionCheckReply = 0x00000202;
constexpr uint32_t kConnectionNoop = 0x00000103;
constexpr uint32_t kConnectionNoopReply = 0x00000203;
constexpr uint32_t kError = 0x00000401;

// Family 1: watched folders and their changes.
constexpr uint32_t kGetFolders = 0x00010100;
constexpr uint32_t kGetFoldersReply = 0x00010200;
constexpr uint32_t kAddFolders = 0x00010101;
constexpr uint32_t kAddFoldersReply = 0x00010201;
constexpr uint32_t kRemoveFolders = 0x00010102;
constexpr uint32_t kRemoveFoldersReply = 0x00010202;
constexpr uint32_t kGetChanges = 0x00010103;
constexpr uint32_t kGetChangesReply = 0x00010203;
constexpr uint32_t kRemoveChanges = 0x00010104;
constexpr uint32_t kRemoveChangesReply = 0x00010204;

// Minimum bodyLength of each request.
constexpr uint32_t kHelloMinBody = 24;
constexpr uint32_t kConnectionCheckMinBody = 28;
constexpr uint32_t kConnectionNoopMinBody = 4;
constexpr uint32_t kGetFoldersMinBody = 4;
constexpr uint32_t kAddFoldersMinBody = 16;
constexpr uint32_t kRemoveFoldersMinBody = 16;
constexpr uint32_t kGetChangesMinBody = 4;
constexpr uint32_t kRemoveChangesMinBody = 16;

constexpr uint32_t kHelloReplyBody = 24;
constexpr uint32_t kStatusReplyBody = 4;

// Versions: the protocol's (sent in the Hello reply and the highest a client may state) and the
// program's own (the usage text prints the same three numbers).
constexpr uint32_t kProtocolMajor = 1;
constexpr uint32_t kProtocolMinor = 0;
constexpr uint32_t kProgramMajor = 1;
constexpr uint32_t kProgramMinor = 0;
constexpr uint32_t kProgramBuild = 201;

constexpr uint32_t kGuidBytes = 16;
constexpr uint32_t kArrayHeaderBytes = 12;
constexpr uint32_t kStringRefBytes = 12;
constexpr uint32_t kFolderRefBytes = 24;
constexpr uint32_t kStringType = 5;

// Body offsets that more than one side reads.
constexpr uint32_t kAddFoldersTableWithOptions = 16;  // ArrayHeader of the layout with options
constexpr uint32_t kAddFoldersTableShort = 4;         // ArrayHeader of the short layout
constexpr uint32_t kStatusArrayTable = 4 + kArrayHeaderBytes;  // table behind status, ArrayHeader

struct MessageHeader {
    uint32_t code;
    uint32_t bodyLength;
    uint32_t requestId;
    uint32_t clientId;
};
static_assert(sizeof(MessageHeader) == kHeaderBytes);

// Unaligned little-endian access to a buffer.
inline uint32_t Load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline void Store32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }

inline MessageHeader LoadHeader(const uint8_t* p) {
    MessageHeader h;
    std::memcpy(&h, p, kHeaderBytes);
    return h;
}
inline void StoreHeader(uint8_t* p, const MessageHeader& h) { std::memcpy(p, &h, kHeaderBytes); }

}  // namespace Vigil::Protocol
