#include "service/VigilWatchFolderHandlers.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_map>
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

constexpr char16_t kSeparator = u'/';

// True when `bytes` bytes at `offset` are both announced by bodyLength and in hand. Wide
// arithmetic: offsets and counts come from the client.
bool InBody(const RequestBody& body, uint64_t offset, uint64_t bytes) {
    const uint64_t limit = body.length < body.available ? body.length : body.available;
    return offset <= limit && bytes <= limit - offset;
}

uint32_t Field(const RequestBody& body, uint64_t offset) {
    if (!InBody(body, offset, 4)) throw ExInvalidLength(OSB_HERE);
    return Load32(body.data + offset);
}

// The strings of a body that are read up to their zero unit, which must come before the body
// ends. Their lengths are kept, so that a string named by many entries is scanned once.
class TerminatedStrings {
  public:
    explicit TerminatedStrings(const RequestBody& body) : body_(body) {}

    // Units of the string at `offset`, its terminator not counted.
    size_t units(uint32_t offset) {
        if (auto known = units_.find(offset); known != units_.end()) return known->second;
        if (!InBody(body_, offset, 2)) throw ExInvalidLength(OSB_HERE);
        for (uint64_t at = offset;; at += 2) {
            if (!InBody(body_, at, 2)) throw ExInvalidDataValues(OSB_HERE);  // no terminator
            if (body_.data[at] == 0 && body_.data[at + 1] == 0) {
                const size_t units = (at - offset) / 2;
                units_.emplace(offset, units);
                return units;
            }
        }
    }
    std::u16string read(uint32_t offset) {
        std::u16string text(units(offset), u'\0');
        std::memcpy(text.data(), body_.data + offset, 2 * text.size());
        return text;
    }

  private:
    const RequestBody& body_;
    std::unordered_map<uint32_t, size_t> units_;
};

// One folder path of a folder list, located by the StringRef at `entry`: copied into the path
// buffer, cut at its first zero unit, given its closing separator, and tested for existence (for a
// restricted client: whether its user may list it, which it cannot tell from existence where it
// may not look).
std::u16string ReadFolderPath(const RequestBody& body, uint64_t entry, Visibility* visibility) {
    const uint32_t offset = Field(body, entry);
    const uint32_t byteLength = Field(body, entry + 4);
    if (byteLength > 2 * kPathBufferUnits) throw ExInvalidDataValues(OSB_HERE);
    if (!InBody(body, offset, byteLength)) throw ExInvalidLength(OSB_HERE);

    char16_t buffer[kPathBufferUnits] = {};
    std::memcpy(buffer, body.data + offset, byteLength);
    const uint32_t units = byteLength / 2;
    uint32_t length = 0;
    while (length < units && buffer[length] != 0) ++length;
    if (length == units) throw ExInvalidDataValues(OSB_HERE);  // no terminator in byteLength
    if (length == 0) throw ExInvalidDataValues(OSB_HERE);      // no last unit to look at
    if (buffer[length - 1] != kSeparator) {
        if (length + 2 > kPathBufferUnits) throw ExInvalidDataValues(OSB_HERE);  // no room
        buffer[length++] = kSeparator;
        buffer[length] = 0;
    }
    std::u16string path(buffer, length);
    if (visibility != nullptr && visibility->restricted()) {
        visibility->require(path);
    } else if (!Osb::PathExists(path)) {
        throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);
    }
    return path;
}

void ParseTable(const RequestBody& body, uint32_t headerAt, const Watch::FolderOptions& options,
                std::vector<Watch::WatchedFolder>& folders, Visibility* visibility) {
    const uint32_t count = Field(body, headerAt);
    const uint32_t tableOffset = Field(body, headerAt + 8);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t entry = uint64_t{tableOffset} + uint64_t{kStringRefBytes} * i;
        folders.push_back({ReadFolderPath(body, entry, visibility), options});
    }
}

// The message size of a reply whose body is `bodyBytes`, refused when it cannot be announced.
uint32_t MessageSize(uint64_t bodyBytes) {
    if (bodyBytes > UINT32_MAX - kHeaderBytes) throw std::length_error("reply too long");
    return static_cast<uint32_t>(kHeaderBytes + bodyBytes);
}

uint32_t StringBytes(const std::u16string& text) {
    return static_cast<uint32_t>(2 * text.size() + 2);
}

// Writes `text` with its terminator at `at` and its StringRef at `entry`; returns the end.
uint32_t PutString(uint8_t* body, uint8_t* entry, uint32_t at, const std::u16string& text) {
    const uint32_t bytes = StringBytes(text);
    Store32(entry + 0, at);
    Store32(entry + 4, bytes);
    Store32(entry + 8, kStringType);
    std::memcpy(body + at, text.data(), bytes - 2);
    body[at + bytes - 2] = 0;
    body[at + bytes - 1] = 0;
    return at + bytes;
}

struct FolderChanges {
    std::u16string path;
    std::vector<std::u16string> names;
};

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
    Watch::FolderOptions options;
    options.watchSubtree = Field(body, 0) != 0;
    options.reportChanged = 1;
    options.reportRemoved = 0;
    ParseTable(body, kAddFoldersTableShort, options, folders, visibility);
}

void ParseFolderListWithOptions(const RequestBody& body, std::vector<Watch::WatchedFolder>& folders,
                                Visibility* visibility) {
    Watch::FolderOptions options;
    options.watchSubtree = Field(body, 0) != 0;
    options.reportChanged = Field(body, 4) != 0;
    options.reportRemoved = Field(body, 8) != 0;
    ParseTable(body, kAddFoldersTableWithOptions, options, folders, visibility);
}

void HandleGetFolders(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    if (body.length < kGetFoldersMinBody) throw ExInvalidLength(OSB_HERE);
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
    if (body.length < kAddFoldersMinBody) throw ExInvalidLength(OSB_HERE);
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
    if (body.length < kRemoveFoldersMinBody) throw ExInvalidLength(OSB_HERE);
    std::vector<Watch::WatchedFolder> folders;
    Visibility visibility(client->peer);
    ParseFolderList(body, folders, &visibility);
    Watch::ProcessDatabase().removeFolders(client->guid, folders);
    SendStatusReply(client, requestId, kRemoveFoldersReply);
}

void HandleGetChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    if (body.length < kGetChangesMinBody) throw ExInvalidLength(OSB_HERE);
    SendChanges(client, requestId, Field(body, 0) != 0);
}

void HandleRemoveChanges(const ClientSoftRef& client, uint32_t requestId, const RequestBody& body) {
    if (body.length < kRemoveChangesMinBody) throw ExInvalidLength(OSB_HERE);
    const uint32_t count = Field(body, 4);
    const uint32_t tableOffset = Field(body, 12);
    auto entryAt = [&](uint32_t i) {
        return uint64_t{tableOffset} + uint64_t{kFolderRefBytes} * i;
    };
    auto nameAt = [&](uint64_t entry, uint32_t j) {
        return Field(body, uint64_t{Field(body, entry + 20)} + uint64_t{kStringRefBytes} * j);
    };
    // Checked whole before the first removal, so a refused request takes nothing off. Copied one
    // folder at a time after that: entries may name the same strings over and over, and all their
    // copies at once could take thousands of times the size of the body.
    TerminatedStrings strings(body);
    Visibility visibility(client->peer);
    for (uint32_t i = 0; i < count; ++i) {
        strings.units(Field(body, entryAt(i)));
        const uint32_t names = Field(body, entryAt(i) + 12);
        for (uint32_t j = 0; j < names; ++j) strings.units(nameAt(entryAt(i), j));
    }
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t names = Field(body, entryAt(i) + 12);
        if (names == 0) continue;
        std::vector<std::u16string> folderNames;
        folderNames.reserve(names);
        for (uint32_t j = 0; j < names; ++j)
            folderNames.push_back(strings.read(nameAt(entryAt(i), j)));
        const std::u16string folder = strings.read(Field(body, entryAt(i)));
        // Only names the client could have been sent: a name it guessed stays pending.
        visibility.keepSendable(folder, folderNames);
        if (folderNames.empty()) continue;
        Watch::ProcessDatabase().removeChanges(client->guid, folder, folderNames);
    }
    SendStatusReply(client, requestId, kRemoveChangesReply);
}

void SendFolderList(const ClientSoftRef& client, uint32_t requestId,
                    const std::vector<Watch::WatchedFolder>& folders) {
    uint64_t bodyBytes = kArrayHeaderBytes + uint64_t{kStringRefBytes} * folders.size();
    for (const Watch::WatchedFolder& folder : folders) bodyBytes += StringBytes(folder.path);
    const uint32_t size = MessageSize(bodyBytes);

    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, size, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {kGetFoldersReply, size - kHeaderBytes, requestId, client->id});
    uint8_t* body = out + kHeaderBytes;
    Store32(body + 0, static_cast<uint32_t>(folders.size()));
    Store32(body + 4, kStringRefBytes);
    Store32(body + 8, kArrayHeaderBytes);
    uint8_t* entry = body + kArrayHeaderBytes;
    uint32_t at = kArrayHeaderBytes + kStringRefBytes * static_cast<uint32_t>(folders.size());
    for (const Watch::WatchedFolder& folder : folders) {
        at = PutString(body, entry, at, folder.path);
        entry += kStringRefBytes;
    }
    client->send(request);
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
    // reply or the next.
    std::vector<FolderChanges> pending;
    uint64_t nameCount = 0;
    uint64_t stringBytes = 0;
    for (std::u16string& path : paths) {
        std::vector<std::u16string> names;
        CollectChanges(database, client->guid, path, names, clear, visibility);
        if (names.empty()) continue;
        nameCount += names.size();
        stringBytes += StringBytes(path);
        for (const std::u16string& name : names) stringBytes += StringBytes(name);
        pending.push_back({std::move(path), std::move(names)});
    }

    const uint64_t tables =
        uint64_t{kFolderRefBytes} * pending.size() + kStringRefBytes * nameCount;
    const uint32_t size = MessageSize(16 + tables + stringBytes);
    auto notify = Osb::MakeSmart<ClientWrite>(client);
    auto request = Osb::IoRequest::Create(notify, size, 1);
    uint8_t* out = request->buffer();
    StoreHeader(out, {kGetChangesReply, size - kHeaderBytes, requestId, client->id});
    uint8_t* body = out + kHeaderBytes;
    Store32(body + 0, 0);
    Store32(body + 4, static_cast<uint32_t>(pending.size()));
    Store32(body + 8, kFolderRefBytes);
    Store32(body + 12, 16);

    // Three write positions: the FolderRef table, the name tables behind it, the strings.
    uint8_t* folderEntry = body + 16;
    uint32_t nameTableAt = 16 + kFolderRefBytes * static_cast<uint32_t>(pending.size());
    uint32_t at = static_cast<uint32_t>(16 + tables);
    for (const FolderChanges& folder : pending) {
        at = PutString(body, folderEntry, at, folder.path);
        Store32(folderEntry + 12, static_cast<uint32_t>(folder.names.size()));
        Store32(folderEntry + 16, kStringRefBytes);
        Store32(folderEntry + 20, nameTableAt);
        for (const std::u16string& name : folder.names) {
            at = PutString(body, body + nameTableAt, at, name);
            nameTableAt += kStringRefBytes;
        }
        folderEntry += kFolderRefBytes;
    }
    request->length(size);
    client->send(request);
}

}  // namespace Vigil
