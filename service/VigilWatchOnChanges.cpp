#include "service/VigilWatchOnChanges.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "service/VigilWatchFolderDatabase.h"
#include "service/VigilWatchFolderThread.h"

namespace Vigil::Watch {

namespace {

// A failure of one database call is reported and dropped: the completion runs inside the
// thread's wait, where an escaping exception would end the watch thread and every watch with it.
// The batch's other call still runs.
template <typename Call>
void Guarded(const ReadRecord& record, const char* what, Call call) {
    try {
        call();
    } catch (const Osb::Exception& error) {
        std::fprintf(stderr, "watch of %s: %s failed: %s\n", Osb::Utf16ToUtf8(record.path).c_str(),
                     what, Osb::Utf16ToUtf8(error.what()).c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "watch of %s: %s failed: %s\n", Osb::Utf16ToUtf8(record.path).c_str(),
                     what, error.what());
    } catch (...) {
        std::fprintf(stderr, "watch of %s: %s failed\n", Osb::Utf16ToUtf8(record.path).c_str(),
                     what);
    }
}

// How many directories' keys a watch remembers; past it they are looked up afresh.
constexpr size_t kRememberedDirectories = 4096;

// The key of `directory` (relative to the watched folder), remembered in the record: a directory
// that is gone already (made, filled and removed within one batch) has its parent's, so that
// removing it is no way around the bound.
uint32_t DirectoryKey(ReadRecord& record, std::u16string_view directory) {
    if (directory.empty()) return record.owner;
    auto known = record.directoryKeys.find(directory);
    if (known != record.directoryKeys.end()) return known->second;
    std::u16string path = record.path;
    path.append(directory);
    path.push_back(u'/');
    uint32_t key = 0;
    if (!PendingShare::keyOf(path, key)) key = DirectoryKey(record, DirectoryOf(directory));
    if (record.directoryKeys.size() >= kRememberedDirectories) record.directoryKeys.clear();
    record.directoryKeys.emplace(std::u16string(directory), key);
    return key;
}

// The bound each name counts against, for a subtree watch of a folder whose owner has none (root's
// /home, say): that of the directory holding it (PendingShare::keyOf), so that a user's storm in
// their own directory below fills their own bound and no other. Empty when every name counts as
// the folder's, which is the rule for every other watch. A directory is looked at once, when its
// first name comes; one that changes owner later keeps its first key while remembered.
std::vector<uint32_t> DirectoryKeys(ReadRecord& record, const std::vector<std::u16string>& names) {
    std::vector<uint32_t> keys;
    if (record.owner != 0 || record.watchSubtree == 0) return keys;
    bool any = false;
    keys.reserve(names.size());
    for (const std::u16string& name : names) {
        const uint32_t key = DirectoryKey(record, DirectoryOf(name));
        any = any || key != 0;
        keys.push_back(key);
    }
    if (!any) keys.clear();
    return keys;
}

}  // namespace

std::vector<NamedChange> DecodeNotifyBuffer(const uint8_t* buffer, uint32_t bytes,
                                            uint32_t capacity) {
    std::vector<NamedChange> changes;
    const uint64_t end = bytes < capacity ? bytes : capacity;
    uint64_t at = 0;
    while (at + Osb::kFileNotifyHeaderBytes <= end) {
        uint32_t next, action, nameBytes;
        std::memcpy(&next, buffer + at, 4);
        std::memcpy(&action, buffer + at + 4, 4);
        std::memcpy(&nameBytes, buffer + at + 8, 4);
        const uint64_t nameAt = at + Osb::kFileNotifyHeaderBytes;
        if (nameBytes > end - nameAt) break;
        std::u16string name(nameBytes / 2, u'\0');
        std::memcpy(name.data(), buffer + nameAt, name.size() * 2);
        changes.push_back({action, std::move(name)});
        if (next == 0) break;
        at += next;
    }
    return changes;
}

void onChanges(uint32_t errorCode, uint32_t bytes, Osb::DirectoryOverlapped* overlapped) {
    auto* record = static_cast<ReadRecord*>(overlapped->context);
    Thread& thread = *record->thread;
    Database& database = *record->database;

    if (errorCode == Osb::Err::kFileNotFound) {
        // The folder is gone (deleted, moved away, unmounted): forget it for good. The names it
        // gathered stay for the client to collect.
        Guarded(*record, "removing the folder",
                [&] { database.folderGone(record->guid, record->path); });
        thread.releaseRecord(record);
        return;
    }
    if (errorCode != 0) {
        // A failure inside the watch (a directory the kernel would not watch for want of room):
        // the folder is still there and the rest of it is watched, so the chain goes on.
        std::fprintf(stderr, "watch of %s: a directory in it is left unwatched: %s\n",
                     Osb::Utf16ToUtf8(record->path).c_str(),
                     Osb::Utf16ToUtf8(Osb::ErrorText(errorCode)).c_str());
    } else if (bytes == 0) {  // closed: the chain of this watch ends here
        thread.releaseRecord(record);
        return;
    }

    ChangeBatch batch;
    if (bytes > 0) {
        try {
            const FolderOptions options{record->watchSubtree, record->reportChanged,
                                        record->reportRemoved, 0};
            batch = FilterChanges(
                record->path, options,
                DecodeNotifyBuffer(record->buffer, bytes, ReadRecord::kBufferBytes),
                [](const std::u16string& path) { return Osb::GetFileAttributes(path); });
        } catch (const std::exception& error) {
            std::fprintf(stderr, "watch of %s: batch lost: %s\n",
                         Osb::Utf16ToUtf8(record->path).c_str(), error.what());
            batch = ChangeBatch{};
        }
    }
    // Additions before removals: a name made and deleted in one batch does not stay on the list
    // of a folder that drops removed names.
    if (!batch.added.empty()) {
        Guarded(*record, "adding changes", [&] {
            const std::vector<uint32_t> keys = DirectoryKeys(*record, batch.added);
            database.addWatchChanges(record->guid, record->path, std::move(batch.added),
                                     record->owner, keys);
        });
    }
    if (!batch.dropped.empty()) {
        Guarded(*record, "removing changes",
                [&] { database.removeChanges(record->guid, record->path, batch.dropped); });
    }

    // The next read goes out only now, in the same record: the backend keeps every change that
    // comes meanwhile and hands them over whole with this read, so a burst reaches the database
    // in a few large batches instead of one batch per change, and no buffer is made per batch.
    bool reissued = false;
    try {
        reissued = thread.issueNextRead(record);
    } catch (const std::exception&) {
        // No memory to issue the read: the chain ends after this batch, as for a failed issue.
    }
    if (!reissued) thread.releaseRecord(record);
}

}  // namespace Vigil::Watch
