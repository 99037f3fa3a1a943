#include "platform/posix/InotifyWatcher.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {
namespace detail {

namespace {

// Holds the watcher's lock for a caller other than the reader, counted as waiting until it has
// it, so that a reader busy walking a big tree lets it in between two slices.
class OSB_SCOPED_CAPABILITY CallerLock {
public:
    CallerLock(Mutex& mutex, std::atomic<int>& contenders) OSB_ACQUIRE(mutex) : mutex_(mutex) {
        contenders.fetch_add(1);
        mutex_.lock();
        contenders.fetch_sub(1);
    }
    ~CallerLock() OSB_RELEASE() { mutex_.unlock(); }
    CallerLock(const CallerLock&) = delete;
    CallerLock& operator=(const CallerLock&) = delete;

private:
    Mutex& mutex_;
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

}  // namespace

bool Watcher::ensureStarted() {
    if (epollFd >= 0) return true;
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) {
        SetLastErrorFromErrno(errno);
        return false;
    }
    wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event wakeEvent = {};
    wakeEvent.events = EPOLLIN;
    wakeEvent.data.u64 = 0;
    if (wakeFd < 0 || ::epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &wakeEvent) != 0) {
        SetLastErrorFromErrno(errno);
        if (wakeFd >= 0) ::close(wakeFd);
        ::close(epollFd);
        epollFd = wakeFd = -1;
        return false;
    }
    stopRequested = false;
    reader = std::thread([this] { readerLoop(); });
    return true;
}

InotifyQueue* Watcher::queueFor(uint32_t owner) {
    size_t ownerQueues = 0;
    InotifyQueue* shared = nullptr;
    for (const auto& q : queues) {
        if (q->shared) {
            shared = q.get();
        } else {
            if (q->owner == owner) return q.get();
            ++ownerQueues;
        }
    }
    const bool ownQueue = ownerQueues < ownerQueueLimit;
    if (!ownQueue && shared) return shared;
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        // The kernel's instance limit reached (by other programs of the service's user, say):
        // the owner shares a queue rather than going unwatched.
        const int error = errno;
        if (shared) return shared;
        if (!queues.empty()) return queues.front().get();
        SetLastErrorFromErrno(error);
        return nullptr;
    }
    auto q = std::make_unique<InotifyQueue>();
    q->fd = fd;
    q->tag = nextTag++;
    q->shared = !ownQueue;
    q->owner = owner;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = q->tag;
    if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        SetLastErrorFromErrno(errno);
        ::close(fd);
        return nullptr;
    }
    queues.push_back(std::move(q));
    return queues.back().get();
}

void Watcher::dropQueue(InotifyQueue* q) {
    std::erase_if(rescans, [q](HDirectory h) { return h->queue == q; });
    ::epoll_ctl(epollFd, EPOLL_CTL_DEL, q->fd, nullptr);
    ::close(q->fd);  // takes its kernel watches with it
    std::erase_if(queues,
                  [q](const std::unique_ptr<InotifyQueue>& have) { return have.get() == q; });
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
    MutexLock starting(lifecycle);
    CallerLock lock(mutex, contenders);
    if (!ensureStarted()) return nullptr;
    InotifyQueue* q = queueFor(static_cast<uint32_t>(st.st_uid));
    if (q == nullptr) return nullptr;
    ++openHandles;
    auto* h = new DirectoryHandleState;
    h->root = root;
    while (h->root.size() > 1 && h->root.back() == '/') h->root.pop_back();
    h->owner = static_cast<uint32_t>(st.st_uid);
    h->queue = q;
    q->handles.push_back(h);
    return h;
}

size_t Watcher::watchedDirectories() {
    MutexLock lock(mutex);
    size_t count = 0;
    for (const auto& q : queues) count += q->subscribers.size();
    return count;
}

bool Watcher::walksDone() {
    MutexLock lock(mutex);
    return walks.empty();
}

size_t Watcher::queueCount() {
    MutexLock lock(mutex);
    return queues.size();
}

void Watcher::hold(bool hold) {
    MutexLock lock(mutex);
    held = hold;
    if (!hold && wakeFd >= 0) wake();
}

void Watcher::setOwnerQueueLimit(size_t limit) {
    MutexLock lock(mutex);
    ownerQueueLimit = limit;
}

void Watcher::wake() {
    uint64_t one = 1;
    ssize_t ignored = ::write(wakeFd, &one, sizeof(one));
    (void)ignored;
}

void Watcher::stepAside() {
    // Bounded: a caller that is slow to be scheduled costs the walk 2 ms at most.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
    while (contenders.load() > 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::yield();
    }
}

bool Watcher::read(HDirectory h, void* buffer, uint32_t length, bool subtree,
                   DirectoryOverlapped* o, DirectoryCompletion routine) {
    std::vector<Completion> out;
    uint32_t failure = 0;
    {
        CallerLock lock(mutex, contenders);
        if (h->reading) {
            SetLastError(Err::kInvalidParameter);
            return false;
        }
        if (!h->watching && h->end == 0) {
            // Events already in the kernel queue happened before this handle watched anything.
            // Filed now, they reach only the handles that were watching then: this one may share
            // their kernel watch, and would otherwise be handed changes older than itself.
            DrainResult ignored;
            drainQueue(*h->queue, ignored, out);
            settle(ignored, out);
            h->subtree = subtree;
            refreshWatchShare();
            // Only the folder itself refused fails the read; a directory below it that cannot
            // be watched is reported by the read, and the rest of the tree is watched.
            h->walkStack.clear();
            uint32_t error = watchTree(h, "", false, &h->walkStack);
            if (h->rootWd < 0) {
                unwatchBelow(h, "");
                h->walkStack.clear();
                failure = error;
            } else {
                h->watching = true;
                const uint32_t below = walkSome(h, kFirstWalkDirectories);
                h->failure = error != 0 ? error : below;
                if (!h->walkStack.empty()) startWalk(h);
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

// Completes h's outstanding read when there is something to say: changes, a failure, or an end.
// Changes held when the folder went, or when a failure came, go first: the error follows them.
// (A close drops what was held.)
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
        if (h->failure != 0) {
            error = h->failure;
            h->failure = 0;
        } else if (h->end == 0) {
            return;
        } else {
            error = h->end == kClosed ? 0 : h->end;
        }
    }
    h->reading = false;
    out.push_back({h->target, h->routine, error, bytes, h->overlapped});
}

void Watcher::drainQueue(InotifyQueue& q, DrainResult& result, std::vector<Completion>& out) {
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        ssize_t got = ::read(q.fd, buffer, sizeof(buffer));
        if (got <= 0) break;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            onEvent(q, *event, out);
            ++result.events;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

void Watcher::settle(DrainResult& result, std::vector<Completion>& out) {
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
}

void Watcher::readerLoop() {
    int64_t pause = 0;        // microseconds
    bool rescanning = false;  // rescans or first walks have directories left to walk
    std::vector<uint64_t> ready;
    epoll_event events[64];
    for (;;) {
        if (pause > 0 && !rescanning) {
            // Only a stop (or another wake-up) ends the pause early.
            const timespec timeout = {0, static_cast<long>(pause * 1000)};
            pollfd wakeUp = {wakeFd, POLLIN, 0};
            ::ppoll(&wakeUp, 1, &timeout, nullptr);
        }
        const int n = ::epoll_wait(epollFd, events, 64, rescanning ? 0 : -1);
        if (n < 0 && errno != EINTR) return;
        ready.clear();
        for (int i = 0; i < n; ++i) {
            // epoll_event is packed: its 64-bit field may be misaligned, so it is read by value,
            // never bound to a reference (push_back takes one).
            const uint64_t tag = events[i].data.u64;
            if (tag != 0) {
                ready.push_back(tag);
            } else {
                uint64_t count;
                ssize_t ignored = ::read(wakeFd, &count, sizeof(count));
                (void)ignored;
            }
        }
        std::vector<Completion> out;
        {
            UniqueMutexLock lock(mutex);
            if (stopRequested) return;
            if (held) {
                // Left alone, the kernel queues fill as they would behind a stopped process.
                lock.unlock();
                pollfd wakeUp = {wakeFd, POLLIN, 0};
                ::poll(&wakeUp, 1, -1);
                continue;
            }
            DrainResult result;
            for (const auto& q : queues) {
                if (std::find(ready.begin(), ready.end(), q->tag) != ready.end())
                    drainQueue(*q, result, out);
            }
            rescanning = rescanSlice();
            rescanning = walkSlice() || rescanning;
            settle(result, out);
            pause = NextPause(pause, result);
        }
        QueueAll(out);
        if (rescanning) stepAside();
    }
}

void Watcher::close(HDirectory h) {
    MutexLock stopping(lifecycle);
    std::vector<Completion> out;
    bool last;
    {
        CallerLock lock(mutex, contenders);
        stopRescan(h);
        stopWalk(h);
        unwatchBelow(h, "");
        h->pending.clear();
        h->failure = 0;
        h->end = kClosed;  // a zero-byte end
        finish(h, out);
        InotifyQueue* q = h->queue;
        std::erase(q->handles, h);
        if (q->handles.empty()) dropQueue(q);
        delete h;
        last = --openHandles == 0;
        if (last) {
            stopRequested = true;
            wake();
        }
    }
    QueueAll(out);
    if (!last) return;
    reader.join();
    MutexLock lock(mutex);
    ::close(epollFd);
    ::close(wakeFd);
    epollFd = wakeFd = -1;
}

}  // namespace detail

using detail::Watcher;

HDirectory OpenDirectoryForWatch(const std::u16string& path) {
    return Watcher::instance().open(Utf16ToUtf8(path));
}

bool ReadDirectoryChanges(HDirectory handle, void* buffer, uint32_t length, bool watchSubtree,
                          DirectoryOverlapped* overlapped, DirectoryCompletion completion) {
    return Watcher::instance().read(handle, buffer, length, watchSubtree, overlapped, completion);
}

void CloseDirectory(HDirectory handle) { Watcher::instance().close(handle); }

size_t WatchedDirectoriesForTesting() { return Watcher::instance().watchedDirectories(); }

bool DirectoryWalksDoneForTesting() { return Watcher::instance().walksDone(); }

void HoldDirectoryWalksForTesting(bool hold) { Watcher::instance().holdWalks(hold); }

size_t ChangeQueuesForTesting() { return Watcher::instance().queueCount(); }

void HoldChangeQueuesForTesting(bool hold) { Watcher::instance().hold(hold); }

void SetOwnerQueueLimitForTesting(size_t limit) { Watcher::instance().setOwnerQueueLimit(limit); }

}  // namespace Osb
