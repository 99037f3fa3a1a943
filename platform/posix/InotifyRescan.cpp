// The rescan of a handle after its queue overflowed: its tree is walked again, a slice of
// directories per turn of the reader thread, and every entry met is filed as created.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/ErrorCode.h"
#include "platform/posix/InotifyWatcher.h"

namespace Osb::detail {

void Watcher::startRescan(HDirectory h) {
    // The rescan walks the whole tree: a first walk still under way has nothing left to add.
    stopWalk(h);
    // A rescan under way starts over: what it walked before this overflow may have changed since.
    h->rescanStack.assign(1, std::string());
    h->rescanned.clear();
    if (h->rescanning) return;
    h->rescanning = true;
    if (rescans.empty()) wake();  // the reader may be waiting with nothing to read
    rescans.push_back(h);
}

void Watcher::stopRescan(HDirectory h) {
    if (!h->rescanning) return;
    h->rescanning = false;
    h->rescanStack.clear();
    h->rescanned.clear();
    std::erase(rescans, h);
}

bool Watcher::rescanSlice() {
    size_t budget = kRescanSliceDirectories;
    while (budget > 0 && !rescans.empty()) {
        HDirectory h = rescans.front();
        if (h->rescanStack.empty()) {
            completeRescan(h);
            continue;
        }
        std::string relative = std::move(h->rescanStack.back());
        h->rescanStack.pop_back();
        rescanDirectory(h, relative);
        --budget;
    }
    return !rescans.empty();
}

void Watcher::rescanDirectory(HDirectory h, const std::string& relative) {
    const std::string path =
        relative.empty() ? h->root : h->root + "/" + relative.substr(0, relative.size() - 1);
    const uint32_t mask = relative.empty() ? kWatchMask & ~uint32_t{IN_DONT_FOLLOW} : kWatchMask;
    markTouched(h);
    // Adding a watch the directory already has gives its descriptor back, so the walk finds the
    // watches it keeps under the names they have now, renamed ones included.
    const int wd = ::inotify_add_watch(h->queue->fd, path.c_str(), mask);
    if (wd < 0 || (relative.empty() && wd != h->rootWd)) {
        const int error = errno;
        if (relative.empty()) {
            if (wd >= 0 && !h->queue->subscribers.contains(wd))
                ::inotify_rm_watch(h->queue->fd, wd);
            // The folder went while its events were lost, or another one took its name: it is
            // gone as if its own deletion had been seen.
            stopRescan(h);
            h->end = Err::kFileNotFound;
            return;
        }
        if (error == ENOSPC || error == ENOMEM)
            h->failure = SetLastErrorFromErrno(error, path.c_str());
        return;  // gone meanwhile, or unreadable: left out, as when the tree was first watched
    }
    if (!subscribe(h, wd, relative)) {
        h->failure = Err::kNotEnoughQuota;  // past the owner's share: left out
        return;
    }
    h->rescanned.insert(wd);
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        h->pending.push_back({FileAction::kAdded, relative + name});
        if (!h->subtree) continue;
        bool isDir = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat st;
            isDir = ::lstat((path + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        }
        if (isDir) h->rescanStack.push_back(relative + name + "/");
    }
    ::closedir(dir);
}

void Watcher::completeRescan(HDirectory h) {
    // Watches the walk did not meet are of directories that left the tree while events were lost.
    std::vector<int> gone;
    for (const auto& [wd, dir] : h->dirs) {
        if (!h->rescanned.contains(wd)) gone.push_back(wd);
    }
    stopRescan(h);
    for (int wd : gone) unwatch(h, wd);
}

}  // namespace Osb::detail
