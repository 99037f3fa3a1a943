// The inotify backend of directory change notification, shared by its three source files:
// InotifyWatcher.cpp runs the reader thread and the reads, InotifyEvents.cpp keeps each handle's
// tree of kernel watches and files the kernel's events with the handles, InotifyRescan.cpp
// recovers the handles of a queue that overflowed.
//
// One inotify instance (a kernel queue) per owner of the watched folders: a folder goes on the
// queue of the user that owns it (st_uid of the folder as opened, a link followed), so that a
// storm of changes in one user's folders can overflow only that user's queue. The kernel counts
// instances against the service's own user (max_user_instances, 128 by default, shared with
// every other program of that user), so at most kOwnerQueueLimit owners get a queue of their
// own; the folders of any further owner share one more queue. Many watches go on one queue.
//
// One reader thread serves every queue (epoll over their descriptors): it drains the kernel
// queues as fast as events come, whether or not any read is outstanding, and files each event
// with every handle that watches its directory: two handles on one folder of one queue share one
// kernel watch. A read is completed at once when events are waiting, or as soon as one arrives;
// events that come while the reader's client is busy pile up and go out as one batch with its
// next read.
//
// An overflow of a queue loses nothing that the kernel kept: those events are filed as always.
// Every handle of that queue then has its tree walked again (a rescan): directories that appeared
// meanwhile are watched, ones that went are let go of, and every entry is filed as created. The
// reader walks at most kRescanSliceDirectories directories per turn and drains every queue
// between turns, so a big tree's rescan delays other handles by one slice at most.
//
// Kernel watches are shared out by owner: the kernel counts every watch against the service's own
// user (max_user_watches), so one user with a huge tree could otherwise leave none for anybody
// else. An owner other than root and the service's user holds at most a quarter of that limit,
// counted as distinct kernel watches on any queue (the shared one too); a directory past it is
// left out like one the kernel refuses, with its own code (1816). A watch counts against the
// owner of the directory watched when that owner is limited (so a user's directories below a
// folder of root's are that user's), else against the folder's owner. Letting go of a watch
// gives it back to the share it was counted in.
//
// The first read of a handle watches its folder and up to kFirstWalkDirectories directories of its
// tree; the reader walks the rest of a bigger tree in slices like a rescan (InotifyWalk.cpp), so a
// client adding a tree of 200,000 directories holds up neither the caller's other work nor anybody
// else's changes. A directory not walked yet reports nothing, as before its watch was set up.
//
// Delivery adapts to the load. The reader completes reads once per drain of the kernel queues,
// not per event, and between drains it may pause so that a burst's events gather
// (DeliveryPause.h).
//
// Locks: `lifecycle` serialises starting and stopping the reader thread and is taken first;
// `mutex` guards all other state here, that of every handle and queue included (the analysis
// checks the watcher's own fields only). Neither is held while a completion runs: completions
// are queued as APCs to the issuing thread. The reader thread runs while any handle is open; the
// close of the last handle stops and joins it.
#pragma once

#include <sys/inotify.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Apc.h"
#include "platform/DirectoryChanges.h"
#include "platform/Mutex.h"
#include "platform/posix/DeliveryPause.h"

namespace Osb {

namespace detail {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                IN_EXCL_UNLINK;

// Owners with a queue of their own; a quarter of the kernel's default instance limit, which the
// service's user shares with its other programs.
constexpr size_t kOwnerQueueLimit = 32;
// Directories one turn of the reader walks for rescans before it drains the queues again.
constexpr size_t kRescanSliceDirectories = 64;
// Directories of a new handle's tree that its first read watches itself; the rest of a bigger tree
// is walked by the reader, kRescanSliceDirectories per turn. Small trees are thus watched whole
// when the read returns, and a huge one holds no lock for longer than a slice: the caller (the
// watch thread, which other clients' requests wait for) and the reader (which every other folder's
// changes wait for) go on meanwhile.
constexpr size_t kFirstWalkDirectories = 256;

struct Change {
    uint32_t action;
    std::string name;  // relative to the handle's folder, UTF-8
};

struct Completion {
    ApcTarget target;
    DirectoryCompletion routine;
    uint32_t error;
    uint32_t bytes;
    DirectoryOverlapped* overlapped;
};

// One inotify instance and the handles whose folders it watches.
struct InotifyQueue {
    int fd = -1;
    uint64_t tag = 0;     // names the queue to epoll; never reused
    bool shared = false;  // the queue of the owners past kOwnerQueueLimit
    uint32_t owner = 0;   // the owner's uid, when not shared
    std::vector<HDirectory> handles;
    std::unordered_map<int, std::vector<HDirectory>> subscribers;  // wd -> handles
    // wd -> the owner whose share the watch is counted in (Watcher::chargeFor when it was set up).
    std::unordered_map<int, uint32_t> chargedTo;
};

// An owner's watches past which no more are set up; a quarter of the kernel's limit leaves room
// for root, the service's user and three more users at their fullest.
constexpr size_t kWatchShareDivisor = 4;
// The kernel's limit taken when it cannot be read: its smallest default.
constexpr size_t kFallbackKernelWatches = 8192;

}  // namespace detail

struct DirectoryHandleState {
    std::string root;                       // the folder, with no trailing '/'
    uint32_t owner = 0;                     // the folder's owner, as opened
    detail::InotifyQueue* queue = nullptr;  // chosen at open by the folder's owner
    bool subtree = false;
    bool watching = false;  // kernel watches are set up (at the first read)
    int rootWd = -1;
    std::unordered_map<int, std::string> dirs;  // wd -> directory relative to root, "" or "a/b/"
    std::deque<detail::Change> pending;
    // Directories renamed away in the drain under way, by rename cookie: "a/b/". One that turns up
    // again in the tree keeps its watches under the new name; the others are let go of at the
    // drain's end.
    std::unordered_map<uint32_t, std::string> movedFrom;
    // The end of the handle's changes: 0 none, else an error code, or kClosed.
    uint32_t end = 0;
    // A failure that does not end the handle (a directory the kernel would not watch for want of
    // room): reported by one read after the changes before it, then cleared.
    uint32_t failure = 0;
    bool touched = false;  // has events from the drain under way; finished at its end
    // A rescan after an overflow: the directories still to walk, and the watches walked so far
    // (those left out at its end have gone). `rescanning` while either matters.
    bool rescanning = false;
    std::vector<std::string> rescanStack;
    std::unordered_set<int> rescanned;
    // The first walk of a subtree, past what the first read walked itself: the directories still
    // to watch (their entries are not filed: they were there before the handle).
    bool walking = false;
    std::vector<std::string> walkStack;
    // The outstanding read, if any.
    bool reading = false;
    uint8_t* buffer = nullptr;
    uint32_t length = 0;
    DirectoryOverlapped* overlapped = nullptr;
    DirectoryCompletion routine = nullptr;
    ApcTarget target;
};

namespace detail {

constexpr uint32_t kClosed = 0xFFFFFFFF;

class Watcher {
public:
    static Watcher& instance() {
        // Lives for the process: handles may be closed from static destructors of callers.
        static Watcher* watcher = new Watcher;
        return *watcher;
    }

    HDirectory open(const std::string& root);
    bool read(HDirectory h, void* buffer, uint32_t length, bool subtree, DirectoryOverlapped* o,
              DirectoryCompletion routine);
    void close(HDirectory h);
    size_t watchedDirectories();
    bool walksDone();
    void holdWalks(bool hold);
    size_t queueCount();
    void hold(bool held);
    void setOwnerQueueLimit(size_t limit);
    void setWatchShare(size_t watches);
    bool shareReached(uint32_t owner);

private:
    Watcher();
    bool ensureStarted() OSB_REQUIRES(lifecycle, mutex);
    // The queue for a folder of `owner`, made when missing; null with the last error set when no
    // queue can be had.
    InotifyQueue* queueFor(uint32_t owner) OSB_REQUIRES(lifecycle, mutex);
    void dropQueue(InotifyQueue* q) OSB_REQUIRES(mutex);  // q has no handles left
    void readerLoop();
    // Files one event of queue q with its handles, marking them touched.
    void onEvent(InotifyQueue& q, const inotify_event& event, std::vector<Completion>& out)
        OSB_REQUIRES(mutex);
    // Reads queue q until it is empty, filing its events.
    void drainQueue(InotifyQueue& q, DrainResult& result, std::vector<Completion>& out)
        OSB_REQUIRES(mutex);
    // Finishes the handles touched since the last settle: lets go of directories moved out and
    // completes the reads that can be.
    void settle(DrainResult& result, std::vector<Completion>& out) OSB_REQUIRES(mutex);
    // Watches `relative` (a directory below h's root, "" for the root) and, for a subtree, every
    // directory below it, or only its own subdirectories' names put on `later` when given; with
    // `report`, its entries are filed as created. Returns 0 or the code of the first failure; a
    // directory below the root that cannot be watched is left out and the rest of its tree is
    // still watched.
    uint32_t watchTree(HDirectory h, const std::string& relative, bool report,
                       std::vector<std::string>* later = nullptr) OSB_REQUIRES(mutex);
    // The first walk (InotifyWalk.cpp): up to `budget` directories of h's walkStack watched;
    // returns the code of the first failure, or 0.
    uint32_t walkSome(HDirectory h, size_t budget) OSB_REQUIRES(mutex);
    void startWalk(HDirectory h) OSB_REQUIRES(mutex);
    void stopWalk(HDirectory h) OSB_REQUIRES(mutex);
    // Walks up to kRescanSliceDirectories directories of the first walks under way; true while
    // some are left.
    bool walkSlice() OSB_REQUIRES(mutex);
    // Files wd as h's directory `relative`. A watch new to h's queue is counted in the share of
    // chargeFor's owner; when that share is full, the watch is removed again and false returned.
    bool subscribe(HDirectory h, int wd, const std::string& relative) OSB_REQUIRES(mutex);
    // The owner a new watch of h's directory `relative` counts against.
    uint32_t chargeFor(HDirectory h, const std::string& relative) const;
    bool limited(uint32_t owner) const { return owner != 0 && owner != serviceUser; }
    void unwatch(HDirectory h, int wd) OSB_REQUIRES(mutex);
    void unwatchBelow(HDirectory h, const std::string& relative) OSB_REQUIRES(mutex);
    void renameBelow(HDirectory h, const std::string& from, const std::string& to)
        OSB_REQUIRES(mutex);
    // Lets go at once of the directories renamed away that overlap `relative`, which a new
    // directory is about to take: the drain's end must not take its watches with theirs.
    void forgetMovedOver(HDirectory h, const std::string& relative) OSB_REQUIRES(mutex);
    // Completes a read that can be.
    void finish(HDirectory h, std::vector<Completion>& out) OSB_REQUIRES(mutex);
    void markTouched(HDirectory h) OSB_REQUIRES(mutex);
    // Rescans (InotifyRescan.cpp).
    void startRescan(HDirectory h) OSB_REQUIRES(mutex);
    void stopRescan(HDirectory h) OSB_REQUIRES(mutex);
    // Walks up to kRescanSliceDirectories directories of the rescans under way; true while some
    // are left.
    bool rescanSlice() OSB_REQUIRES(mutex);
    void rescanDirectory(HDirectory h, const std::string& relative) OSB_REQUIRES(mutex);
    void completeRescan(HDirectory h) OSB_REQUIRES(mutex);
    void wake();
    void refreshWatchShare() OSB_REQUIRES(mutex);
    // From the reader between two slices of a walk: lets the callers waiting for `mutex` take it
    // first (a mutex is not fair, and the reader would take it again at once).
    void stepAside();

    Mutex lifecycle OSB_ACQUIRED_BEFORE(mutex);
    Mutex mutex OSB_ACQUIRED_AFTER(lifecycle);
    // Callers of read and close waiting for `mutex` (CallerLock), which the reader steps aside for.
    std::atomic<int> contenders{0};
    int epollFd = -1;    // written under both locks
    int wakeFd = -1;     // written under both locks
    std::thread reader OSB_GUARDED_BY(lifecycle);  // started and joined under lifecycle
    bool stopRequested OSB_GUARDED_BY(mutex) = false;
    bool held OSB_GUARDED_BY(mutex) = false;  // the reader leaves the queues alone
    size_t openHandles OSB_GUARDED_BY(mutex) = 0;
    uint64_t nextTag OSB_GUARDED_BY(mutex) = 1;  // 0 tags the wake-up descriptor
    size_t ownerQueueLimit OSB_GUARDED_BY(mutex) = kOwnerQueueLimit;  // lowered by tests
    std::vector<std::unique_ptr<InotifyQueue>> queues OSB_GUARDED_BY(mutex);
    const uint32_t serviceUser;  // the effective uid, set at construction
    // Kernel watches per owner over every queue, the share of a limited owner (taken from the
    // kernel's limit whenever a tree starts being watched), and a share set by tests instead (0:
    // none).
    std::unordered_map<uint32_t, size_t> ownerWatches OSB_GUARDED_BY(mutex);
    size_t watchShare OSB_GUARDED_BY(mutex) = kFallbackKernelWatches / kWatchShareDivisor;
    size_t watchShareForTesting OSB_GUARDED_BY(mutex) = 0;
    std::deque<HDirectory> rescans OSB_GUARDED_BY(mutex);  // the handles with a rescan under way
    std::deque<HDirectory> walks OSB_GUARDED_BY(mutex);  // the handles with a first walk under way
    bool walksHeld OSB_GUARDED_BY(mutex) = false;        // by a test: walks wait where they are
    // Guarded by mutex: the handles of the event being filed, and of the drain. The thread that
    // drains uses them: the reader, or the caller of read, which drains a queue before a handle's
    // first watch so that older events are not handed to it.
    std::vector<HDirectory> eventHandles OSB_GUARDED_BY(mutex);
    std::vector<HDirectory> touchedHandles OSB_GUARDED_BY(mutex);
};

}  // namespace detail
}  // namespace Osb
