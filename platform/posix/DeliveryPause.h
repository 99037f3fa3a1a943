// How long the inotify reader leaves the kernel queue alone after a drain, so that the events of
// a burst gather into few deliveries. Every wake-up costs the writer, the reader and the client a
// switch each, while one more event in a batch costs little; but a client waiting on each name in
// turn must not be held. So an event that comes alone is delivered at once, the pause grows while
// drains keep finding several events, and it shrinks again as they come one by one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Osb::detail {

// The longest pause is short against the time a client may wait for a name and long against one
// event; the kernel queue holds 16,384 events by default, far more than a writer makes in this
// time. The shortest is the step by which a pause starts and ends.
constexpr int64_t kLongestPauseMicroseconds = 1000;
constexpr int64_t kShortestPauseMicroseconds = 100;

// What one drain of the kernel queue found.
struct DrainResult {
    size_t events = 0;
    bool undelivered = false;  // events were filed that no outstanding read could take
};

// The pause after a drain, given the one before it. Events no outstanding read could take mean
// the clients are still busy with the previous batch: the longest pause is taken at once.
inline int64_t NextPause(int64_t pause, const DrainResult& drained) {
    if (drained.undelivered) return kLongestPauseMicroseconds;
    if (drained.events >= 2) {
        return std::clamp<int64_t>(pause * 2, kShortestPauseMicroseconds,
                                   kLongestPauseMicroseconds);
    }
    pause /= 2;
    return pause < kShortestPauseMicroseconds ? 0 : pause;
}

}  // namespace Osb::detail
