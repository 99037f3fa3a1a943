// Installing, opening and deleting services, and the error of each refused call, without running
// any service process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "platform/Console.h"
#include "platform/ErrorCode.h"
#include "platform/ServiceControl.h"
#include "platform/Utf.h"
#include "tests/support/FileText.h"
#include "tests/support/RunAsUser.h"
#include "tests/support/ScratchRoot.h"

namespace {

using namespace Osb;

class ServiceControlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        manager_ = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(manager_, nullptr) << ErrorCode();
    }
    void TearDown() override {
        for (SC_HANDLE service : installed_) CloseServiceHandle(service);
        CloseServiceHandle(manager_);
    }

    SC_HANDLE create(const char16_t* name, const char16_t* dependencies = nullptr,
                     const char16_t* account = nullptr) {
        return CreateServiceW(manager_, name, u"Display", SERVICE_ALL_ACCESS,
                              SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                              u"/opt/agent/agent", nullptr, nullptr, dependencies, account,
                              u"secret");
    }

    // A service installed for the rest of the test; its handle is closed at the end.
    SC_HANDLE installed(const char16_t* name, uint32_t start, const char16_t* binary) {
        SC_HANDLE service =
            CreateServiceW(manager_, name, nullptr, 0, SERVICE_WIN32_OWN_PROCESS, start, 0, binary,
                           nullptr, nullptr, nullptr, nullptr, nullptr);
        EXPECT_NE(service, nullptr) << ErrorCode();
        installed_.push_back(service);
        return service;
    }
    std::vector<SC_HANDLE> installed_;

    vigil_test::ScratchRoot root_;
    SC_HANDLE manager_ = nullptr;
};

TEST_F(ServiceControlTest, InstallWritesEveryKeyAndOpenFindsIt) {
    struct Case {
        const char16_t* name;
        const char16_t* displayName;
        uint32_t startType, errorControl;
        const char16_t* dependencies;
        const char16_t* account;
        const char16_t* description;  // null: none set
        std::vector<const char*> lines;
    };
    const Case cases[] = {
        {u"Agent",
         u"Shown\nName",
         SERVICE_AUTO_START,
         SERVICE_ERROR_NORMAL,
         u"First\0Second\0",
         u"dom\\bob",
         u"Tracks\r\nfiles",
         {"DisplayName=Shown\\nName\n", "Description=Tracks\\r\\nfiles\n",
          "BinaryPath=/opt/agent/agent\n", "StartType=2\n", "ErrorControl=1\n",
          "Account=dom\\\\bob\n", "Dependencies=First/Second\n"}},
        // Absent values are empty, and the display name defaults to the name.
        {u"Bare",
         nullptr,
         SERVICE_DEMAND_START,
         SERVICE_ERROR_IGNORE,
         nullptr,
         nullptr,
         nullptr,
         {"DisplayName=Bare\n", "Description=\n", "Account=\n", "Dependencies=\n", "StartType=3\n",
          "ErrorControl=0\n"}},
    };
    for (const Case& c : cases) {
        const std::string name = Utf16ToUtf8(c.name);
        SCOPED_TRACE(name);
        uint32_t tag = 77;
        SC_HANDLE service = CreateServiceW(manager_, c.name, c.displayName, SERVICE_ALL_ACCESS,
                                           SERVICE_WIN32_OWN_PROCESS, c.startType, c.errorControl,
                                           u"/opt/agent/agent", nullptr, &tag, c.dependencies,
                                           c.account, u"secret");
        ASSERT_NE(service, nullptr) << ErrorCode();
        EXPECT_EQ(tag, 0u);
        if (c.description != nullptr) {
            SERVICE_DESCRIPTIONW description = {const_cast<char16_t*>(c.description)};
            ASSERT_TRUE(ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description));
        }
        EXPECT_TRUE(CloseServiceHandle(service));

        const std::string text =
            vigil_test::FileText(root_ / ("etc/orvanta/services/" + name + ".conf"));
        for (const char* line : c.lines) {
            EXPECT_NE(text.find(line), std::string::npos) << line << " missing from:\n" << text;
        }
        EXPECT_EQ(text.find("secret"), std::string::npos) << "the password must not be kept";

        SC_HANDLE opened = OpenServiceW(manager_, c.name, SERVICE_ALL_ACCESS);
        ASSERT_NE(opened, nullptr) << ErrorCode();
        SERVICE_STATUS status = {};
        ASSERT_TRUE(QueryServiceStatus(opened, &status));
        EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
        EXPECT_EQ(status.dwServiceType, SERVICE_WIN32_OWN_PROCESS);
        EXPECT_TRUE(CloseServiceHandle(opened));
    }
}

TEST_F(ServiceControlTest, DeleteRemovesTheRecordAndLaterCallsSeeNoService) {
    SC_HANDLE service = create(u"Gone");
    ASSERT_NE(service, nullptr);
    ASSERT_TRUE(DeleteService(service));
    EXPECT_NE(access((root_ / "etc/orvanta/services/Gone.conf").c_str(), F_OK), 0);

    SERVICE_STATUS status = {};
    EXPECT_FALSE(DeleteService(service));
    EXPECT_EQ(ErrorCode(), Err::kServiceDoesNotExist);
    EXPECT_FALSE(StartServiceW(service, 0, nullptr));
    EXPECT_EQ(ErrorCode(), Err::kServiceDoesNotExist);
    EXPECT_FALSE(ControlService(service, SERVICE_CONTROL_STOP, &status));
    EXPECT_EQ(ErrorCode(), Err::kServiceNotActive);
    EXPECT_EQ(OpenServiceW(manager_, u"Gone", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(ErrorCode(), Err::kServiceDoesNotExist);
    CloseServiceHandle(service);

    // The name is free again.
    SC_HANDLE again = create(u"Gone");
    EXPECT_NE(again, nullptr) << ErrorCode();
    CloseServiceHandle(again);
}

TEST_F(ServiceControlTest, RefusedCallsLeaveTheirWindowsCode) {
    SC_HANDLE existing = create(u"Here");
    ASSERT_NE(existing, nullptr);
    SERVICE_STATUS status = {};
    struct Row {
        const char* what;
        std::function<bool()> call;
        uint32_t code;
    };
    const Row rows[] = {
        {"second install", [&] { return create(u"Here") != nullptr; }, Err::kServiceExists},
        {"open missing", [&] { return OpenServiceW(manager_, u"Nope", 0) != nullptr; },
         Err::kServiceDoesNotExist},
        {"empty name", [&] { return create(u"") != nullptr; }, Err::kInvalidName},
        {"slash in name", [&] { return create(u"a/b") != nullptr; }, Err::kInvalidName},
        {"backslash in name", [&] { return OpenServiceW(manager_, u"a\\b", 0) != nullptr; },
         Err::kInvalidName},
        {"dot dot", [&] { return create(u"..") != nullptr; }, Err::kInvalidName},
        {"no binary",
         [&] {
             return CreateServiceW(manager_, u"NoBin", nullptr, 0, SERVICE_WIN32_OWN_PROCESS,
                                   SERVICE_DEMAND_START, 0, u"", nullptr, nullptr, nullptr, nullptr,
                                   nullptr) != nullptr;
         },
         Err::kInvalidParameter},
        {"driver start type",
         [&] {
             return CreateServiceW(manager_, u"Drv", nullptr, 0, SERVICE_WIN32_OWN_PROCESS, 1, 0,
                                   u"/b", nullptr, nullptr, nullptr, nullptr, nullptr) != nullptr;
         },
         Err::kInvalidParameter},
        {"remote machine",
         [&] { return OpenSCManagerW(u"\\\\far", nullptr, SC_MANAGER_CONNECT) != nullptr; },
         Err::kInvalidParameter},
        {"service handle as manager", [&] { return OpenServiceW(existing, u"Here", 0) != nullptr; },
         Err::kInvalidHandle},
        {"manager handle as service", [&] { return DeleteService(manager_); }, Err::kInvalidHandle},
        {"control stopped service",
         [&] { return ControlService(existing, SERVICE_CONTROL_PAUSE, &status); },
         Err::kServiceNotActive},
        {"shutdown from a caller",
         [&] { return ControlService(existing, SERVICE_CONTROL_SHUTDOWN, &status); },
         Err::kInvalidParameter},
        {"unknown description level", [&] { return ChangeServiceConfig2W(existing, 2, &status); },
         Err::kInvalidParameter},
        {"dispatcher outside the manager",
         [] {
             const SERVICE_TABLE_ENTRY table[] = {{u"x", [](uint32_t, char16_t**) {}},
                                                  {nullptr, nullptr}};
             return StartServiceCtrlDispatcherW(table);
         },
         Err::kFailedServiceControllerConnect},
        {"status without registration", [&] { return SetServiceStatus(nullptr, status); },
         Err::kInvalidHandle},
        {"start of a disabled service",
         [&] {
             return StartServiceW(installed(u"Off", SERVICE_DISABLED, u"/bin/true"), 0, nullptr);
         },
         Err::kServiceDisabled},
        {"start of a missing binary",
         [&] {
             return StartServiceW(installed(u"NoExe", SERVICE_DEMAND_START, u"/no/such/binary"), 0,
                                  nullptr);
         },
         Err::kPathNotFound},
    };
    for (const Row& row : rows) {
        SetLastError(0);
        EXPECT_FALSE(row.call()) << row.what;
        EXPECT_EQ(ErrorCode(), row.code) << row.what;
    }
    EXPECT_TRUE(CloseServiceHandle(existing));
    EXPECT_FALSE(CloseServiceHandle(existing)) << "a closed handle must be refused";
    EXPECT_EQ(ErrorCode(), Err::kInvalidHandle);
}

// The codes that an unprivileged caller gets: for opening the manager to create, for opening it
// to connect, and for creating a service with a manager opened to connect. Run in a child that
// gives up root, so that the test means something when it runs as root too.
TEST_F(ServiceControlTest, CallerWhoMayNotWriteTheServicesFolderGetsAccessDenied) {
    ASSERT_EQ(chmod(root_.path().c_str(), 0755), 0);  // reachable, but not writable, by others
    const vigil_test::ChildOutcome outcome = vigil_test::RunAsUser({65534, 65534, {}}, [] {
        std::string codes;
        if (OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE) == nullptr) {
            codes += std::to_string(ErrorCode());
        }
        SC_HANDLE reader = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        if (reader == nullptr) return codes + " no connection";  // connecting needs no write
        if (CreateServiceW(reader, u"Denied", nullptr, 0, SERVICE_WIN32_OWN_PROCESS,
                           SERVICE_DEMAND_START, 0, u"/b", nullptr, nullptr, nullptr, nullptr,
                           nullptr) == nullptr) {
            codes += " " + std::to_string(ErrorCode());
        }
        return codes;
    });
    if (outcome.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(outcome.output, "5 5");
    EXPECT_NE(access((root_ / "etc/orvanta/services/Denied.conf").c_str(), F_OK), 0);
}

TEST(ConsoleTest, ConsoleModeUnlessStartedAsAService) {
    unsetenv("VIGIL_SERVICE");
    EXPECT_EQ(AllocConsole(), 0);
    setenv("VIGIL_SERVICE", "Svc", 1);
    EXPECT_EQ(AllocConsole(), 1);
    EXPECT_EQ(FreeConsole(), 1);
    unsetenv("VIGIL_SERVICE");
}

}  // namespace
