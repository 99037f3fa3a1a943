// The fixture of the tests that run services: a scratch root, the manager open, and the test
// helper FakeService installed as "Fake". Whatever a test starts is stopped, and waited for, when
// the test ends. Every wait polls with a deadline.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/ServiceControl.h"
#include "platform/Utf.h"
#include "platform/posix/ServiceFiles.h"
#include "tests/support/FileText.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"

namespace vigil_test {

class FakeServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("FAKE_SERVICE_MODE", "normal", 1);
        manager_ = Osb::OpenSCManagerW(nullptr, nullptr, Osb::SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(manager_, nullptr);
        service_ = install(u"Fake");
        ASSERT_NE(service_, nullptr) << Osb::ErrorCode();
    }
    void TearDown() override {
        // Nothing may outlive the scratch root: stop whatever still runs and wait for its end.
        Osb::Scm::SetAnswerTimeoutForTesting(30000);
        release();
        for (const std::string& name : started_) {
            Osb::SC_HANDLE service = Osb::OpenServiceW(manager_, Osb::Utf8ToUtf16(name).c_str(), 0);
            // A start-pending service refuses the stop (1061), so it is sent until it is taken.
            bool stopSent = service == nullptr;
            EXPECT_TRUE(vigil_test::PollUntil([&] {
                Osb::SERVICE_STATUS status = {};
                if (!stopSent) stopSent = Osb::ControlService(service, Osb::SERVICE_CONTROL_STOP, &status) ||
                                          Osb::ErrorCode() != Osb::Err::kServiceCannotAcceptCtrl;
                return !Osb::Scm::InstanceAlive(name);
            })) << name;
            if (service != nullptr) Osb::CloseServiceHandle(service);
        }
        // A sanitizer in the service process reports into its log, which nobody else reads.
        for (const std::string& name : started_) {
            const std::string text = log(name);
            EXPECT_EQ(text.find("Sanitizer"), std::string::npos) << text;
            EXPECT_EQ(text.find("runtime error"), std::string::npos) << text;
        }
        Osb::CloseServiceHandle(service_);
        Osb::CloseServiceHandle(manager_);
        unsetenv("FAKE_SERVICE_MODE");
    }

    Osb::SC_HANDLE install(const char16_t* name) {
        return Osb::CreateServiceW(manager_, name, nullptr, Osb::SERVICE_ALL_ACCESS,
                              Osb::SERVICE_WIN32_OWN_PROCESS, Osb::SERVICE_DEMAND_START, 0,
                              Osb::Utf8ToUtf16(FAKE_SERVICE_PATH).c_str(), nullptr, nullptr, nullptr,
                              nullptr, nullptr);
    }
    bool start(Osb::SC_HANDLE service = nullptr, const std::string& name = "Fake") {
        started_.push_back(name);
        return Osb::StartServiceW(service != nullptr ? service : service_, 0, nullptr);
    }
    std::string log(const std::string& name = "Fake") {
        return vigil_test::FileText(root_ / ("var/log/orvanta/" + name + ".log"));
    }
    uint32_t state() {
        Osb::SERVICE_STATUS status = {};
        EXPECT_TRUE(Osb::QueryServiceStatus(service_, &status));
        return status.dwCurrentState;
    }
    bool awaitState(uint32_t wanted) {
        return vigil_test::PollUntil([&] { return state() == wanted; });
    }
    // The service's output reaches its log through a writer thread, so a line may come a moment
    // after the event. This sends control 7 (which the fake only logs) and waits for its line:
    // everything the service wrote before is in the log then. The service must be running.
    bool syncLog() {
        auto count = [&] {
            const std::string text = log();
            size_t seen = 0;
            for (size_t at = text.find("control 7\n"); at != std::string::npos;
                 at = text.find("control 7\n", at + 1)) {
                ++seen;
            }
            return seen;
        };
        const size_t before = count();
        Osb::SERVICE_STATUS status = {};
        Osb::ControlService(service_, 7, &status);
        return vigil_test::PollUntil([&] { return count() > before; });
    }
    void release() { std::ofstream(root_ / "release") << ""; }
    // The pid the fake logged at its registration, the n-th one (0-based).
    pid_t registeredPid(size_t n = 0) {
        std::istringstream lines(log());
        std::string word;
        pid_t pid = 0;
        size_t seen = 0;
        while (lines >> word) {
            if (word == "register" && lines >> pid && seen++ == n) return pid;
        }
        return 0;
    }

    vigil_test::ScratchRoot root_;
    Osb::SC_HANDLE manager_ = nullptr;
    Osb::SC_HANDLE service_ = nullptr;
    std::vector<std::string> started_;
};

}  // namespace vigil_test
