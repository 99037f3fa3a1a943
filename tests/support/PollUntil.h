#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace vigil_test {

// Polls `done` until it holds or `limit` has passed, and returns its last result. The condition
// decides; the short pause between polls only keeps a poll that talks to another process or
// thread from starving it.
inline bool PollUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return done();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

}  // namespace vigil_test
