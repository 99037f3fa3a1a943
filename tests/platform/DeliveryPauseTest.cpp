#include "platform/posix/DeliveryPause.h"

#include <gtest/gtest.h>

namespace {

using Osb::detail::DrainResult;
using Osb::detail::kLongestPauseMicroseconds;
using Osb::detail::kShortestPauseMicroseconds;
using Osb::detail::NextPause;

constexpr DrainResult kAlone{1, false};
constexpr DrainResult kSeveral{5, false};
constexpr DrainResult kUntaken{1, true};

TEST(DeliveryPauseTest, EventsThatComeAloneAreNeverHeld) {
    int64_t pause = 0;
    for (int i = 0; i < 1000; ++i) {
        pause = NextPause(pause, kAlone);
        ASSERT_EQ(pause, 0) << "after drain " << i;
    }
}

TEST(DeliveryPauseTest, ABurstReachesTheLongestPauseAndStaysThere) {
    int64_t pause = 0;
    int drains = 0;
    while (pause < kLongestPauseMicroseconds) {
        const int64_t next = NextPause(pause, kSeveral);
        ASSERT_GT(next, pause) << "the pause must grow while a burst lasts";
        pause = next;
        ASSERT_LE(++drains, 8);
    }
    EXPECT_EQ(NextPause(pause, kSeveral), kLongestPauseMicroseconds);
}

TEST(DeliveryPauseTest, AfterABurstOnlyAFewLoneEventsWaitAndNoneLongerThanTheLongestPause) {
    int64_t pause = kLongestPauseMicroseconds;
    int held = 0;
    while (pause > 0) {
        pause = NextPause(pause, kAlone);
        ASSERT_LE(pause, kLongestPauseMicroseconds);
        ASSERT_LE(++held, 4) << "a client waiting on each name in turn is held too long";
    }
}

TEST(DeliveryPauseTest, EventsNoReadCouldTakeMeanTheLongestPauseAtOnce) {
    for (int64_t before : {int64_t{0}, kShortestPauseMicroseconds, kLongestPauseMicroseconds}) {
        EXPECT_EQ(NextPause(before, kUntaken), kLongestPauseMicroseconds) << before;
    }
}

TEST(DeliveryPauseTest, ADrainThatFoundNothingShortensThePause) {
    // A wake-up with nothing to read (a stop, say) is no sign of a burst.
    EXPECT_EQ(NextPause(0, DrainResult{0, false}), 0);
    EXPECT_LT(NextPause(kLongestPauseMicroseconds, DrainResult{0, false}),
              kLongestPauseMicroseconds);
}

}  // namespace
