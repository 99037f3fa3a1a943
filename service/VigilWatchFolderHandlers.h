// The handlers of the watch family and their reply writers. Each decodes its body, calls the
// process-wide Watch::Database with the GUID of its Client, and replies. They run under the
// client's mutex (Dispatch), so the client's fields need no other guard.
//
// Refusals. The handlers trust no number in a request (the codec's decoders find them):
//   - bodyLength below the request's minimum, or an ArrayHeader, a table entry or a string whose
//     offset or extent lies beyond the body in hand (so also an AddFolders with options whose
//     bodyLength of 16 to 27 leaves its ArrayHeader outside, even for a count of 0):
//                                                                              ExInvalidLength;
//   - a string with no zero unit before the body ends (or, for a folder path of the folder lists,
//     within its byteLength), a path byteLength above the 260-unit path buffer, an empty path, and
//     a path that leaves no room in 260 units for the separator the parser adds and the
//     terminator:                                                              ExInvalidDataValues.
// Every folder list is decoded and every path tested before the database is called, and a
// RemoveChanges body is checked whole before its first removal, so a refused request changes
// nothing. A path that does not exist is Osb::ExSystem with the system's code.
//
// Clients that do not see everything (VigilVisibility.h): every folder of AddFolders and
// RemoveFolders must be one the client may list, or the request is refused with Osb::ExSystem 5
// (2 or 3 where the client's user can see the name is missing) and changes nothing; GetFolders
// lists only those folders; GetChanges sends, and with clear takes off, only the names whose
// directory the client may list; RemoveChanges takes off only such names.
#pragma once

#include <cstdint>
#include <vector>

#include "service/VigilClient.h"
#include "service/VigilCodec.h"
#include "service/VigilHandlers.h"
#include "service/VigilVisibility.h"
#include "service/VigilWatchTypes.h"

namespace Vigil {

void HandleGetFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);
// Layout with options for a client of version 1 or later, the short layout below that.
void HandleAddFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);
// Always the short layout.
void HandleRemoveFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);
// Everything pending for the client in one reply; the first field non-zero clears what it sends.
void HandleGetChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);
// Takes the listed names off the pending lists; the body has the shape of a GetChanges reply.
void HandleRemoveChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body);

// Folder list decoders, appending to `folders`. The short layout: watchSubtree, ArrayHeader at 4;
// reportChanged 1, reportRemoved 0. With options: three option fields, reserved, ArrayHeader at 16.
// Every path leaves them ending with the separator. Each path is tested for existence, or, with a
// restricted `visibility`, for whether the client may list it.
void ParseFolderList(const RequestBody& body, std::vector<Watch::WatchedFolder>& folders,
                     Visibility* visibility = nullptr);
void ParseFolderListWithOptions(const RequestBody& body, std::vector<Watch::WatchedFolder>& folders,
                                Visibility* visibility = nullptr);

void SendFolderList(const ClientSoftRef& client, uint32_t requestId,
                    const std::vector<Watch::WatchedFolder>& folders);
void SendChanges(const ClientSoftRef& client, uint32_t requestId, bool clear);

}  // namespace Vigil
