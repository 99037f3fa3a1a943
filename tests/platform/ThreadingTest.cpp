#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "platform/Apc.h"
#include "platform/CondVar.h"
#include "platform/Exception.h"
#include "platform/Mutex.h"
#include "platform/Sleep.h"
#include "platform/Thread.h"

namespace {

using Osb::CondVar;
using Osb::Mutex;
using Osb::MutexLock;
using Osb::WaitResult;

class LambdaThread : public Osb::Thread {
  public:
    explicit LambdaThread(std::function<void()> body) : body_(std::move(body)) {}
    ~LambdaThread() override { join(); }

  protected:
    void run() override { body_(); }

  private:
    std::function<void()> body_;
};

// A waiter that counts how often its condition held when it woke.
struct Gate {
    Mutex mutex;
    CondVar condition;
    int tickets = 0;  // guarded by mutex
};

TEST(CondVarTest, SignalWakesOneWaiterAndBroadcastWakesTheRest) {
    Gate gate;
    std::atomic<int> passed{0};
    std::atomic<int> waiting{0};
    std::vector<std::unique_ptr<LambdaThread>> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(std::make_unique<LambdaThread>([&] {
            MutexLock lock(gate.mutex);
            ++waiting;
            while (gate.tickets == 0) gate.condition.wait_(gate.mutex, -1);
            --gate.tickets;
            ++passed;
        }));
        threads.back()->begin();
    }
    while (waiting.load() < 3) std::this_thread::yield();
    {
        MutexLock lock(gate.mutex);
        gate.tickets = 1;
    }
    gate.condition.signal();
    // Exactly one ticket: whoever wakes first passes, the rest wait again.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (passed.load() < 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(passed.load(), 1);
    {
        MutexLock lock(gate.mutex);
        gate.tickets = 2;
    }
    gate.condition.broadcast();
    for (auto& t : threads) t->join();
    EXPECT_EQ(passed.load(), 3);
}

TEST(CondVarTest, WaitWithLimitTimesOut) {
    Gate gate;
    MutexLock lock(gate.mutex);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(gate.condition.wait_(gate.mutex, 20), WaitResult::kTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(CondVarTest, QueuedApcRunsInsideTheWaitOnTheWaitingThreadWithTheMutexFree) {
    Gate gate;
    std::atomic<bool> ready{false};
    std::thread::id ranOn;
    bool mutexWasFree = false;
    WaitResult result = WaitResult::kSignalled;
    LambdaThread waiter([&] {
        MutexLock lock(gate.mutex);
        ready = true;
        result = gate.condition.wait_(gate.mutex, -1);
    });
    waiter.begin();
    while (!ready.load()) std::this_thread::yield();
    ASSERT_TRUE(Osb::QueueApc(waiter.apcTarget(), [&] {
        ranOn = std::this_thread::get_id();
        // The waiter released the mutex before running us; taking it here must not deadlock.
        gate.mutex.lock();
        mutexWasFree = true;
        gate.mutex.unlock();
    }));
    waiter.join();
    EXPECT_EQ(result, WaitResult::kIoCompletion);
    EXPECT_TRUE(mutexWasFree);
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(CondVarTest, ApcQueuedBeforeTheWaitRunsAtItsStart) {
    Gate gate;
    int runs = 0;
    ASSERT_TRUE(Osb::QueueApc(Osb::CurrentApcTarget(), [&] { ++runs; }));
    EXPECT_EQ(runs, 0);  // not before an alertable wait
    MutexLock lock(gate.mutex);
    EXPECT_EQ(gate.condition.wait_(gate.mutex, -1), WaitResult::kIoCompletion);
    EXPECT_EQ(runs, 1);
}

TEST(ApcTest, QueueToAnEndedThreadIsRefused) {
    LambdaThread quick([] {});
    quick.begin();
    Osb::ApcTarget target = quick.apcTarget();
    quick.join();
    EXPECT_FALSE(Osb::QueueApc(target, [] {}));
    EXPECT_FALSE(Osb::QueueApc(Osb::ApcTarget(), [] {}));
}

TEST(ApcTest, ApcsRunInQueueOrderAndAThrowingOneDoesNotStopTheOthers) {
    std::vector<int> order;
    auto self = Osb::CurrentApcTarget();
    Osb::QueueApc(self, [&] { order.push_back(1); });
    Osb::QueueApc(self, [&] { throw Osb::ExLookupTableFull(OSB_HERE); });
    Osb::QueueApc(self, [&] { order.push_back(3); });
    EXPECT_EQ(Osb::SleepEx(10000, true), Osb::kWaitIoCompletion);
    EXPECT_EQ(order, (std::vector<int>{1, 3}));
}

TEST(SleepTest, AlertableSleepWithoutApcsReturnsZeroAfterItsTime) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Osb::SleepEx(15, true), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    EXPECT_EQ(Osb::SleepEx(1, false), 0u);
}

TEST(ThreadTest, ExceptionLeavingTheBodyEndsOnlyThatThread) {
    LambdaThread thrower([] { throw Osb::ExSystem(5, OSB_HERE); });
    thrower.begin();
    thrower.join();
    std::atomic<bool> ran{false};
    LambdaThread after([&] { ran = true; });
    after.begin();
    after.join();
    EXPECT_TRUE(ran.load());
}

TEST(ThreadTest, JoinWithoutBeginAndSecondJoinAreHarmless) {
    int runs = 0;
    LambdaThread once([&] { ++runs; });
    once.join();
    EXPECT_EQ(runs, 0);
    once.begin();
    once.join();
    once.join();
    EXPECT_EQ(runs, 1);
}

}  // namespace
