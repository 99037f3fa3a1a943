#include "service/VigilWatchFolderThread.h"

#include <cstdio>
#include <memory>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "service/VigilPendingShare.h"
#include "service/VigilWatchOnChanges.h"

namespace Vigil::Watch {

Thread::Thread(Database& database) : database_(database) {}

Thread::~Thread() {
    // close() has joined the thread; what is left are handles of watches nobody stopped.
    Osb::MutexLock lock(mutex_);
    for (ActiveWatch& watch : active_) Osb::CloseDirectory(watch.handle);
    active_.clear();
}

void Thread::startWatch(const Guid& guid, const std::u16string& path,
                        const FolderOptions& options) {
    Osb::MutexLock lock(mutex_);
    queue_.push_back({guid, path, options});
    condition_.signal();
}

void Thread::stopWatch(const Guid& guid, const std::u16string& path) {
    Osb::MutexLock lock(mutex_);
    for (auto it = active_.begin(); it != active_.end();) {
        if (it->guid == guid && it->path == path) {
            // The outstanding read ends with a zero-byte completion that frees its record later.
            Osb::CloseDirectory(it->handle);
            it = active_.erase(it);
        } else {
            ++it;
        }
    }
}

void Thread::stopAll() {
    Osb::MutexLock lock(mutex_);
    for (ActiveWatch& watch : active_) Osb::CloseDirectory(watch.handle);
    active_.clear();
    stopRequested_ = true;
    condition_.signal();
}

bool Thread::startsSettled() {
    // run() drains the queue and opens the folders in one hold of the lock, so an empty queue
    // seen under the lock means every start taken so far has been tried.
    Osb::MutexLock lock(mutex_);
    return queue_.empty();
}

size_t Thread::activeCount() {
    Osb::MutexLock lock(mutex_);
    return active_.size();
}

void Thread::run() {
    Osb::MutexLock lock(mutex_);
    for (;;) {
        while (queue_.empty() && !stopRequested_) condition_.wait_(mutex_, -1);
        if (stopRequested_) break;
        while (!queue_.empty()) {
            StartRequest request = queue_.front();
            queue_.pop_front();
            // A start that fails leaves its folder in the table without a watch; the failure is
            // reported here and the thread goes on with the other starts and watches.
            try {
                beginWatch(request.guid, request.path, request.options);
            } catch (const Osb::Exception& error) {
                std::fprintf(stderr, "watch of %s not started: %s\n",
                             Osb::Utf16ToUtf8(request.path).c_str(),
                             Osb::Utf16ToUtf8(error.what()).c_str());
            } catch (const std::exception& error) {
                std::fprintf(stderr, "watch of %s not started: %s\n",
                             Osb::Utf16ToUtf8(request.path).c_str(), error.what());
            }
        }
    }
    // Queued starts are dropped. stopAll closed every handle, so each outstanding read completes
    // (with zero bytes, or with the data it already had); their completions run in this wait and
    // free the records before the thread ends.
    queue_.clear();
    while (liveRecords_ > 0) condition_.wait_(mutex_, -1);
}

void Thread::beginWatch(const Guid& guid, const std::u16string& path,
                        const FolderOptions& options) {
    Osb::HDirectory handle = Osb::OpenDirectoryForWatch(path);
    if (handle == nullptr) throw Osb::ExSystem(Osb::ErrorCode(), OSB_HERE);

    // Not value-initialised: the 64 KiB buffer is written by the backend before it is read, and
    // an idle watch costs no resident memory for it.
    std::unique_ptr<ReadRecord> record(new ReadRecord);
    record->handle = handle;
    record->guid = guid;
    record->path = path;
    record->owner = PendingShare::keyOf(path);
    record->watchSubtree = options.watchSubtree;
    record->reportChanged = options.reportChanged;
    record->reportRemoved = options.reportRemoved;
    record->database = &database_;
    record->thread = this;
    record->serial = nextSerial_++;
    if (!issue(record.get())) {
        const uint32_t code = Osb::ErrorCode();
        Osb::CloseDirectory(handle);
        throw Osb::ExSystem(code, OSB_HERE);
    }
    active_.push_back({guid, path, handle, record->serial});
    record.release();  // now owned by the outstanding read
}

bool Thread::issue(ReadRecord* record) {
    record->overlapped.context = record;
    if (!Osb::ReadDirectoryChanges(record->handle, record->buffer, ReadRecord::kBufferBytes,
                                   record->watchSubtree != 0, &record->overlapped, onChanges)) {
        return false;
    }
    ++liveRecords_;
    return true;
}

bool Thread::issueNextRead(ReadRecord* record) {
    Osb::MutexLock lock(mutex_);
    if (stopRequested_) return false;
    for (const ActiveWatch& watch : active_) {
        if (watch.serial != record->serial) continue;
        if (!issue(record)) return false;
        --liveRecords_;  // the same record, already counted: it stays live
        return true;
    }
    return false;  // stopped while its last read was completing: the handle is gone
}

void Thread::releaseRecord(ReadRecord* record) {
    delete record;
    --liveRecords_;
}

}  // namespace Vigil::Watch
