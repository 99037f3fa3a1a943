// Directory change notification on inotify.
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
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Apc.h"
#include "platform/DirectoryChanges.h"
#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "platform/posix/DeliveryPause.h"

namespace Osb {

using detail::DrainResult;
using detail::NextPause;

namespace {

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

}  // namespace

struct DirectoryHandleState {
    std::string root;  // the folder, with no trailing '/'
    bool subtree = false;
    bool watching = false;  // kernel watches are set up (at the first read)
    int rootWd = -1;
    std::unordered_map<int, std::string> dirs;  // wd -> directory relative to root, "" or "a/b/"
    std::deque<Change> pending;
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

namespace {

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

void QueueAll(std::vector<Completion>& completions) {
    for (Completion& c : completions) {
        DirectoryCompletion routine = c.routine;
        uint32_t error = c.error, bytes = c.bytes;
        DirectoryOverlapped* overlapped = c.overlapped;
        // A completion whose thread has ended has nobody left to run it.
        QueueApc(c.target, [routine, error, bytes, overlapped] { routine(error, bytes, overlapped); });
    }
    completions.clear();
}

bool Watcher::ensureStarted() {
    if (inotifyFd >= 0) return true;
    inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotifyFd < 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    stopRequested = false;
    reader = std::thread([this] { readerLoop(); });
    return true;
}

HDirectory Watcher::open(const std::string& root) {
    struct stat st;
    if (::stat(root.c_str(), &st) != 0) {
        SetLastErrorFromErrno(errno, root.c_str());
        return nullptr;
    }
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(Err::kDirectory);
        return nullptr;
    }
    std::lock_guard<std::mutex> starting(lifecycle);
    std::lock_guard<std::mutex> lock(mutex);
    if (!ensureStarted()) return nullptr;
    ++openHandles;
    auto* h = new DirectoryHandleState;
    h->root = root;
    while (h->root.size() > 1 && h->root.back() == '/') h->root.pop_back();
    return h;
}

uint32_t Watcher::watchTree(HDirectory h, const std::string& relative, bool report) {
    std::string path = relative.empty() ? h->root : h->root + "/" + relative.substr(0, relative.size() - 1);
    // The folder itself is found as its path names it, through a symbolic link too, as opening a
    // folder by path does; only the links met below it are not followed.
    const uint32_t mask = relative.empty() ? kWatchMask & ~uint32_t{IN_DONT_FOLLOW} : kWatchMask;
    int wd = ::inotify_add_watch(inotifyFd, path.c_str(), mask);
    if (wd < 0) {
        // A directory that went away meanwhile is no failure; a refused watch is.
        if (!relative.empty() && (errno == ENOENT || errno == ENOTDIR)) return 0;
        return SetLastErrorFromErrno(errno, path.c_str());
    }
    if (relative.empty()) h->rootWd = wd;
    if (h->dirs.find(wd) == h->dirs.end()) subscribers[wd].push_back(h);
    h->dirs[wd] = relative;
    if (!h->subtree && !report) return 0;
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return 0;
    std::vector<std::string> subdirectories;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (report) h->pending.push_back({FileAction::kAdded, relative + name});
        bool isDir = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat st;
            isDir = ::lstat((path + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        }
        if (isDir) subdirectories.push_back(relative + name + "/");
    }
    ::closedir(dir);
    if (!h->subtree) return 0;
    for (const std::string& sub : subdirectories) {
        if (uint32_t error = watchTree(h, sub, report)) return error;
    }
    return 0;
}

void Watcher::unwatch(HDirectory h, int wd) {
    h->dirs.erase(wd);
    auto it = subscribers.find(wd);
    if (it == subscribers.end()) return;
    std::erase(it->second, h);
    if (it->second.empty()) {
        subscribers.erase(it);
        ::inotify_rm_watch(inotifyFd, wd);
    }
}

void Watcher::renameBelow(HDirectory h, const std::string& from, const std::string& to) {
    for (auto& [wd, dir] : h->dirs) {
        if (dir.compare(0, from.size(), from) == 0) dir = to + dir.substr(from.size());
    }
}

void Watcher::forgetMovedOver(HDirectory h, const std::string& relative) {
    for (auto it = h->movedFrom.begin(); it != h->movedFrom.end();) {
        const std::string& gone = it->second;
        const size_t common = std::min(gone.size(), relative.size());
        if (gone.compare(0, common, relative, 0, common) == 0) {
            unwatchBelow(h, gone);
            it = h->movedFrom.erase(it);
        } else {
            ++it;
        }
    }
}

void Watcher::unwatchBelow(HDirectory h, const std::string& relative) {
    std::vector<int> gone;
    for (const auto& [wd, dir] : h->dirs) {
        if (dir.compare(0, relative.size(), relative) == 0) gone.push_back(wd);
    }
    for (int wd : gone) unwatch(h, wd);
}

bool Watcher::read(HDirectory h, void* buffer, uint32_t length, bool subtree,
                   DirectoryOverlapped* o, DirectoryCompletion routine) {
    std::vector<Completion> out;
    uint32_t failure = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (h->reading) {
            SetLastError(Err::kInvalidParameter);
            return false;
        }
        if (!h->watching && h->end == 0) {
            // Events already in the kernel queue happened before this handle watched anything.
            // Filed now, they reach only the handles that were watching then: this one may share
            // their kernel watch, and would otherwise be handed changes older than itself.
            drain(out);
            h->subtree = subtree;
            if (uint32_t error = watchTree(h, "", false)) {
                unwatchBelow(h, "");
                failure = error;
            } else {
                h->watching = true;
            }
        }
        if (failure == 0) {
            h->reading = true;
            h->buffer = static_cast<uint8_t*>(buffer);
            h->length = length;
            h->overlapped = o;
            h->routine = routine;
            h->target = CurrentApcTarget();
            finish(h, out);
        }
    }
    QueueAll(out);  // also on failure: the drain may have completed other handles' reads
    if (failure != 0) {
        SetLastError(failure);  // last: QueueAll may touch the last error
        return false;
    }
    return true;
}

// Completes h's outstanding read when there is something to say: changes, or an end. Changes
// held when the folder went come first: the error ends the read after them. (An overflow and a
// close drop what was held before they set the end.)
void Watcher::finish(HDirectory h, std::vector<Completion>& out) {
    if (!h->reading) return;
    uint32_t error = 0, bytes = 0;
    uint8_t* previous = nullptr;
    while (!h->pending.empty()) {
        std::u16string name = Utf8ToUtf16(h->pending.front().name);
        uint32_t nameBytes = static_cast<uint32_t>(name.size() * 2);
        uint32_t recordBytes = (kFileNotifyHeaderBytes + nameBytes + 3) & ~3u;
        if (recordBytes > h->length - bytes) {
            // A name that could never fit is dropped rather than blocking every later one.
            if (bytes == 0) h->pending.pop_front();
            if (bytes == 0) continue;
            break;
        }
        uint8_t* record = h->buffer + bytes;
        uint32_t header[3] = {0, h->pending.front().action, nameBytes};
        std::memcpy(record, header, sizeof(header));
        std::memcpy(record + kFileNotifyHeaderBytes, name.data(), nameBytes);
        if (previous) {
            uint32_t next = static_cast<uint32_t>(record - previous);
            std::memcpy(previous, &next, 4);
        }
        previous = record;
        bytes += recordBytes;
        h->pending.pop_front();
    }
    if (bytes == 0) {
        if (h->end == 0) return;
        error = h->end == kOverflow ? 0 : h->end;
    }
    h->reading = false;
    out.push_back({h->target, h->routine, error, bytes, h->overlapped});
}

void Watcher::onEvent(const inotify_event& event, std::vector<Completion>& out) {
    if (event.mask & IN_Q_OVERFLOW) {
        // One instance serves every handle, so an overflow may have lost events of any of them.
        for (auto& [wd, handles] : subscribers) {
            for (HDirectory h : handles) {
                if (h->end == 0) h->end = kOverflow;
                h->pending.clear();
                finish(h, out);
            }
        }
        return;
    }
    auto it = subscribers.find(event.wd);
    if (it == subscribers.end()) return;
    eventHandles = it->second;  // watchTree below may change the map; the copy keeps its capacity
    for (HDirectory h : eventHandles) {
        if (h->end != 0) continue;
        auto dir = h->dirs.find(event.wd);
        if (dir == h->dirs.end()) continue;
        // In a directory renamed away and not seen again in the tree: it is outside by now.
        bool movedOut = false;
        for (const auto& [cookie, relative] : h->movedFrom) {
            movedOut = movedOut || dir->second.compare(0, relative.size(), relative) == 0;
        }
        if (movedOut) continue;
        bool isRoot = event.wd == h->rootWd;
        if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED)) {
            if (isRoot) {
                h->end = Err::kFileNotFound;
                markTouched(h);
            } else if (event.mask & (IN_IGNORED | IN_DELETE_SELF)) {
                // The kernel drops the watch of a deleted directory: the handle lets go of it
                // entirely, so no subscriber entry outlives the handle (and meets a reused wd).
                unwatch(h, event.wd);
            }
            continue;
        }
        if (event.len == 0) continue;
        bool isDir = (event.mask & IN_ISDIR) != 0;
        uint32_t action = 0;
        if (event.mask & IN_CREATE) action = FileAction::kAdded;
        else if (event.mask & IN_DELETE) action = FileAction::kRemoved;
        else if (event.mask & IN_ATTRIB) action = FileAction::kModified;
        else if (event.mask & IN_MOVED_FROM) action = FileAction::kRenamedOldName;
        else if (event.mask & IN_MOVED_TO) action = FileAction::kRenamedNewName;
        if (action == 0) continue;
        // Built before watchTree below can change h->dirs under `dir`.
        std::string name = dir->second + event.name;
        markTouched(h);
        if (!h->subtree || !isDir) {
            h->pending.push_back({action, std::move(name)});
            continue;
        }
        h->pending.push_back({action, name});
        if (action == FileAction::kRenamedOldName) {
            h->movedFrom[event.cookie] = name + "/";
        } else if (action == FileAction::kRenamedNewName) {
            // Renamed within the tree: two names and no more, and it keeps its watches, so that
            // nothing made in it meanwhile is missed. Moved in from outside: new to the tree, as
            // a created one.
            auto from = h->movedFrom.find(event.cookie);
            if (from != h->movedFrom.end()) {
                const std::string previous = from->second;
                h->movedFrom.erase(from);
                forgetMovedOver(h, name + "/");
                renameBelow(h, previous, name + "/");
            } else {
                forgetMovedOver(h, name + "/");
                if (uint32_t error = watchTree(h, name + "/", true)) h->end = error;
            }
        } else if (action == FileAction::kAdded) {
            // Whatever was made in a new directory before its watch existed is reported now.
            forgetMovedOver(h, name + "/");
            if (uint32_t error = watchTree(h, name + "/", true)) h->end = error;
        }
    }
}

void Watcher::markTouched(HDirectory h) {
    if (h->touched) return;
    h->touched = true;
    touchedHandles.push_back(h);
}

DrainResult Watcher::drain(std::vector<Completion>& out) {
    alignas(inotify_event) char buffer[64 * 1024];
    DrainResult result;
    for (;;) {
        ssize_t got = ::read(inotifyFd, buffer, sizeof(buffer));
        if (got <= 0) break;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            onEvent(*event, out);
            ++result.events;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    bool delivered = false;
    for (HDirectory h : touchedHandles) {
        h->touched = false;
        // Renamed away and not seen again: moved out of the tree.
        for (const auto& [cookie, relative] : h->movedFrom) unwatchBelow(h, relative);
        h->movedFrom.clear();
        const size_t before = out.size();
        finish(h, out);
        delivered = delivered || out.size() > before;
    }
    touchedHandles.clear();
    result.undelivered = result.events > 0 && !delivered;
    return result;
}

void Watcher::readerLoop() {
    int64_t pause = 0;  // microseconds
    for (;;) {
        if (pause > 0) {
            // Only a stop ends the pause early.
            const timespec timeout = {0, static_cast<long>(pause * 1000)};
            pollfd wake = {wakeFd, POLLIN, 0};
            ::ppoll(&wake, 1, &timeout, nullptr);
        }
        pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
        std::vector<Completion> out;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stopRequested) return;
            pause = NextPause(pause, drain(out));
        }
        QueueAll(out);
    }
}

void Watcher::close(HDirectory h) {
    std::lock_guard<std::mutex> stopping(lifecycle);
    std::vector<Completion> out;
    bool last;
    {
        std::lock_guard<std::mutex> lock(mutex);
        unwatchBelow(h, "");
        h->pending.clear();
        h->end = kOverflow;  // a zero-byte end, as for a close
        finish(h, out);
        delete h;
        last = --openHandles == 0;
        if (last) {
            stopRequested = true;
            uint64_t one = 1;
            ssize_t ignored = ::write(wakeFd, &one, sizeof(one));
            (void)ignored;
        }
    }
    QueueAll(out);
    if (!last) return;
    reader.join();
    std::lock_guard<std::mutex> lock(mutex);
    ::close(inotifyFd);
    ::close(wakeFd);
    inotifyFd = wakeFd = -1;
}

}  // namespace

HDirectory OpenDirectoryForWatch(const std::u16string& path) {
    return Watcher::instance().open(Utf16ToUtf8(path));
}

bool ReadDirectoryChanges(HDirectory handle, void* buffer, uint32_t length, bool watchSubtree,
                          DirectoryOverlapped* overlapped, DirectoryCompletion completion) {
    return Watcher::instance().read(handle, buffer, length, watchSubtree, overlapped, completion);
}

void CloseDirectory(HDirectory handle) { Watcher::instance().close(handle); }

size_t WatchedDirectoriesForTesting() { return Watcher::instance().watchedDirectories(); }

}  // namespace Osb
