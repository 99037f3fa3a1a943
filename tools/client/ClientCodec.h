// The client side of the wire format, a UTF-8 layer over the codec (service/VigilCodec.h): request
// bodies built from plain values, reply bodies decoded into them. No I/O. Paths and names are UTF-8
// here and UTF-16 on the wire; a name that is not valid UTF-8 on disk still comes and goes
// unchanged (see platform/Utf.h).
//
// Every decoder checks each offset, count and length against the body it is given (the codec's
// reply rules) and raises DecodeError for a reply that does not hold together, never reading
// outside the body.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/client/GuidText.h"

namespace vigil_client {

using Bytes = std::vector<uint8_t>;

class DecodeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct FolderOptions {
    bool watchSubtree = false;
    bool reportChanged = true;
    bool reportRemoved = false;
};

struct HelloReply {
    uint32_t protocolMinor = 0, protocolMajor = 0, clientId = 0;
    uint32_t programMajor = 0, programMinor = 0, programBuild = 0;
};

struct FolderChanges {
    std::string path;
    std::vector<std::string> names;
};

struct ErrorReply {
    uint32_t status = 0;
    std::vector<std::string> reasons;
};

// A whole message: the header, then `body`.
Bytes Frame(uint32_t code, uint32_t requestId, uint32_t clientId, const Bytes& body);

Bytes EncodeHello(uint32_t versionMajor, uint32_t versionMinor, const Guid& guid);
Bytes EncodeConnectionCheck();  // the first field 0 and 24 bytes behind it
Bytes EncodeEmptyRequest();     // the 4-byte body of Noop and GetFolders
// The layout follows the version the client stated in Hello: with the three options for major 1
// and up, the short one (watchSubtree alone) for major 0.
Bytes EncodeAddFolders(uint32_t versionMajor, const FolderOptions& options,
                       const std::vector<std::string>& paths);
Bytes EncodeRemoveFolders(bool watchSubtree, const std::vector<std::string>& paths);
Bytes EncodeGetChanges(bool clear);
// The shape of a GetChanges reply, as RemoveChanges wants it.
Bytes EncodeRemoveChanges(const std::vector<FolderChanges>& changes);
// The same names as RemoveChanges bodies of at most `maxBody` bytes each (by default the longest
// body the service reassembles), each with its own tables: a folder whose names do not fit in one
// body goes on in the next, its path repeated. Folders and names keep their order; a folder
// without names is left out, as it takes nothing off. Raises
// std::length_error for a folder and one name that do not fit in `maxBody` even alone.
Bytes::size_type MaxRequestBody();
std::vector<Bytes> EncodeRemoveChangesRequests(const std::vector<FolderChanges>& changes,
                                               Bytes::size_type maxBody = MaxRequestBody());

HelloReply DecodeHelloReply(const Bytes& body);
uint32_t DecodeStatusReply(const Bytes& body);
ErrorReply DecodeErrorReply(const Bytes& body);
std::vector<std::string> DecodeFolderList(const Bytes& body);
std::vector<FolderChanges> DecodeChanges(const Bytes& body);

}  // namespace vigil_client
