#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/SmartPointer.h"

namespace {

struct Probe {
    int destroyed = 0;
    int strongReleased = 0;
};

class Counted : public Osb::SmartPointerBase {
  public:
    explicit Counted(Probe& probe) : probe_(probe) {}
    ~Counted() override { ++probe_.destroyed; }

  private:
    Probe& probe_;
};

class TwoCounted : public Osb::SmartPointerBaseTwo {
  public:
    explicit TwoCounted(Probe& probe) : probe_(probe) {}
    ~TwoCounted() override { ++probe_.destroyed; }
    void strongReleased() override { ++probe_.strongReleased; }

  private:
    Probe& probe_;
};

TEST(SmartPointerTest, LastStrongReferenceDeletes) {
    Probe probe;
    {
        Osb::SmartPointer<Counted> a(new Counted(probe));
        Osb::SmartPointer<Counted> b = a;
        a.reset();
        EXPECT_EQ(probe.destroyed, 0);
        Osb::SmartPointer<Counted> c = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(probe.destroyed, 0);
    }
    EXPECT_EQ(probe.destroyed, 1);
}

TEST(SmartPointerTest, SoftReferenceKeepsObjectAfterLastStrongOne) {
    Probe probe;
    TwoCounted* raw = new TwoCounted(probe);
    Osb::SmartPointer<TwoCounted> strong(raw);
    raw->incSoftRef();
    strong.reset();
    EXPECT_EQ(probe.strongReleased, 1);
    EXPECT_EQ(probe.destroyed, 0);
    raw->decSoftRef();
    EXPECT_EQ(probe.destroyed, 1);
}

TEST(SmartPointerTest, SoftReleaseBeforeStrongReleaseLeavesDeletionToStrong) {
    Probe probe;
    TwoCounted* raw = new TwoCounted(probe);
    Osb::SmartPointer<TwoCounted> strong(raw);
    raw->incSoftRef();
    raw->decSoftRef();
    EXPECT_EQ(probe.destroyed, 0);
    strong.reset();
    EXPECT_EQ(probe.strongReleased, 1);
    EXPECT_EQ(probe.destroyed, 1);
}

// Strong and soft references dropped at the same moment on different threads: the object must be
// deleted exactly once, whichever goes last.
TEST(SmartPointerTest, ConcurrentStrongAndSoftReleaseDeleteExactlyOnce) {
    for (int round = 0; round < 2000; ++round) {
        Probe probe;
        TwoCounted* raw = new TwoCounted(probe);
        raw->incRefCount();
        raw->incSoftRef();
        std::atomic<int> go{0};
        std::thread a([&] {
            ++go;
            while (go.load() < 2) {
            }
            raw->decRefCount();
        });
        std::thread b([&] {
            ++go;
            while (go.load() < 2) {
            }
            raw->decSoftRef();
        });
        a.join();
        b.join();
        ASSERT_EQ(probe.destroyed, 1) << "round " << round;
    }
}

}  // namespace
