// The pause gate of the receive path: while the service is paused, client data waits before it is
// taken in, new clients can still connect, and on continue the waiting request is answered first.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "service/VigilClientTable.h"
#include "service/VigilService.h"
#include "tests/e2e/ServerFixture.h"

namespace {

using namespace vigil_test;
using namespace Vigil::Protocol;

const Vigil::Watch::Guid kGuid{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};

int ClientsInTable() {
    Osb::MutexLock lock(Vigil::clientTableMutex);
    int n = 0;
    for (uint32_t slot = 0; slot < Vigil::kMaxClients; ++slot) n += Vigil::clientTable.at(slot) ? 1 : 0;
    return n;
}

bool WaitForClients(int count) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (ClientsInTable() == count) return true;
        std::this_thread::yield();
    }
    return false;
}

using PauseE2eTest = ServerFixture;

TEST_F(PauseE2eTest, PausedServiceHoldsRequestsAcceptsClientsAndAnswersOnContinue) {
    Vigil::Service service(u"unused");
    {
        Osb::MutexLock lock(service.mutex);
        service.setState(Vigil::ServiceState::kRunning, 0);
    }
    Connection waiting(pipeName_);
    uint32_t id = waiting.hello(kGuid);

    service.pause();
    EXPECT_EQ(service.stateWord(), Vigil::StateBit(Vigil::ServiceState::kPaused));
    waiting.send(Request(kConnectionNoop, id, 41, Le32({0})));
    waiting.send(Request(kConnectionCheck, id, 42, Bytes(28, 0)));
    EXPECT_TRUE(waiting.silentFor(300));

    // A new client still gets in, although nothing it sends is answered yet.
    Connection newcomer(pipeName_);
    EXPECT_TRUE(WaitForClients(2));
    newcomer.send(Request(kHello, 0, 1, HelloBody(1, 0, kGuid)));
    EXPECT_TRUE(newcomer.silentFor(100));

    service.resume();
    EXPECT_EQ(service.stateWord(), Vigil::StateBit(Vigil::ServiceState::kRunning));
    EXPECT_EQ(waiting.receive().header.requestId, 41u);
    EXPECT_EQ(waiting.receive().header.requestId, 42u);
    EXPECT_EQ(newcomer.receive().header.code, kHelloReply);
}

TEST_F(PauseE2eTest, NoServiceObjectMeansNoGate) {
    ASSERT_EQ(Vigil::Service::instance(), nullptr);
    Connection c(pipeName_);
    uint32_t id = c.hello(kGuid);
    c.send(Request(kConnectionNoop, id, 5, Le32({0})));
    EXPECT_EQ(c.receive().header.requestId, 5u);
}

}  // namespace
