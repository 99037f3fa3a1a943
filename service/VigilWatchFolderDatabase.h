// Watch::Database: the process-wide store of the watch engine. Per client GUID it keeps the
// folders the client wants watched (the folder table, mirrored in the cache file) and the names
// that changed in them since the client last collected (the pending table, in memory only).
// Records are keyed by GUID and outlive connections.
//
// Threads: the service's start/stop path (open, close), the handler threads, and the watch thread
// from its completions (addWatchChanges, removeChanges, folderGone). Every operation takes the
// database lock for itself, except the *Locked ones and save, whose caller holds it.
//
// Lock order: a Client's mutex, then the database lock, then the thread lock of Watch::Thread.
// No code that holds the thread lock reaches for the database lock.
//
// Failures are exceptions: Osb::ExSystem when the cache cannot be read or written; standard
// exceptions for memory. The lock is released on every way out; nothing done before a failure is
// rolled back. In particular a save that fails (a full disk: 112) fails the request that caused it
// while the folder table keeps that request's change and its watches; the cache file on disk stays
// the previous one, whole, and the next change of the table (any addFolders or removeFolders)
// writes the whole table again.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/Mutex.h"
#include "service/VigilPendingShare.h"
#include "service/VigilWatchFolderCache.h"
#include "service/VigilWatchTypes.h"

namespace Vigil::Watch {

class Thread;

struct PendingRecord {
    std::u16string folder;              // the watched folder's path
    std::vector<std::u16string> names;  // relative to it; repeats allowed
    // The folder left the client's table because it went (deleted, moved away, unmounted): the
    // names wait to be collected, and the record goes once they are.
    bool gone = false;
    // Kept once a client that does not see everything has asked for the record's directories
    // (pendingDirectories), so that its later requests need not look at every name: every
    // directory (DirectoryOf) that holds a name on the list, and after removals maybe more.
    // Guarded, like the rest of the record, by the database lock.
    bool filed = false;
    DirectorySet directories;
    // The owner of the watched folder, and the bytes its names are counted for in that owner's
    // bound (PendingShare; 0 for the owners without one).
    uint32_t owner = 0;
    size_t bytes = 0;
    // A subtree of an owner without a bound (root's /home, say) holds directories of owners with
    // one: the names made there count against the bound of the directory that holds them (a
    // user's storm in their own directory fills their own bound), `charged` holds the bytes
    // counted per bound, and `directoryKeys` which bound each such directory's names count
    // against, so that a removal gives back to the right one.
    std::unordered_map<uint32_t, size_t> charged;
    DirectoryMap<uint32_t> directoryKeys;
};

class Database {
  public:
    Database();
    ~Database();  // closes when still open
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Starts the watch thread and loads the cache from `dataFolder` (ends with the separator).
    // Does nothing on a second call, also after close. Raises Osb::ExSystem when no cache file can
    // be opened for another reason than its absence, or when the save that replaces an older or a
    // bad file cannot write it; the thread runs and the folders loaded stay all the same.
    void open(const std::u16string& dataFolder);
    // Stops the watch thread, waits for it, destroys it. Does not save.
    //
    // The database lock is released while waiting, so that a completion running at that moment
    // can take it and finish. The thread object is unhooked under the lock before the wait: from
    // then on addFolders and removeFolders change the tables and the cache as always but start and
    // stop no watch (a folder added then is watched from the next start of the service).
    void close();

    // Adds each folder the client does not have yet (by path; options of a known path stay) and
    // starts its watch, then saves. A client record is made even for an empty list. A path whose
    // folder went with names not yet collected takes those names over: they are sent with the
    // new folder's, once.
    void addFolders(const Guid& guid, const std::vector<WatchedFolder>& folders);
    // Stops and removes each listed path the client has; drops the client's record once empty;
    // then saves. The client no longer wants the folder: its pending names go too, also those of
    // a folder of that path that went before.
    void removeFolders(const Guid& guid, const std::vector<WatchedFolder>& folders);
    // The folder went (deleted, moved away, unmounted): it is stopped and removed as by
    // removeFolders, but its pending names stay to be collected (goneFolders). Saves when the
    // client had the folder. Called by the watch thread.
    void folderGone(const Guid& guid, const std::u16string& folder);
    // Appends the client's folders that still exist to `result`, in their order; the ones that
    // have gone are dropped as by folderGone after the lock is released.
    void getFolders(const Guid& guid, std::vector<WatchedFolder>& result);
    // The folders of the client that went (folderGone) with names still to be collected, in the
    // order of their pending records; appended to `paths`. A GetChanges reply asks for their names
    // (getChanges) after those of the client's folders. A gone folder's record goes once a
    // getChanges with `clear` or a removeChanges has emptied it.
    void goneFolders(const Guid& guid, std::vector<std::u16string>& paths);
    // Replaces `names` with the folder's pending list, emptied when `clear`; leaves `names` as it
    // was when the folder has no pending record. The record of a folder that went goes once
    // `clear` has emptied it.
    void getChanges(const Guid& guid, const std::u16string& folder,
                    std::vector<std::u16string>& names, bool clear);
    // getChanges for a client that may not see every name: only the names whose directory
    // (DirectoryOf) `sendable` accepts are put in `names`, and with `clear` only they come off the
    // list; the others stay, in their order. `sendable` runs under the database lock: it must
    // only look up decisions made beforehand. It is asked for each directory of a filed record
    // first; when it accepts them all, the list is taken whole, as getChanges takes it. Otherwise
    // it is asked once for each run of names in one directory.
    void getChanges(const Guid& guid, const std::u16string& folder,
                    std::vector<std::u16string>& names, bool clear,
                    const std::function<bool(const std::u16string& directory)>& sendable);
    // The distinct directories (DirectoryOf) of the folder's pending names, appended to
    // `directories` in no particular order; possibly also directories whose names have been taken
    // off since. Files the record's names by directory from then on (PendingRecord::filed).
    void pendingDirectories(const Guid& guid, const std::u16string& folder,
                            std::vector<std::u16string>& directories);
    // Appends `names` to the folder's pending list, making the record when missing. The second
    // form takes the names over instead of copying them.
    void addChanges(const Guid& guid, const std::u16string& folder,
                    const std::vector<std::u16string>& names);
    void addChanges(const Guid& guid, const std::u16string& folder,
                    std::vector<std::u16string>&& names);
    // addChanges for the watch of (guid, folder): nothing is added once the client no longer has
    // the folder, so that a batch that was on its way while the folder was removed leaves no
    // names behind to reappear for a later folder of the same path.
    // `owner` owns the folder (found when its watch began): names past its bound are dropped.
    // `keys`, empty or one per name, is the bound each name counts against instead, for a folder
    // whose owner has none (PendingRecord::charged).
    void addWatchChanges(const Guid& guid, const std::u16string& folder,
                         std::vector<std::u16string>&& names, uint32_t owner = 0,
                         const std::vector<uint32_t>& keys = {});
    // Whether folders of `owner` can take nothing more: its pending names at their bound, or its
    // share of kernel watches all held. Never for root or the service's user.
    bool ownerShareReached(uint32_t owner);
    // Takes every occurrence of each name off the folder's list; an empty list then goes.
    void removeChanges(const Guid& guid, const std::u16string& folder,
                       const std::vector<std::u16string>& names);

    // Writes the cache file from the folder table, atomically (WatchFolderCache::save); raises
    // Osb::ExSystem when it cannot, leaving the table as it is. REQUIRES: the database lock.
    void save() OSB_REQUIRES(mutex_);
    // addFolders without lock and save. REQUIRES: the database lock.
    void addFoldersLocked(const Guid& guid, const std::vector<WatchedFolder>& folders)
        OSB_REQUIRES(mutex_);

    // The folders with a running watch (one per folder of each client): a folder whose watch could
    // not start is not counted. Takes the database lock, then the watch thread's.
    size_t activeWatches();
    // For tests: the current cache file's path, and whether every start queued so far has been
    // tried by the watch thread and its tree watched whole (true when there is no thread).
    std::u16string cachePathForTesting();
    bool startsSettledForTesting();
    // For benchmarks: runs `work` with the database lock held, so completions wait behind it.
    void runLockedForTesting(const std::function<void()>& work);
    void setPendingBoundForTesting(size_t bytes);
    size_t droppedNamesForTesting();
    size_t pendingBytesForTesting(uint32_t owner);

  private:
    // Stops and removes the listed paths the client has; `keepNames` marks their pending records
    // gone, else they go. True when the client had any of them. REQUIRES: the database lock.
    bool removeFoldersLocked(const Guid& guid, const std::vector<WatchedFolder>& folders,
                             bool keepNames) OSB_REQUIRES(mutex_);
    bool hasFolderLocked(const Guid& guid, const std::u16string& path) OSB_REQUIRES(mutex_);
    void addChangesLocked(const Guid& guid, const std::u16string& folder,
                          std::vector<std::u16string>&& names, uint32_t owner = 0,
                          const std::vector<uint32_t>& keys = {}) OSB_REQUIRES(mutex_);
    // Sets the bytes the record's names are counted for, giving back the difference; 0 gives back
    // everything, the directories' charges too.
    void recountLocked(PendingRecord& record, size_t bytes) OSB_REQUIRES(mutex_);
    // After names came off the record: what its directories' charges are now, the rest given back.
    void recountDirectoriesLocked(PendingRecord& record) OSB_REQUIRES(mutex_);
    // Adds the directories of the names in [first, last) to the record's. REQUIRES: the lock.
    static void fileDirectories(PendingRecord& record,
                                std::vector<std::u16string>::const_iterator first,
                                std::vector<std::u16string>::const_iterator last);

    // The database lock. Taken after a Client's mutex, before the thread lock.
    Osb::Mutex mutex_;
    std::map<Guid, std::vector<WatchedFolder>> folders_ OSB_GUARDED_BY(mutex_);
    std::multimap<Guid, PendingRecord> pending_ OSB_GUARDED_BY(mutex_);
    bool opened_ OSB_GUARDED_BY(mutex_) = false;
    // Set by open, unhooked (null) by close before it waits for the thread.
    std::unique_ptr<Thread> thread_ OSB_GUARDED_BY(mutex_);
    WatchFolderCache cache_ OSB_GUARDED_BY(mutex_);
    PendingShare shares_ OSB_GUARDED_BY(mutex_);
};

// The process-wide database that the request handlers use. It exists from first use on.
Database& ProcessDatabase();
// For tests: replaces the process-wide database with a fresh one that is not open, closing the old
// one. Only while no request can be running.
void ResetProcessDatabaseForTesting();

}  // namespace Vigil::Watch
