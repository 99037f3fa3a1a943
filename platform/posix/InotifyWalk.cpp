// The first walk of a big tree, past what its first read walked itself: the reader thread
// watches a slice of its directories per turn, draining the queues in between.
#include "platform/posix/InotifyWatcher.h"

#include <algorithm>

namespace Osb::detail {

uint32_t Watcher::walkSome(HDirectory h, size_t budget) {
    uint32_t failure = 0;
    while (budget > 0 && !h->walkStack.empty()) {
        const std::string relative = std::move(h->walkStack.back());
        h->walkStack.pop_back();
        const uint32_t error = watchTree(h, relative, false, &h->walkStack);
        if (failure == 0) failure = error;
        --budget;
    }
    return failure;
}

void Watcher::holdWalks(bool hold) {
    MutexLock lock(mutex);
    walksHeld = hold;
    if (!hold) wake();
}

void Watcher::startWalk(HDirectory h) {
    if (h->walking) return;
    h->walking = true;
    if (walks.empty()) wake();  // the reader may be waiting with nothing to read
    walks.push_back(h);
}

void Watcher::stopWalk(HDirectory h) {
    if (!h->walking) return;
    h->walking = false;
    h->walkStack.clear();
    std::erase(walks, h);
}

bool Watcher::walkSlice() {
    if (walksHeld) return false;
    size_t budget = kRescanSliceDirectories;
    while (budget > 0 && !walks.empty()) {
        HDirectory h = walks.front();
        // Done, or the folder went: what is left of the walk has nothing to watch.
        if (h->walkStack.empty() || h->end != 0) {
            stopWalk(h);
            continue;
        }
        const uint32_t error = walkSome(h, 1);
        --budget;
        // Reported by the handle's read like a failure met by the first read itself.
        if (error != 0 && h->failure == 0) {
            h->failure = error;
            markTouched(h);
        }
        // Turn about, so that one huge tree does not keep a small one waiting for its end.
        if (walks.size() > 1 && walks.front() == h) {
            walks.pop_front();
            walks.push_back(h);
        }
    }
    return !walks.empty();
}

}  // namespace Osb::detail
