// Watch::Thread: the one worker thread of the watch engine. It keeps a directory handle and one
// outstanding read for every (client GUID, folder) pair it has started, and runs the completions
// of those reads (onChanges) inside its single alertable wait.
//
// startWatch, stopWatch and stopAll are called with the database lock held and take the thread
// lock inside; the thread itself never calls into the database except from a completion, which
// runs with the thread lock released. Lock order: database lock, then the thread lock.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <string>

#include "platform/CondVar.h"
#include "platform/DirectoryChanges.h"
#include "platform/Mutex.h"
#include "platform/Thread.h"
#include "service/VigilWatchTypes.h"

namespace Vigil::Watch {

class Database;
class Thread;

struct StartRequest {
    Guid guid;
    std::u16string path;
    FolderOptions options;
};

struct ActiveWatch {
    Guid guid;
    std::u16string path;
    Osb::HDirectory handle = nullptr;  // owned: closed when the entry goes
    uint64_t serial = 0;               // names this watch for its reads, never reused
};

// The block of one read, owned by the outstanding read from issue until its completion has run.
// A watch keeps one record for its whole chain: the completion issues it again as the next read.
struct ReadRecord {
    static constexpr uint32_t kBufferBytes = 0x10000;

    Osb::DirectoryOverlapped overlapped;  // overlapped.context points back at this record
    Osb::HDirectory handle = nullptr;     // a copy of the active entry's, not owning
    Guid guid;
    std::u16string path;
    uint32_t owner = 0;  // PendingShare::keyOf the folder when the watch began
    // For a subtree watch of a folder whose owner has no bound: PendingShare::keyOf of the
    // directories below it that names came from, looked up once each (DirectoryKeys).
    DirectoryMap<uint32_t> directoryKeys;
    alignas(4) uint8_t buffer[kBufferBytes];
    uint8_t watchSubtree = 0;
    uint8_t reportChanged = 0;
    uint8_t reportRemoved = 0;
    // Not part of the read itself: who to report to and which watch this read belongs to.
    Database* database = nullptr;
    Thread* thread = nullptr;
    uint64_t serial = 0;
};

class Thread : public Osb::Thread {
  public:
    explicit Thread(Database& database);
    ~Thread() override;

    // Queues a start and wakes the thread; returns before the folder is opened.
    void startWatch(const Guid& guid, const std::u16string& path, const FolderOptions& options);
    // Closes and forgets every active watch of (guid, path). A start still queued is not
    // cancelled. Any thread, the watch thread included (from a completion).
    void stopWatch(const Guid& guid, const std::u16string& path);
    // Closes every active watch, then asks the thread to end. run() returns once the reads that
    // were outstanding have completed, so no record outlives the thread.
    void stopAll();

    // From a completion on the watch thread: issues `record`, whose read has just completed and
    // been dealt with, again as the watch's next read, if that watch is still active. The thread
    // lock is held across the issue, so a concurrent stopWatch cannot close the handle under it.
    // Returns false, with `record` left to the caller (to release), when the watch has been
    // stopped or the read cannot be issued.
    bool issueNextRead(ReadRecord* record);
    // From a completion on the watch thread: the record is done with.
    void releaseRecord(ReadRecord* record);

    // For tests: true once every start queued so far has been taken and tried.
    bool startsSettled();
    // For tests and benchmarks: active watches right now.
    size_t activeCount();

  protected:
    void run() override;

  private:
    void beginWatch(const Guid& guid, const std::u16string& path, const FolderOptions& options)
        OSB_REQUIRES(mutex_);
    bool issue(ReadRecord* record) OSB_REQUIRES(mutex_);

    Database& database_;
    bool stopRequested_ OSB_GUARDED_BY(mutex_) = false;
    // The thread lock. Taken after the database lock, never before it; held across beginWatch.
    Osb::Mutex mutex_;
    Osb::CondVar condition_;  // work queued, stop requested, or a read completed
    std::deque<StartRequest> queue_ OSB_GUARDED_BY(mutex_);
    std::list<ActiveWatch> active_ OSB_GUARDED_BY(mutex_);
    uint64_t nextSerial_ OSB_GUARDED_BY(mutex_) = 1;
    // Records issued and not yet released. Owned by the watch thread: only it issues reads and
    // runs their completions.
    size_t liveRecords_ = 0;
};

}  // namespace Vigil::Watch
