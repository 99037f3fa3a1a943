// The inotify backend of directory change notification, shared by its two source files:
// InotifyWatcher.cpp runs the reader thread and the reads, InotifyEvents.cpp keeps each handle's
// tree of kernel watches and files the kernel's events with the handles.
//
// One inotify instance serves every open handle (the kernel allows few instances per user, and
// many watches per instance). A reader thread of its own drains the kernel queue as fast as
// events come, whether or not any read is outstanding, and files each event with every handle
// that watches its directory: two handles on one folder share one kernel watch. A read is
// completed at once when events are waiting, or as soon as one arrives; events that come while the
// reader's client is busy pile up and go out as one batch with its next read.
//
// Delivery adapts to the load. The reader completes reads once per drain of the kernel queue, not
// per event, and between drains it may pause so that a burst's events gather (DeliveryPause.h).
//
// Locks: `lifecycle` serialises starting and stopping the reader thread and is taken first;
// `mutex` guards all other state here, that of every handle included. Neither is held while a
// completion runs: completions are queued as APCs to the issuing thread. The reader thread runs
// while any handle is open; the close of the last handle stops and joins it.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Apc.h"
#include "platform/DirectoryChanges.h"
#include "platform/posix/DeliveryPause.h"

namespace Osb {

namespace detail {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                IN_EXCL_UNLINK;

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

}  // namespace detail

struct DirectoryHandleState {
    std::string root;  // the folder, with no trailing '/'
    bool subtree = false;
    bool watching = false;  // kernel watches are set up (at the first read)
    int rootWd = -1;
    std::unordered_map<int, std::string> dirs;  // wd -> directory relative to root, "" or "a/b/"
    std::deque<detail::Change> pending;
    // Directories renamed away in the drain under way, by rename cookie: "a/b/". One that turns up
    // again in the tree keeps its watches under the new name; the others are let go of at the
    // drain's end.
    std::unordered_map<uint32_t, std::string> movedFrom;
    // The end of the handle's changes: 0 none, else an error code, or kOverflow.
    uint32_t end = 0;
    bool touched = false;  // has events from the drain under way; finished at its end
    // The outstanding read, if any.
    bool reading = false;
    uint8_t* buffer = nullptr;
    uint32_t length = 0;
    DirectoryOverlapped* overlapped = nullptr;
    DirectoryCompletion routine = nullptr;
    ApcTarget target;
};

namespace detail {

constexpr uint32_t kOverflow = 0xFFFFFFFF;

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
    size_t watchedDirectories() {
        std::lock_guard<std::mutex> lock(mutex);
        return subscribers.size();
    }

private:
    bool ensureStarted();  // REQUIRES: lifecycle and mutex
    void readerLoop();
    // Files one event with its handles, marking them touched. REQUIRES: mutex
    void onEvent(const inotify_event& event, std::vector<Completion>& out);
    // Drains the kernel queue and completes the reads it can. REQUIRES: mutex
    DrainResult drain(std::vector<Completion>& out);
    // Watches `relative` (a directory below h's root, "" for the root) and, for a subtree, every
    // directory below it; with `report`, its entries are filed as created. Returns 0 or a code.
    uint32_t watchTree(HDirectory h, const std::string& relative, bool report);
    void unwatch(HDirectory h, int wd);
    void unwatchBelow(HDirectory h, const std::string& relative);
    void renameBelow(HDirectory h, const std::string& from, const std::string& to);
    // Lets go at once of the directories renamed away that overlap `relative`, which a new
    // directory is about to take: the drain's end must not take its watches with theirs.
    void forgetMovedOver(HDirectory h, const std::string& relative);
    void finish(HDirectory h, std::vector<Completion>& out);  // completes a read that can be
    void markTouched(HDirectory h);  // REQUIRES: mutex

    std::mutex lifecycle;
    std::mutex mutex;
    int inotifyFd = -1;  // written under both locks
    int wakeFd = -1;     // written under both locks
    std::thread reader;  // started and joined under lifecycle
    bool stopRequested = false;  // guarded by mutex
    size_t openHandles = 0;      // guarded by mutex
    std::unordered_map<int, std::vector<HDirectory>> subscribers;  // wd -> handles
    // Reader thread only, under mutex: the handles of the event being filed, and of the drain.
    std::vector<HDirectory> eventHandles;
    std::vector<HDirectory> touchedHandles;
};

}  // namespace detail
}  // namespace Osb
