// The service's state machine against a stand-in service manager: the control handler's table,
// the status report's checkpoint and exit code rules, the console lines, and a whole run.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Platform.h"
#include "platform/ServiceControl.h"
#include "service/VigilService.h"
#include "tests/support/ScratchRoot.h"

namespace Vigil {
namespace {

using std::chrono::steady_clock;

constexpr uint32_t kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4, kPaused = 7;
const char* const kPausedEvent = "0x20000A0B Orvanta Vigil Watch Service has Paused.";
const char* const kResumedEvent = "0x20000A0C Orvanta Vigil Watch Service has Resumed.";
const char* const kStartedEvent = "0x20000A0A Orvanta Vigil Watch Service has Started.";
const char* const kStoppedEvent = "0x20000A0D Orvanta Vigil Watch Service has Stopped.";

// The stand-in manager: records every report; a console or not; a report may be made to fail.
struct FakeManager {
    static inline std::mutex lock;
    static inline std::vector<Osb::SERVICE_STATUS> reports;
    static inline bool console = false;
    static inline uint32_t failReportsWith = 0;

    static ServiceHostCalls calls() {
        return {
            [] { return console ? 0 : 1; },
            [] { return 1; },
            [](Osb::SERVICE_STATUS_HANDLE, const Osb::SERVICE_STATUS& status) {
                std::lock_guard<std::mutex> hold(lock);
                if (failReportsWith != 0) {
                    Osb::SetLastError(failReportsWith);
                    return false;
                }
                reports.push_back(status);
                return true;
            },
        };
    }
    static std::vector<Osb::SERVICE_STATUS> taken() {
        std::lock_guard<std::mutex> hold(lock);
        return reports;
    }
};

class ServiceStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FakeManager::reports.clear();
        FakeManager::console = false;
        FakeManager::failReportsWith = 0;
        previousCalls_ = Service::setHostCallsForTesting(FakeManager::calls());
        logFile_ = root_ / "events.log";
        setenv("VIGIL_EVENT_LOG", logFile_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("VIGIL_EVENT_LOG");
        Service::setHostCallsForTesting(previousCalls_);
    }

    std::vector<std::string> events() const {
        std::ifstream in(logFile_);
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

    static void enter(Service& service, uint32_t state) {
        Osb::MutexLock lock(service.mutex);
        service.setState(static_cast<ServiceState>(state), 0);
    }

    vigil_test::ScratchRoot root_;
    std::string logFile_;
    ServiceHostCalls previousCalls_{};
};

struct ControlCase {
    uint32_t from;
    uint32_t control;
    uint32_t result;
    uint32_t to;
    std::vector<const char*> events;
    bool reported;
    uint32_t checkPoint = 0;
};

TEST_F(ServiceStateTest, ControlHandlerFollowsItsTable) {
    const ControlCase cases[] = {
        {kRunning, 1, 0, kStopPending, {}, false},
        {kRunning, 5, 0, kStopPending, {}, false},
        {kPaused, 1, 0, kStopPending, {kResumedEvent}, false},
        {kPaused, 5, 0, kStopPending, {kResumedEvent}, false},
        {kStopPending, 1, 0, kStopPending, {}, true, 0xFFFFFFFF},
        {kStopped, 5, 0, kStopped, {}, true, 0},
        {kRunning, 2, 0, kPaused, {kPausedEvent}, true, 0},
        {kPaused, 2, 0, kPaused, {}, true, 0},
        {kPaused, 3, 0, kRunning, {kResumedEvent}, true, 0},
        {kRunning, 3, 0, kRunning, {}, true, 0},
        {kRunning, 4, 0, kRunning, {}, true, 0},
        {kPaused, 4, 0, kPaused, {}, true, 0},
        {kStopPending, 4, 0, kStopPending, {}, true, 0xFFFFFFFF},
        {kRunning, 6, 0, kRunning, {}, true, 0},
        {kStopPending, 2, 0, kStopPending, {}, true, 0xFFFFFFFF},
        {kRunning, 7, 120, kRunning, {}, false},
        {kRunning, 0, 120, kRunning, {}, false},
        {kPaused, 0x10, 120, kPaused, {}, false},
    };
    for (const ControlCase& c : cases) {
        SCOPED_TRACE("from " + std::to_string(c.from) + " control " + std::to_string(c.control));
        std::remove(logFile_.c_str());
        FakeManager::reports.clear();
        Service service(u"unused");
        enter(service, c.from);
        EXPECT_EQ(Service::controlHandler(c.control, 0, nullptr, &service), c.result);
        EXPECT_EQ(service.stateWord(), 1u << c.to);
        const std::vector<std::string> logged = events();
        ASSERT_EQ(logged.size(), c.events.size());
        for (size_t i = 0; i < logged.size(); ++i) EXPECT_EQ(logged[i], c.events[i]);
        const auto reports = FakeManager::taken();
        ASSERT_EQ(reports.size(), c.reported ? 1u : 0u);
        if (c.reported) {
            EXPECT_EQ(reports[0].dwCurrentState, c.to);
            EXPECT_EQ(reports[0].dwCheckPoint, c.checkPoint);
            EXPECT_EQ(reports[0].dwWaitHint, 2000u);
            EXPECT_EQ(reports[0].dwServiceType, 16u);
            EXPECT_EQ(reports[0].dwControlsAccepted, 7u);
        }
    }
}

TEST_F(ServiceStateTest, CheckpointCountsUpWhilePendingStartAndDownWhileStopping) {
    Service service(u"unused");
    service.setStateAndReport(ServiceState::kStartPending, 0, 2000);
    service.setStateAndReport(ServiceState::kStartPending, 0, 2000);
    enter(service, kStopPending);
    Service::controlHandler(1, 0, nullptr, &service);
    Service::controlHandler(1, 0, nullptr, &service);
    service.setStateAndReport(ServiceState::kRunning, 0, 2000);
    const auto reports = FakeManager::taken();
    ASSERT_EQ(reports.size(), 5u);
    const uint32_t expected[] = {1, 2, 1, 0, 0};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(reports[i].dwCheckPoint, expected[i]) << i;
}

TEST_F(ServiceStateTest, ExitCodeIsKeptWhilePendingAndZeroOtherwise) {
    const struct {
        ServiceState state;
        uint32_t reported;
    } cases[] = {
        {ServiceState::kStartPending, 42}, {ServiceState::kStopPending, 42},
        {ServiceState::kRunning, 0},       {ServiceState::kStopped, 0},
        {ServiceState::kPaused, 0},
    };
    for (const auto& c : cases) {
        Service service(u"unused");
        FakeManager::reports.clear();
        service.setStateAndReport(c.state, 42, 2000);
        EXPECT_EQ(service.exitCode(), 42u);
        const auto reports = FakeManager::taken();
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].dwWin32ExitCode, c.reported) << static_cast<int>(c.state);
    }
}

TEST_F(ServiceStateTest, FailedReportIsTheHandlersResult) {
    Service service(u"unused");
    enter(service, kRunning);
    FakeManager::failReportsWith = Osb::Err::kInvalidHandle;
    EXPECT_EQ(Service::controlHandler(4, 0, nullptr, &service), Osb::Err::kInvalidHandle);
    EXPECT_EQ(Service::controlHandler(2, 0, nullptr, &service), Osb::Err::kInvalidHandle);
    EXPECT_EQ(service.stateWord(), 1u << kPaused);
}

TEST_F(ServiceStateTest, ConsoleReportWritesTheStateLine) {
    FakeManager::console = true;
    const struct {
        uint32_t state;
        const char* line;
    } cases[] = {
        {kStopped, "Vigil State: STOPPED\n"},
        {kStartPending, "Vigil State: START PENDING\n"},
        {kStopPending, "Vigil State: STOP PENDING\n"},
        {kRunning, "Vigil State: RUNNING\n"},
        {kPaused, "Vigil State: INVALID STATE\n"},
        {5, "Vigil State: INVALID STATE\n"},
    };
    Service service(u"unused");
    for (const auto& c : cases) {
        enter(service, c.state);
        ::testing::internal::CaptureStdout();
        service.reportStatus(2000);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.line);
    }
    EXPECT_TRUE(FakeManager::taken().empty());
}

// A whole run in service mode: start reports, a pause, a stop while paused, the stop reports.
TEST_F(ServiceStateTest, RunReportsStartAndStopAndLogsEachStepInOrder) {
    Service service(vigil_test::UniquePipeName());
    Osb::Config config;
    config.serving = true;
    Osb::PlatformInit(config);
    std::thread runner([&] { EXPECT_EQ(service.run(), 0); });

    const auto deadline = steady_clock::now() + std::chrono::seconds(20);
    // Running once the Started event is out, which follows the RUNNING report.
    while (events().empty() && steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_EQ(FakeManager::taken().size(), 2u);
    EXPECT_EQ(Service::controlHandler(2, 0, nullptr, &service), 0u);
    const auto stopAsked = steady_clock::now();
    EXPECT_EQ(Service::controlHandler(1, 0, nullptr, &service), 0u);
    runner.join();
    EXPECT_LT(steady_clock::now() - stopAsked, std::chrono::seconds(3));
    Osb::PlatformUninit();

    const auto reports = FakeManager::taken();
    ASSERT_EQ(reports.size(), 4u);
    EXPECT_EQ(reports[0].dwCurrentState, kStartPending);
    EXPECT_EQ(reports[0].dwCheckPoint, 1u);
    EXPECT_EQ(reports[1].dwCurrentState, kRunning);
    EXPECT_EQ(reports[2].dwCurrentState, kPaused);
    EXPECT_EQ(reports[3].dwCurrentState, kStopped);
    EXPECT_EQ(reports[3].dwWin32ExitCode, 0u);
    EXPECT_EQ(events(), (std::vector<std::string>{kStartedEvent, kPausedEvent, kResumedEvent,
                                                  kStoppedEvent}));
    EXPECT_EQ(service.stateWord(), 1u << kStopped);
}

TEST_F(ServiceStateTest, RunWithoutTheCommonDataFolderFailsBeforeAnyReport) {
    std::filesystem::remove_all(root_ / "var/lib");
    Service service(vigil_test::UniquePipeName());
    try {
        service.run();
        ADD_FAILURE() << "run went through";
    } catch (const Osb::ExSystem& e) {
        EXPECT_EQ(e.status(), Osb::Err::kBadPathname);
    }
    EXPECT_TRUE(FakeManager::taken().empty());
    EXPECT_TRUE(events().empty());
}

}  // namespace
}  // namespace Vigil
