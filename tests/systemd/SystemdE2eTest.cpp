// The service under a real systemd, booted in a container: /INSTALL writes a unit systemd accepts,
// the controls become systemd jobs or reach the running service, its events land in the journal,
// and the Debian package installs, runs and removes the service as packages do. The steps run in
// order against one container, each building on the one before, as an administrator would go.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/systemd/NspawnContainer.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;

// Inside, the build folder is at a path with a blank, so that the unit must quote it.
const std::string kBuildInside = "/opt/vigil build";
const std::string kUnit = "OrvantaVigilWatch14.0";
const std::string kUnitFile = "/etc/systemd/system/" + kUnit + ".service";
const std::string kGuid = "--guid 33221100-5544-7766-9988-BBAAFFEEDDCC";

std::string Inside(const char* hostPath) {
    return kBuildInside + "/" + fs::relative(hostPath, VIGIL_BUILD_DIR).string();
}

class SystemdE2eTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        container_ = std::make_unique<NspawnContainer>(VIGIL_BUILD_DIR, kBuildInside);
        if (!container_->boot(skipReason_)) container_.reset();
    }
    static void TearDownTestSuite() { container_.reset(); }
    void SetUp() override {
        if (!container_) GTEST_SKIP() << "no container: " << skipReason_;
    }

    static CommandResult Run(const std::string& command) { return container_->run(command); }
    static CommandResult Agent(const std::string& options) {
        return Run(ShellWord(Inside(VIGIL_AGENT_PATH)) + " " + options);
    }
    static CommandResult Client(const std::string& arguments) {
        return Run(ShellWord(Inside(VIGIL_CLIENT_PATH)) + " " + kGuid + " " + arguments);
    }
    static std::string State() { return Run("systemctl is-active " + kUnit).output; }
    static std::string StatusText() {
        return Run("systemctl show -p StatusText --value " + kUnit).output;
    }

    static std::unique_ptr<NspawnContainer> container_;
    static std::string skipReason_;
};

std::unique_ptr<NspawnContainer> SystemdE2eTest::container_;
std::string SystemdE2eTest::skipReason_;

TEST_F(SystemdE2eTest, BadInstallsFailWithTheirCodeAndLeaveNothing) {
    struct Row {
        const char* options;
        int exitStatus;  // the Windows code's low 8 bits
    };
    const Row rows[] = {
        {"/INSTALL /ACCOUNT nosuchuser", 1057 & 0xFF},
        {"/INSTALL /DEPENDENCIES nosuchservice", 1075 & 0xFF},
    };
    for (const Row& row : rows) {
        const CommandResult result = Agent(row.options);
        EXPECT_EQ(result.exitStatus, row.exitStatus) << row.options << "\n" << result.output;
        EXPECT_NE(Run("test -e " + kUnitFile).exitStatus, 0) << row.options;
    }
    // A systemd that does not answer (a systemctl that cannot reach it, first on PATH): the unit
    // written before the reload goes again.
    const CommandResult unanswered =
        Run("mkdir -p /tmp/mute && printf '#!/bin/sh\\necho \"Failed to connect to bus\" "
            ">&2\\nexit 1\\n' "
            "> /tmp/mute/systemctl && chmod 755 /tmp/mute/systemctl && PATH=/tmp/mute:$PATH " +
            ShellWord(Inside(VIGIL_AGENT_PATH)) + " /INSTALL");
    EXPECT_EQ(unanswered.exitStatus, 1053 & 0xFF) << unanswered.output;
    EXPECT_NE(unanswered.output.find("systemctl daemon-reload failed: Failed to connect to bus"),
              std::string::npos)
        << unanswered.output;
    EXPECT_NE(Run("test -e " + kUnitFile).exitStatus, 0);
    // A unit folder that cannot be written (here a read-only mount: 19, "The media is write
    // protected."): refused before anything is written.
    const CommandResult readOnly =
        Run("mount --bind -o ro /etc/systemd/system /etc/systemd/system && " +
            ShellWord(Inside(VIGIL_AGENT_PATH)) +
            " /INSTALL; s=$?; umount /etc/systemd/system; exit $s");
    EXPECT_EQ(readOnly.exitStatus, 19) << readOnly.output;
    EXPECT_NE(Run("test -e " + kUnitFile).exitStatus, 0);
}

TEST_F(SystemdE2eTest, AnAccountAndDependenciesBecomeUserAndRequires) {
    const CommandResult installed =
        Agent("/INSTALL /ACCOUNT daemon /DOMAIN HOST /DEPENDENCIES dbus");
    ASSERT_EQ(installed.exitStatus, 0) << installed.output;
    const std::string unit = Run("cat " + kUnitFile).output;
    EXPECT_NE(unit.find("\nUser=daemon\n"), std::string::npos) << unit;
    EXPECT_NE(unit.find("\nRequires=dbus.service\nAfter=dbus.service\n"), std::string::npos)
        << unit;
    EXPECT_EQ(unit.find("[Install]"), std::string::npos) << unit;  // no /AUTOSTART
    const CommandResult verified = Run("systemd-analyze verify " + kUnitFile);
    EXPECT_EQ(verified.exitStatus, 0) << verified.output;
    // It runs as that user, with its run and data folders made for it.
    const CommandResult started = Agent("/START");
    EXPECT_EQ(started.exitStatus, 0)
        << started.output << Run("journalctl --no-pager -n 20 -u " + kUnit).output;
    EXPECT_EQ(Run("ps -o user= -p $(systemctl show -p MainPID --value " + kUnit + ")").output,
              "daemon\n");
    const CommandResult removed = Agent("/UNINSTALL");
    EXPECT_EQ(removed.exitStatus, 0) << removed.output;
    EXPECT_NE(Run("test -e " + kUnitFile).exitStatus, 0);
    EXPECT_EQ(State(), "inactive\n");
}

TEST_F(SystemdE2eTest, InstallWritesAUnitSystemdAcceptsAndEnables) {
    const CommandResult installed = Agent("/INSTALL /AUTOSTART");
    ASSERT_EQ(installed.exitStatus, 0) << installed.output;
    EXPECT_NE(installed.output.find("Service sucessfully installed."), std::string::npos);
    const CommandResult verified = Run("systemd-analyze verify " + kUnitFile);
    EXPECT_EQ(verified.exitStatus, 0) << verified.output;
    EXPECT_EQ(Run("systemctl is-enabled " + kUnit).output, "enabled\n");
    EXPECT_EQ(Agent("/INSTALL").exitStatus, 1073 & 0xFF);  // already installed
}

TEST_F(SystemdE2eTest, StartIsReadyAndAClientCollectsAChange) {
    const CommandResult started = Agent("/START");
    ASSERT_EQ(started.exitStatus, 0) << started.output;
    // A Type=notify unit is active only once the service has sent READY=1.
    EXPECT_EQ(State(), "active\n");
    EXPECT_EQ(StatusText().rfind("Running: ", 0), 0u) << StatusText();
    ASSERT_EQ(Run("mkdir -p /srv/photos").exitStatus, 0);
    const CommandResult added = Client("add --subtree /srv/photos");
    ASSERT_EQ(added.exitStatus, 0) << added.output;
    ASSERT_EQ(Run("touch /srv/photos/IMG_0001.jpg").exitStatus, 0);
    const CommandResult changes = Client("changes");
    EXPECT_EQ(changes.exitStatus, 0) << changes.output;
    EXPECT_NE(changes.output.find("IMG_0001.jpg"), std::string::npos) << changes.output;
    EXPECT_EQ(Agent("/START").exitStatus, 1056 & 0xFF);  // already running
}

TEST_F(SystemdE2eTest, PauseHoldsRequestsUntilContinue) {
    ASSERT_EQ(Agent("/PAUSE").exitStatus, 0);
    EXPECT_EQ(StatusText().rfind("Paused: ", 0), 0u) << StatusText();
    EXPECT_NE(Run("systemctl status --no-pager " + kUnit).output.find("Paused: "),
              std::string::npos);
    EXPECT_EQ(Client("--timeout 2 folders").exitStatus, 3);  // held, not answered
    ASSERT_EQ(Agent("/CONTINUE").exitStatus, 0);
    const CommandResult folders = Client("folders");
    EXPECT_EQ(folders.exitStatus, 0) << folders.output;
    EXPECT_NE(folders.output.find("/srv/photos"), std::string::npos) << folders.output;
}

TEST_F(SystemdE2eTest, StopAndRestartAreSystemdJobs) {
    ASSERT_EQ(Agent("/STOP").exitStatus, 0);
    EXPECT_EQ(State(), "inactive\n");
    EXPECT_EQ(Agent("/PAUSE").exitStatus, 1062 & 0xFF);  // not running
    ASSERT_EQ(Agent("/RESTART").exitStatus, 0);
    EXPECT_EQ(State(), "active\n");
    const std::string before = Run("systemctl show -p MainPID --value " + kUnit).output;
    ASSERT_EQ(Agent("/RESTART").exitStatus, 0);
    EXPECT_EQ(State(), "active\n");
    EXPECT_NE(Run("systemctl show -p MainPID --value " + kUnit).output, before);
    // The watch list came back with the service.
    EXPECT_NE(Client("folders").output.find("/srv/photos"), std::string::npos);
}

TEST_F(SystemdE2eTest, EventsAreFoundInTheJournal) {
    // "... Service has Started." and "... has Paused.", by their fixed message ids.
    for (const char* id : {"20000a0a", "20000a0b"}) {
        const CommandResult found = Run("journalctl --no-pager -o cat -u " + kUnit +
                                        " MESSAGE_ID=eb42d24211294da2955331fb" + id);
        EXPECT_EQ(found.exitStatus, 0);
        EXPECT_NE(found.output.find("Service has"), std::string::npos)
            << id << ": " << found.output;
    }
}

TEST_F(SystemdE2eTest, UninstallStopsDisablesAndRemoves) {
    const CommandResult removed = Agent("/UNINSTALL");
    ASSERT_EQ(removed.exitStatus, 0) << removed.output;
    EXPECT_NE(removed.output.find("Service sucessfully uninstalled."), std::string::npos);
    EXPECT_NE(Run("test -e " + kUnitFile).exitStatus, 0);
    EXPECT_EQ(State(), "inactive\n");
    EXPECT_NE(Run("systemctl cat " + kUnit).exitStatus, 0);
    EXPECT_EQ(Agent("/START").exitStatus, 1060 & 0xFF);
}

TEST_F(SystemdE2eTest, ThePackageInstallsRunsAndRemovesTheService) {
    const std::string deb =
        Run("ls " + ShellWord(kBuildInside) + "/*.deb 2>/dev/null | head -n 1").output;
    ASSERT_FALSE(deb.empty()) << "no package in the build folder (the test SystemdE2ePackage, or "
                                 "cpack -G DEB there, makes it)";
    const std::string package = deb.substr(0, deb.size() - 1);
    // A container image's policy-rc.d forbids starting services from packages; a machine has none.
    ASSERT_EQ(Run("rm -f /usr/sbin/policy-rc.d").exitStatus, 0);
    const CommandResult installed = Run("dpkg -i " + ShellWord(package));
    ASSERT_EQ(installed.exitStatus, 0) << installed.output;
    EXPECT_EQ(State(), "active\n");
    EXPECT_EQ(Run("systemctl is-enabled " + kUnit).output, "enabled\n");
    const CommandResult hello = Run("fileagent-client hello");
    EXPECT_EQ(hello.exitStatus, 0) << hello.output;
    const CommandResult removed = Run("dpkg -r mirelle-studio-file-agent");
    ASSERT_EQ(removed.exitStatus, 0) << removed.output;
    EXPECT_EQ(State(), "inactive\n");
    EXPECT_NE(Run("systemctl cat " + kUnit).exitStatus, 0);
}

}  // namespace
}  // namespace vigil_test
