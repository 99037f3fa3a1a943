// The shares of kernel watches per owner of the watched directories.
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "platform/posix/InotifyWatcher.h"

namespace Osb {
namespace detail {

Watcher::Watcher() : serviceUser(static_cast<uint32_t>(::geteuid())) {}

void Watcher::refreshWatchShare() {
    if (watchShareForTesting != 0) {
        watchShare = watchShareForTesting;
        return;
    }
    // Read whenever a tree starts being watched: an administrator may raise the limit while the
    // service runs.
    size_t kernel = kFallbackKernelWatches;
    if (FILE* file = std::fopen("/proc/sys/fs/inotify/max_user_watches", "re")) {
        unsigned long long value = 0;
        if (std::fscanf(file, "%llu", &value) == 1 && value > 0)
            kernel = static_cast<size_t>(value);
        std::fclose(file);
    }
    watchShare = kernel / kWatchShareDivisor;
}

uint32_t Watcher::chargeFor(HDirectory h, const std::string& relative) const {
    if (relative.empty()) return h->owner;
    // The directory's own owner when that is a limited one: a user's directories below a folder
    // of root's (/tmp, /home) count against that user, not against root, who has no share. The
    // folder's owner otherwise, so a limited user's folder pays for everything in it.
    struct stat st;
    const std::string path = h->root + "/" + relative.substr(0, relative.size() - 1);
    if (::lstat(path.c_str(), &st) == 0 && limited(static_cast<uint32_t>(st.st_uid))) {
        return static_cast<uint32_t>(st.st_uid);
    }
    return h->owner;
}

bool Watcher::subscribe(HDirectory h, int wd, const std::string& relative) {
    InotifyQueue& q = *h->queue;
    auto it = q.subscribers.find(wd);
    if (it == q.subscribers.end()) {
        const uint32_t charged = chargeFor(h, relative);
        size_t& count = ownerWatches[charged];
        if (limited(charged) && count >= watchShare) {
            ::inotify_rm_watch(q.fd, wd);
            return false;
        }
        ++count;
        q.chargedTo[wd] = charged;
        it = q.subscribers.try_emplace(wd).first;
    }
    if (h->dirs.find(wd) == h->dirs.end()) it->second.push_back(h);
    h->dirs[wd] = relative;
    return true;
}

void Watcher::setWatchShare(size_t watches) {
    MutexLock lock(mutex);
    watchShareForTesting = watches;
    refreshWatchShare();
}

bool Watcher::shareReached(uint32_t owner) {
    MutexLock lock(mutex);
    if (!limited(owner)) return false;
    if (watchShareForTesting == 0) refreshWatchShare();
    auto it = ownerWatches.find(owner);
    return it != ownerWatches.end() && it->second >= watchShare;
}

}  // namespace detail

bool GetFolderOwner(const std::u16string& path, uint32_t& owner, bool* openToOthers) {
    const std::string name = Utf16ToUtf8(path);
    struct stat st;
    if (::stat(name.c_str(), &st) != 0) {
        SetLastErrorFromErrno(errno, name.c_str());
        return false;
    }
    owner = static_cast<uint32_t>(st.st_uid);
    if (openToOthers != nullptr) *openToOthers = (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return true;
}

bool IsLimitedOwner(uint32_t owner) {
    // Asked once per batch of changes: the service's user does not change while it runs.
    static const uint32_t serviceUser = static_cast<uint32_t>(::geteuid());
    return owner != 0 && owner != serviceUser;
}

bool WatchShareReached(uint32_t owner) { return detail::Watcher::instance().shareReached(owner); }

void SetWatchShareForTesting(size_t watches) { detail::Watcher::instance().setWatchShare(watches); }

}  // namespace Osb
