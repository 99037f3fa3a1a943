// The built executable started as systemd starts a service: NOTIFY_SOCKET names a datagram socket
// that the test binds, and the agent reports its start, its states and its stop there, while its
// control endpoint takes pause and continue as under the program's own manager.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/ServiceControl.h"
#include "platform/posix/ServiceFiles.h"
#include "tests/e2e/AgentProcess.h"
#include "tests/support/DatagramSink.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/ScratchRoot.h"
#include "tools/client/AgentConnection.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;

const std::string kServiceName = "OrvantaVigilWatch14.0";

class ServiceNotifyE2eTest : public ::testing::Test {
  protected:
    // The next `count` datagrams, each within the usual deadline; fewer when they stop coming.
    static std::vector<std::string> Next(DatagramSink& sink, size_t count) {
        std::vector<std::string> got;
        while (got.size() < count) {
            std::optional<std::string> datagram = sink.next();
            if (!datagram) break;
            got.push_back(*datagram);
        }
        return got;
    }
    // A control through the service's endpoint, as the manager's pause and continue send it.
    static uint32_t Control(uint32_t control) {
        Osb::Scm::EndpointReply reply = {};
        const uint32_t code =
            Osb::Scm::CallEndpoint(kServiceName, {Osb::Scm::kOpControl, control}, reply, 20000);
        return code != 0 ? code : reply.result;
    }

    ScratchRoot root_;
    ScopedEnv service_{"VIGIL_SERVICE", nullptr};
    ScopedEnv lcAll_{"LC_ALL", "C"};
};

TEST_F(ServiceNotifyE2eTest, ReportsReadyStatesAndStopOnPathAndAbstractSockets) {
    const std::string names[] = {root_ / "notify.socket",
                                 "@vigil-notify-test-" + std::to_string(::getpid())};
    const auto guid = *vigil_client::ParseGuid("F11EA6E7-0002-4000-8000-00000000C11E");
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        DatagramSink sink(name);
        ASSERT_TRUE(sink.bound());
        ScopedEnv notify("NOTIFY_SOCKET", name.c_str());
        RunningAgent agent({"/PORT", "notified"});

        ASSERT_EQ(Next(sink, 2),
                  (std::vector<std::string>{
                      "STATUS=Starting",
                      "STATUS=Running: 0 folders watched, 0 clients connected\nREADY=1"}));
        // Ready means the pipe takes clients now: no retry.
        vigil_client::AgentConnection client(u"notified");
        client.hello(guid, 1, 0);

        ASSERT_EQ(Control(Osb::SERVICE_CONTROL_PAUSE), 0u);
        ASSERT_EQ(Control(Osb::SERVICE_CONTROL_CONTINUE), 0u);
        EXPECT_EQ(Next(sink, 4),
                  (std::vector<std::string>{
                      "STATUS=Pausing", "STATUS=Paused: 0 folders watched, 1 client connected",
                      "STATUS=Continuing",
                      "STATUS=Running: 0 folders watched, 1 client connected"}));

        // systemd stops a service with SIGTERM.
        agent.signal(SIGTERM);
        EXPECT_EQ(Next(sink, 2),
                  (std::vector<std::string>{"STOPPING=1\nSTATUS=Stopping", "STATUS=Stopped"}));
        EXPECT_EQ(agent.wait().status, 0);
    }
}

TEST_F(ServiceNotifyE2eTest, FailedStartLeavesWithItsErrorCodeAndIsNeverReady) {
    // A second process of the service while the first runs finds its lock taken.
    const std::string firstName = root_ / "first.socket";
    DatagramSink first(firstName);
    ASSERT_TRUE(first.bound());
    std::optional<RunningAgent> running;
    {
        ScopedEnv notify("NOTIFY_SOCKET", firstName.c_str());
        running.emplace(std::vector<std::string>{"/PORT", "first"});
    }
    ASSERT_EQ(Next(first, 2).size(), 2u);

    struct Row {
        const char* what;
        bool removeDataRoot;
        uint32_t code;
    };
    const Row rows[] = {
        {"another process runs", false, 1056},
        {"no data folder (after the first has stopped)", true, 161},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.removeDataRoot) {
            running->signal(SIGTERM);
            ASSERT_EQ(running->wait().status, 0);
            fs::remove_all(root_ / "var/lib");
        }
        const std::string name = root_ / "notify.socket";
        DatagramSink sink(name);
        ASSERT_TRUE(sink.bound());
        ScopedEnv notify("NOTIFY_SOCKET", name.c_str());

        const Finished run = RunAgent({"/PORT", "never ready"});
        EXPECT_EQ(run.status, static_cast<int>(row.code & 0xFF));
        // Everything it sent is queued by now.
        std::vector<std::string> got;
        while (std::optional<std::string> datagram = sink.next(std::chrono::milliseconds(0))) {
            got.push_back(*datagram);
        }
        EXPECT_EQ(got, (std::vector<std::string>{"STATUS=Stopped after a failure: error " +
                                                 std::to_string(row.code)}));
    }
}

}  // namespace
}  // namespace vigil_test
