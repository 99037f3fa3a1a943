#include "service/VigilWatchOnChanges.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

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
    std::unique_ptr<ReadRecord, void (*)(ReadRecord*)> record(
        static_cast<ReadRecord*>(overlapped->context),
        [](ReadRecord* done) { done->thread->releaseRecord(done); });
    Database& database = *record->database;

    if (errorCode != 0) {
        // The folder is gone (deleted, moved away, unmounted): forget it for good.
        Guarded(*record, "removing the folder", [&] {
            database.removeFolders(record->guid, {WatchedFolder{record->path, FolderOptions{}}});
        });
        return;
    }
    if (bytes == 0) return;  // closed, or overflowed: the chain of this watch ends here

    // The next read goes out before this buffer is looked at, so the system has somewhere to
    // put what comes meanwhile. A copy of everything but the buffer.
    try {
        std::unique_ptr<ReadRecord> next(new ReadRecord);  // buffer left unzeroed, as above
        next->handle = record->handle;
        next->guid = record->guid;
        next->path = record->path;
        next->watchSubtree = record->watchSubtree;
        next->reportChanged = record->reportChanged;
        next->reportRemoved = record->reportRemoved;
        next->database = record->database;
        next->thread = record->thread;
        next->serial = record->serial;
        if (record->thread->issueNextRead(next.get())) next.release();
    } catch (const std::exception&) {
        // No memory for the next record: the chain ends after this batch, as for a failed issue.
    }

    ChangeBatch batch;
    try {
        const FolderOptions options{record->watchSubtree, record->reportChanged,
                                    record->reportRemoved, 0};
        batch =
            FilterChanges(record->path, options,
                          DecodeNotifyBuffer(record->buffer, bytes, ReadRecord::kBufferBytes),
                          [](const std::u16string& path) { return Osb::GetFileAttributes(path); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "watch of %s: batch lost: %s\n",
                     Osb::Utf16ToUtf8(record->path).c_str(), error.what());
        return;
    }
    // Additions before removals: a name made and deleted in one batch does not stay on the list
    // of a folder that drops removed names.
    if (!batch.added.empty()) {
        Guarded(*record, "adding changes",
                [&] { database.addChanges(record->guid, record->path, batch.added); });
    }
    if (!batch.dropped.empty()) {
        Guarded(*record, "removing changes",
                [&] { database.removeChanges(record->guid, record->path, batch.dropped); });
    }
}

}  // namespace Vigil::Watch
