#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/ErrorCode.h"
#include "platform/posix/InotifyWatcher.h"

namespace Osb::detail {

uint32_t Watcher::watchTree(HDirectory h, const std::string& relative, bool report,
                           std::vector<std::string>* later) {
    std::string path = relative.empty() ? h->root : h->root + "/" + relative.substr(0, relative.size() - 1);
    // The folder itself is found as its path names it, through a symbolic link too, as opening a
    // folder by path does; only the links met below it are not followed.
    const uint32_t mask = relative.empty() ? kWatchMask & ~uint32_t{IN_DONT_FOLLOW} : kWatchMask;
    int wd = ::inotify_add_watch(h->queue->fd, path.c_str(), mask);
    if (wd < 0) {
        // Below the folder, a directory that went away meanwhile, or one the service may not
        // read, is left out: it must not cost the whole folder its watch. A watch the kernel
        // refuses for want of room (ENOSPC, ENOMEM) is a failure, which the caller reports; the
        // directory is left out and its entries are not reported, as it is not watched.
        if (!relative.empty() &&
            (errno == ENOENT || errno == ENOTDIR || errno == EACCES || errno == EPERM))
            return 0;
        return SetLastErrorFromErrno(errno, path.c_str());
    }
    // Past the owner's share: left out as a directory the kernel refuses, with its own code.
    if (!subscribe(h, wd, relative)) {
        SetLastError(Err::kNotEnoughQuota);
        return Err::kNotEnoughQuota;
    }
    if (relative.empty()) h->rootWd = wd;
    // Made during a rescan: it is in the tree, and the rescan's end must not let go of it.
    if (h->rescanning) h->rescanned.insert(wd);
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
    if (later != nullptr) {
        later->insert(later->end(), subdirectories.begin(), subdirectories.end());
        return 0;
    }
    uint32_t failure = 0;
    for (const std::string& sub : subdirectories) {
        const uint32_t error = watchTree(h, sub, report);
        if (failure == 0) failure = error;
    }
    return failure;
}

void Watcher::unwatch(HDirectory h, int wd) {
    h->dirs.erase(wd);
    InotifyQueue& q = *h->queue;
    auto it = q.subscribers.find(wd);
    if (it == q.subscribers.end()) return;
    std::erase(it->second, h);
    if (it->second.empty()) {
        q.subscribers.erase(it);
        ::inotify_rm_watch(q.fd, wd);
        auto charged = q.chargedTo.find(wd);
        if (charged != q.chargedTo.end()) {
            --ownerWatches[charged->second];
            q.chargedTo.erase(charged);
        }
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

void Watcher::onEvent(InotifyQueue& q, const inotify_event& event, std::vector<Completion>&) {
    if (event.mask & IN_Q_OVERFLOW) {
        // The events before this one are filed; what came after the queue filled is lost, for
        // any handle of this queue. Each of them is walked again and reports all it holds.
        for (HDirectory h : q.handles) {
            if (h->watching && h->end == 0) startRescan(h);
        }
        return;
    }
    auto it = q.subscribers.find(event.wd);
    if (it == q.subscribers.end()) return;
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
                if (uint32_t error = watchTree(h, name + "/", true)) h->failure = error;
            }
        } else if (action == FileAction::kAdded) {
            // Whatever was made in a new directory before its watch existed is reported now.
            forgetMovedOver(h, name + "/");
            if (uint32_t error = watchTree(h, name + "/", true)) h->failure = error;
        }
    }
}

void Watcher::markTouched(HDirectory h) {
    if (h->touched) return;
    h->touched = true;
    touchedHandles.push_back(h);
}

}  // namespace Osb::detail
