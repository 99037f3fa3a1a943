#include "platform/posix/InotifyWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {
namespace detail {

namespace {

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

}  // namespace Osb
