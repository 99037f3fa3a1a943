// Services that run: the test helper FakeService started detached by the manager, controlled and
// queried through its endpoint. Every wait polls with a deadline.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/ServiceControl.h"
#include "platform/Utf.h"
#include "platform/posix/ServiceFiles.h"
#include "tests/platform/FakeServiceFixture.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/PollUntil.h"

namespace {

using namespace Osb;

using vigil_test::PollUntil;

class ServiceProcessTest : public vigil_test::FakeServiceTest {};

TEST_F(ServiceProcessTest, StartedServiceAnswersControlsWithItsReportedStatus) {
    ASSERT_TRUE(start()) << ErrorCode();
    // The start returned once the endpoint answers, so the very first query reaches the process.
    EXPECT_NE(state(), SERVICE_STOPPED) << "start returned before registration";
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));

    struct Row {
        uint32_t control;
        bool succeeds;
        uint32_t code;   // ErrorCode() on failure
        uint32_t state;  // reported afterwards
    };
    const Row rows[] = {
        {SERVICE_CONTROL_PAUSE, true, 0, SERVICE_PAUSED},
        {SERVICE_CONTROL_INTERROGATE, true, 0, SERVICE_PAUSED},
        {SERVICE_CONTROL_CONTINUE, true, 0, SERVICE_RUNNING},
        {SERVICE_CONTROL_PARAMCHANGE, false, Err::kInvalidServiceControl, SERVICE_RUNNING},
        {200, false, 1234, SERVICE_RUNNING},
        {7, false, Err::kCallNotImplemented, SERVICE_RUNNING},
    };
    for (const Row& row : rows) {
        SERVICE_STATUS status = {};
        EXPECT_EQ(ControlService(service_, row.control, &status), row.succeeds) << row.control;
        if (!row.succeeds) {
            EXPECT_EQ(ErrorCode(), row.code) << row.control;
        }
        EXPECT_EQ(status.dwCurrentState, row.state) << row.control;
        EXPECT_EQ(status.dwControlsAccepted, SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE);
    }
    // The interrogate went through the handler, which counts it in the checkpoint.
    SERVICE_STATUS status = {};
    ASSERT_TRUE(QueryServiceStatus(service_, &status));
    EXPECT_EQ(status.dwCheckPoint, 1u);

    EXPECT_FALSE(StartServiceW(service_, 0, nullptr));
    EXPECT_EQ(ErrorCode(), Err::kServiceAlreadyRunning);

    ASSERT_TRUE(ControlService(service_, SERVICE_CONTROL_STOP, &status));
    // The handler reports stop-pending and wakes the service, which may report stopped before the
    // answer takes the status: either is what the service last reported.
    EXPECT_TRUE(status.dwCurrentState == SERVICE_STOP_PENDING ||
                status.dwCurrentState == SERVICE_STOPPED)
        << status.dwCurrentState;
    ASSERT_TRUE(PollUntil([&] { return log().find("exit ") != std::string::npos; }));
    EXPECT_EQ(state(), SERVICE_STOPPED);
    EXPECT_FALSE(ControlService(service_, SERVICE_CONTROL_STOP, &status));
    EXPECT_EQ(ErrorCode(), Err::kServiceNotActive);
    EXPECT_EQ(log().find("overlap"), std::string::npos);
    EXPECT_EQ(log().find("console"), std::string::npos);
}

TEST_F(ServiceProcessTest, ServiceRunsWithTheStartersEnvironmentAndItsOwnName) {
    setenv("FAKE_SERVICE_MODE", "stop-only", 1);
    ASSERT_TRUE(start()) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    SERVICE_STATUS status = {};
    // Only stop is accepted, which proves the inherited mode reached the process.
    EXPECT_FALSE(ControlService(service_, SERVICE_CONTROL_PAUSE, &status));
    EXPECT_EQ(ErrorCode(), Err::kInvalidServiceControl);
    EXPECT_EQ(status.dwCurrentState, SERVICE_RUNNING);
    ASSERT_TRUE(syncLog());
    EXPECT_EQ(log().find("control 2"), std::string::npos) << "a refused control reached the handler";
}

TEST_F(ServiceProcessTest, PendingStartRefusesControlsButAnswersQueries) {
    setenv("FAKE_SERVICE_MODE", "hold-start", 1);
    ASSERT_TRUE(start()) << ErrorCode();
    EXPECT_EQ(state(), SERVICE_START_PENDING);
    SERVICE_STATUS status = {};
    EXPECT_FALSE(ControlService(service_, SERVICE_CONTROL_STOP, &status));
    EXPECT_EQ(ErrorCode(), Err::kServiceCannotAcceptCtrl);
    release();
    EXPECT_TRUE(awaitState(SERVICE_RUNNING));
}

TEST_F(ServiceProcessTest, ProcessThatEndsBeforeRegisteringFailsTheStart) {
    setenv("FAKE_SERVICE_MODE", "early-exit", 1);
    EXPECT_FALSE(start());
    EXPECT_EQ(ErrorCode(), Err::kProcessAborted);
    EXPECT_EQ(state(), SERVICE_STOPPED);
}

TEST_F(ServiceProcessTest, SilentServiceTimesOutStartsAndControlsWith1053) {
    Scm::SetAnswerTimeoutForTesting(300);
    setenv("FAKE_SERVICE_MODE", "hold-register", 1);
    EXPECT_FALSE(start());
    EXPECT_EQ(ErrorCode(), Err::kServiceRequestTimeout);
    release();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING)) << "the late service still registers";
    std::remove((root_ / "release").c_str());

    SERVICE_STATUS status = {};
    EXPECT_FALSE(ControlService(service_, 201, &status));
    EXPECT_EQ(ErrorCode(), Err::kServiceRequestTimeout);
    Scm::SetAnswerTimeoutForTesting(30000);
    release();
    // The held handler ends and the service answers again.
    EXPECT_TRUE(ControlService(service_, SERVICE_CONTROL_INTERROGATE, &status)) << ErrorCode();
}

TEST_F(ServiceProcessTest, StartWaitsForThePreviousProcessToEnd) {
    setenv("FAKE_SERVICE_MODE", "hold-exit", 1);
    ASSERT_TRUE(start()) << ErrorCode();
    SERVICE_STATUS status = {};
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    ASSERT_TRUE(ControlService(service_, SERVICE_CONTROL_STOP, &status));
    // Stopped as far as the manager knows, but the process still holds on.
    ASSERT_TRUE(awaitState(SERVICE_STOPPED));
    ASSERT_TRUE(Scm::InstanceAlive("Fake"));
    std::atomic<bool> restarted{false};
    std::atomic<uint32_t> code{0};
    std::thread starter([&] {
        restarted = StartServiceW(service_, 0, nullptr);
        code = ErrorCode();
    });
    // The new process cannot appear while the old one lives: its registration comes after the
    // old one's exit line in the shared log.
    release();
    starter.join();
    EXPECT_TRUE(restarted) << code;
    // The new process logs its registration just after the start has seen it.
    ASSERT_TRUE(PollUntil([&] { return registeredPid(1) != 0; })) << log();
    const std::string text = log();
    const size_t exit = text.find("exit ");
    const size_t second = text.find("register ", text.find("register ") + 1);
    ASSERT_NE(exit, std::string::npos) << text;
    ASSERT_NE(second, std::string::npos) << text;
    EXPECT_LT(exit, second) << text;
    EXPECT_NE(registeredPid(0), registeredPid(1));
}

TEST_F(ServiceProcessTest, StaleEndpointOfADeadProcessCountsAsStoppedAndIsReplaced) {
    ASSERT_TRUE(start()) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    ASSERT_TRUE(PollUntil([&] { return registeredPid() != 0; })) << log();
    const pid_t pid = registeredPid();
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(PollUntil([] { return !Scm::InstanceAlive("Fake"); }));
    EXPECT_EQ(access(Scm::EndpointPath("Fake").c_str(), F_OK), 0) << "the socket should be left";
    EXPECT_EQ(state(), SERVICE_STOPPED);
    SERVICE_STATUS status = {};
    EXPECT_FALSE(ControlService(service_, SERVICE_CONTROL_INTERROGATE, &status));
    EXPECT_EQ(ErrorCode(), Err::kServiceNotActive);

    ASSERT_TRUE(start()) << ErrorCode();
    EXPECT_TRUE(awaitState(SERVICE_RUNNING));
    ASSERT_TRUE(PollUntil([&] { return registeredPid(1) != 0; })) << log();
    EXPECT_NE(registeredPid(1), pid);
}

TEST_F(ServiceProcessTest, DeletingARunningServiceMarksItUntilItsProcessEnds) {
    ASSERT_TRUE(start()) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    ASSERT_TRUE(DeleteService(service_));
    EXPECT_FALSE(DeleteService(service_));
    EXPECT_EQ(ErrorCode(), Err::kServiceMarkedForDelete);
    EXPECT_EQ(install(u"Fake"), nullptr);
    EXPECT_EQ(ErrorCode(), Err::kServiceMarkedForDelete);
    EXPECT_EQ(state(), SERVICE_RUNNING) << "a marked service goes on running";

    SERVICE_STATUS status = {};
    ASSERT_TRUE(ControlService(service_, SERVICE_CONTROL_STOP, &status));
    ASSERT_TRUE(PollUntil([] { return !Scm::InstanceAlive("Fake"); }));
    EXPECT_EQ(OpenServiceW(manager_, u"Fake", 0), nullptr);
    EXPECT_EQ(ErrorCode(), Err::kServiceDoesNotExist);
    EXPECT_NE(access(Scm::RecordPath("Fake").c_str(), F_OK), 0);
}

TEST_F(ServiceProcessTest, ConcurrentControlsEachGetOneAnswerAndNeverOverlap) {
    ASSERT_TRUE(start()) << ErrorCode();
    ASSERT_TRUE(awaitState(SERVICE_RUNNING));
    constexpr int kThreads = 8;
    constexpr int kEach = 25;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread has its handle, as separate processes would.
            SC_HANDLE own = OpenServiceW(manager_, u"Fake", SERVICE_ALL_ACCESS);
            for (int i = 0; i < kEach; ++i) {
                SERVICE_STATUS status = {};
                const uint32_t control = (i + t) % 2 == 0 ? SERVICE_CONTROL_INTERROGATE : 200u;
                const bool ok = ControlService(own, control, &status);
                const bool expected = control == SERVICE_CONTROL_INTERROGATE
                                          ? ok
                                          : !ok && ErrorCode() == 1234;
                if (!expected) ++failures;
            }
            CloseServiceHandle(own);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    SERVICE_STATUS status = {};
    ASSERT_TRUE(QueryServiceStatus(service_, &status));
    EXPECT_EQ(status.dwCheckPoint, static_cast<uint32_t>(kThreads * kEach / 2));
    ASSERT_TRUE(syncLog());
    EXPECT_EQ(log().find("overlap"), std::string::npos);
}

TEST_F(ServiceProcessTest, ConcurrentStartsLaunchOneProcess) {
    constexpr int kThreads = 4;
    std::atomic<int> succeeded{0};
    std::atomic<int> alreadyRunning{0};
    started_.push_back("Fake");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            SC_HANDLE own = OpenServiceW(manager_, u"Fake", SERVICE_ALL_ACCESS);
            if (StartServiceW(own, 0, nullptr)) {
                ++succeeded;
            } else if (ErrorCode() == Err::kServiceAlreadyRunning) {
                ++alreadyRunning;
            }
            CloseServiceHandle(own);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(succeeded.load(), 1);
    EXPECT_EQ(alreadyRunning.load(), kThreads - 1);
    EXPECT_EQ(registeredPid(1), 0) << log();
    EXPECT_EQ(log().find("console"), std::string::npos) << "a second process was launched";
}

TEST(ConsoleStopHandlerTest, StopSignalsReachTheHandlerOffTheSignalContext) {
    static std::mutex mutex;
    static std::condition_variable arrived;
    static std::vector<uint32_t> types;
    static std::thread::id handlerThread;
    {
        ConsoleStopHandler stop([](uint32_t type) {
            std::lock_guard<std::mutex> lock(mutex);
            types.push_back(type);
            handlerThread = std::this_thread::get_id();
            arrived.notify_all();
            return true;
        });
        ASSERT_EQ(raise(SIGINT), 0);
        {
            std::unique_lock<std::mutex> lock(mutex);
            ASSERT_TRUE(arrived.wait_for(lock, std::chrono::seconds(20), [] { return types.size() == 1; }));
        }
        ASSERT_EQ(raise(SIGTERM), 0);
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(arrived.wait_for(lock, std::chrono::seconds(20), [] { return types.size() == 2; }));
    }
    EXPECT_EQ(types, (std::vector<uint32_t>{CTRL_C_EVENT, CTRL_CLOSE_EVENT}));
    EXPECT_NE(handlerThread, std::this_thread::get_id());
}

}  // namespace
