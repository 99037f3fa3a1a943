#include "service/VigilWatchFolderHandlers.h"

#include <stdexcept>
#include <string>
#include <unordered_set>

#include "platform/DirectoryChanges.h"
#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/FileSystem.h"
#include "service/VigilClientIo.h"
#include "service/VigilExceptions.h"
#include "service/VigilHandlers.h"
#include "service/VigilWatchFolderDatabase.h"

namespace Vigil {

using namespace Protocol;

namespace {

// The folders of a decoded list, each tested for existence (for a restricted client: whether its
// user may list it, which it cannot tell from existence where it may not look), then the codec's
// verdict. The paths before a faulty entry are tested first, so a request fails on its first fault
// whichever kind it is.
void CheckFolderList(Codec::Result decoded, const Codec::FolderListRequest& request,
                     std::vector<Watch::WatchedFolder>& folders, Visibility* visibility) {
    Watch::FolderOptions options;
    options.watchSubtree = request.watchSubtree;
    options.reportChanged = request.reportChanged;
    options.reportRemoved = request.reportRemoved;
    for (const std::u16string& path : request.paths) {
        if (visibility != nullptr && visibility->restricted()) {
            visibility->require(path);
        } else if (!Osb::PathExists(path)) {
            throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);
        }
        folders.push_back({path, options});
    }
    Require(decoded);
}

// The folder's pending names for this reply. A restricted client gets only the names whose
// directory it may list; with `clear` only those come off the list.
void CollectChanges(Watch::Database& database, const Watch::Guid& guid,
                    const std::u16string& folder, std::vector<std::u16string>& names, bool clear,
                    Visibility& visibility) {
    if (!visibility.restricted()) {
        database.getChanges(guid, folder, names, clear);
        return;
    }
    // Decided outside the database lock, which the watch thread's completions wait for; a name
    // that comes in a directory not decided here is left for the next request.
    std::vector<std::u16string> directories;
    database.pendingDirectories(guid, folder, directories);
    if (directories.empty()) return;
    const std::unordered_set<std::u16string> visible =
        visibility.visibleDirectories(folder, directories);
    database.getChanges(guid, folder, names, clear, [&](const std::u16string& directory) {
        return visible.count(directory) != 0;
    });
}

}  // namespace

void ParseFolderList(const RequestBody& body, std::vector<Watch::WatchedFolder>& folders,
                     Visibility* visibility) {
    Codec::FolderListRequest request;
    const Codec::Result decoded = Codec::decodeAddFolders(body, 0, request);
    CheckFolderList(decoded, request, folders, visibility);
}

void ParseFolderListWithOptions(const RequestBody& body, std::vector<Watch::WatchedFolder>& folders,
                                Visibility* visibility) {
    Codec::FolderListRequest request;
    const Codec::Result decoded = Codec::decodeAddFolders(body, 1, request);
    CheckFolderList(decoded, request, folders, visibility);
}

void HandleGetFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    Require(Codec::decodeGetFolders(body));
    std::vector<Watch::WatchedFolder> folders;
    Watch::ProcessDatabase().getFolders(client->guid, folders);
    Visibility(client->peer).keepVisible(folders);
    SendFolderList(client, requestId, folders);
}

// A user whose folders hold their whole share (of kernel watches or of pending names) gets no
// more of them watched for a client that does not see everything: the request is refused whole
// (1816), as for a folder the client may not see. A path that cannot be looked at is left to the
// watch's own start to report.
static void RequireRoomForOwners(const std::vector<Watch::WatchedFolder>& folders) {
    for (const Watch::WatchedFolder& folder : folders) {
        uint32_t owner = 0;
        if (!Osb::GetFolderOwner(folder.path, owner)) continue;
        if (Watch::ProcessDatabase().ownerShareReached(owner))
            throw Osb::ExSystem(Osb::Err::kNotEnoughQuota, OSB_HERE);
    }
}

void HandleAddFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    std::vector<Watch::WatchedFolder> folders;
    Visibility visibility(client->peer);
    // The layout follows the version the client stated in Hello; the message cannot tell.
    if (client->versionMajor >= 1) {
        ParseFolderListWithOptions(body, folders, &visibility);
    } else {
        ParseFolderList(body, folders, &visibility);
    }
    if (visibility.restricted()) RequireRoomForOwners(folders);
    Watch::ProcessDatabase().addFolders(client->guid, folders);
    SendStatusReply(client, requestId, kAddFoldersReply);
}

void HandleRemoveFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    std::vector<Watch::WatchedFolder> folders;
    Visibility visibility(client->peer);
    ParseFolderList(body, folders, &visibility);
    Watch::ProcessDatabase().removeFolders(client->guid, folders);
    SendStatusReply(client, requestId, kRemoveFoldersReply);
}

void HandleGetChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    bool clear = false;
    Require(Codec::decodeGetChanges(body, clear));
    SendChanges(client, requestId, clear);
}

void HandleRemoveChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    // Checked whole before the first removal, so a refused request takes nothing off.
    Codec::RemoveChangesRequest request;
    Require(Codec::decodeRemoveChanges(body, request));
    Visibility visibility(client->peer);
    std::u16string folder;
    std::vector<std::u16string> names;
    for (uint32_t i = 0; i < request.folderCount(); ++i) {
        if (request.nameCount(i) == 0) continue;
        request.folder(i, folder, names);
        // Only names the client could have been sent: a name it guessed stays pending.
        visibility.keepSendable(folder, names);
        if (names.empty()) continue;
        Watch::ProcessDatabase().removeChanges(client->guid, folder, names);
    }
    SendStatusReply(client, requestId, kRemoveChangesReply);
}

void SendFolderList(const ClientSoftRef& client, uint32_t requestId,
                    const std::vector<Watch::WatchedFolder>& folders) {
    std::vector<std::u16string> paths;
    paths.reserve(folders.size());
    for (const Watch::WatchedFolder& folder : folders) paths.push_back(folder.path);
    Codec::Bytes message = NewMessage();
    Codec::encodeFolderListReply(paths, message);
    SendMessage(client, message, kGetFoldersReply, requestId);
}

void SendChanges(const ClientSoftRef& client, uint32_t requestId, bool clear) {
    Watch::Database& database = Watch::ProcessDatabase();
    std::vector<Watch::WatchedFolder> folders;
    database.getFolders(client->guid, folders);
    // Behind the client's folders come those that went with names still to be collected.
    std::vector<std::u16string> paths;
    paths.reserve(folders.size());
    for (Watch::WatchedFolder& folder : folders) paths.push_back(std::move(folder.path));
    database.goneFolders(client->guid, paths);
    Visibility visibility(client->peer);

    // Each folder is asked for by itself: names may land between two calls, and are then in this
    // reply or the next. A folder without names gets no entry.
    std::vector<Codec::FolderChanges> pending;
    for (std::u16string& path : paths) {
        std::vector<std::u16string> names;
        CollectChanges(database, client->guid, path, names, clear, visibility);
        if (names.empty()) continue;
        pending.push_back({std::move(path), std::move(names)});
    }
    const uint64_t bodyBytes = Codec::changesBodyBytes(pending);
    if (bodyBytes > UINT32_MAX - kHeaderBytes) throw std::length_error("reply too long");
    const auto size = static_cast<uint32_t>(kHeaderBytes + bodyBytes);
    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, size, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {kGetChangesReply, size - kHeaderBytes, requestId, client->id});
    Codec::encodeChangesInto(pending, {out + kHeaderBytes, size - kHeaderBytes});
    request->length(size);
    client->send(request);
}

}  // namespace Vigil
