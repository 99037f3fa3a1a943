// The systemd side of service control that runs without systemd: the unit's text, the names and
// accounts systemd takes, which manager the calls pick, and the systemctl runner against a stand-in
// systemctl on PATH.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "platform/ErrorCode.h"
#include "platform/posix/Systemctl.h"
#include "platform/posix/SystemdManager.h"
#include "platform/posix/SystemdUnit.h"
#include "tests/support/FileText.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/ScratchRoot.h"

namespace {

using Osb::Scm::UnitSettings;

UnitSettings PackageSettings() {
    UnitSettings settings;
    settings.displayName = "Orvanta Vigil Watch V14";
    settings.description = "Tracks files that are managed by Mirelle Catalog";
    settings.binaryPath = "/usr/lib/mirelle-studio-file-agent/MirelleStudioFileAgent";
    settings.autoStart = true;
    return settings;
}

// The package ships the unit that /INSTALL /AUTOSTART writes for the packaged binary, so that a
// machine is configured the same whichever way the service was installed.
TEST(SystemdUnitTest, ThePackagedUnitIsTheOneInstallingWrites) {
    const std::string packaged = vigil_test::FileText(VIGIL_PACKAGED_UNIT);
    ASSERT_FALSE(packaged.empty()) << VIGIL_PACKAGED_UNIT;
    EXPECT_EQ(Osb::Scm::FormatUnit(PackageSettings()), packaged);
}

TEST(SystemdUnitTest, SettingsBecomeTheirLines) {
    struct Row {
        const char* what;
        void (*change)(UnitSettings&);
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const Row rows[] = {
        {"demand start: no [Install], nothing to enable",
         [](UnitSettings& s) { s.autoStart = false; },
         {"Type=notify\n"},
         {"[Install]", "WantedBy="}},
        {"an account", [](UnitSettings& s) { s.user = "vigil"; }, {"\nUser=vigil\n"}, {}},
        {"dependencies, required and ordered",
         [](UnitSettings& s) {
             s.dependencies = {"a", "b.x"};
         },
         {"\nRequires=a.service b.x.service\n", "\nAfter=a.service b.x.service\n"},
         {}},
        {"a binary path with a blank, a quote and a percent sign is one quoted word",
         [](UnitSettings& s) { s.binaryPath = "/opt/my \"agent\" 100%/agent"; },
         {"\nExecStart=\"/opt/my \\\"agent\\\" 100%%/agent\"\n"},
         {}},
        {"a display name cannot add lines or specifiers",
         [](UnitSettings& s) { s.displayName = "50% done\nExecStartPre=/bin/evil\\"; },
         {"\nDescription=50%% done ExecStartPre=/bin/evil\n"},
         {"\nExecStartPre="}},
        {"a scratch root is handed to the service and is all it may write",
         [](UnitSettings& s) { s.systemRoot = "/srv/vigil root"; },
         {"\nEnvironment=\"VIGIL_SYSTEM_ROOT=/srv/vigil root\"\n",
          "\nReadWritePaths=\"/srv/vigil root\"\n"},
         {"RuntimeDirectory=", "StateDirectory="}},
        {"the machine's root: systemd makes the run and data folders",
         [](UnitSettings&) {},
         {"\nRuntimeDirectory=orvanta\n", "\nStateDirectory=Orvanta\n",
          "\nReadWritePaths=/run/orvanta /var/lib/Orvanta\n", "\nProtectSystem=strict\n",
          "\nNoNewPrivileges=yes\n"},
         {"User=", "Requires=", "Environment="}},
    };
    for (const Row& row : rows) {
        UnitSettings settings = PackageSettings();
        row.change(settings);
        const std::string text = Osb::Scm::FormatUnit(settings);
        for (const std::string& line : row.present) {
            EXPECT_NE(text.find(line), std::string::npos) << row.what << ": " << line << "\n"
                                                          << text;
        }
        for (const std::string& line : row.absent) {
            EXPECT_EQ(text.find(line), std::string::npos) << row.what << ": " << line << "\n"
                                                          << text;
        }
    }
}

TEST(SystemdUnitTest, TheDescriptionIsTheLeadingCommentAndOnlyThatChanges) {
    const std::string unit = Osb::Scm::FormatUnit(PackageSettings());
    const std::string body = unit.substr(unit.find("[Unit]"));
    EXPECT_EQ(Osb::Scm::WithDescription(unit, "Two\r\nlines"), "# Two\n# lines\n" + body);
    EXPECT_EQ(Osb::Scm::WithDescription(unit, ""), body);
    EXPECT_EQ(Osb::Scm::WithDescription(body, "New"), "# New\n" + body);
}

TEST(SystemdUnitTest, NamesAndAccountsAsSystemdTakesThem) {
    for (const char* name : {"OrvantaVigilWatch14.0", "a", "x:y_z-1"}) {
        EXPECT_TRUE(Osb::Scm::ValidUnitName(name)) << name;
    }
    for (const char* name : {"", "two words", "-dash", ".dot", "a/b", "a@b", "caf\xc3\xa9"}) {
        EXPECT_FALSE(Osb::Scm::ValidUnitName(name)) << name;
    }
    EXPECT_FALSE(Osb::Scm::ValidUnitName(std::string(248, 'a')));

    const std::pair<const char*, const char*> accounts[] = {
        {"", ""},
        {"bob", "bob"},
        {".\\bob", "bob"},
        {"DOM\\bob", "bob"},
        {"LocalSystem", ""},
        {".\\localsystem", ""},
        {"NT AUTHORITY\\SYSTEM", ""},
    };
    for (const auto& [account, user] : accounts)
        EXPECT_EQ(Osb::Scm::UnitUser(account), user) << account;
}

TEST(SystemdUnitTest, TheManagerIsSystemdOnlyOnTheMachinesOwnRootOrWhenForced) {
    vigil_test::ScratchRoot root;  // a scratch root: the own manager, whatever runs as init
    vigil_test::ScopedEnv manager("VIGIL_SERVICE_MANAGER", nullptr);
    EXPECT_FALSE(Osb::Scm::Systemd::Manages());
    manager.set("systemd");
    EXPECT_TRUE(Osb::Scm::Systemd::Manages());
    manager.set("own");
    EXPECT_FALSE(Osb::Scm::Systemd::Manages());
    manager.set("something else");
    EXPECT_FALSE(Osb::Scm::Systemd::Manages());
}

// A stand-in systemctl first on PATH: the runner's deadline, its collection of both outputs and
// the parsing of `systemctl show`.
class SystemctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/vigil-systemctl-XXXXXX";
        ASSERT_NE(::mkdtemp(folder), nullptr);
        folder_ = folder;
        path_.set((folder_ + ":" + (previousPath_ ? previousPath_ : "/usr/bin:/bin")).c_str());
    }
    void TearDown() override {
        std::remove((folder_ + "/systemctl").c_str());
        ::rmdir(folder_.c_str());
    }
    void Script(const std::string& body) {
        const std::string file = folder_ + "/systemctl";
        std::ofstream(file) << "#!/bin/sh\n" << body << "\n";
        ::chmod(file.c_str(), 0755);
    }

    const char* previousPath_ = std::getenv("PATH");
    std::string folder_;
    vigil_test::ScopedEnv path_{"PATH", std::getenv("PATH")};
};

TEST_F(SystemctlTest, OutputsExitStatusAndDeadline) {
    Script("echo \"args: $*\"; echo 'Failed to start x.service' >&2; exit 5");
    Osb::Scm::SystemctlResult result = Osb::Scm::RunSystemctl({"start", "--", "x.service"}, 10000);
    EXPECT_EQ(result.error, 0u);
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.output, "args: --no-ask-password start -- x.service\n");
    EXPECT_EQ(result.errors, "Failed to start x.service");

    Script("exec sleep 30");
    result = Osb::Scm::RunSystemctl({"start", "x.service"}, 200);
    EXPECT_EQ(result.error, Osb::Err::kServiceRequestTimeout);
    EXPECT_EQ(result.exitStatus, -1);

    Script("echo 'ExecMainStatus=161'; echo 'ActiveState=failed'; echo 'Other=1'");
    std::vector<std::string> values;
    ASSERT_TRUE(Osb::Scm::ShowUnitProperties(
        "x.service", {"ActiveState", "ExecMainStatus", "Requires"}, values, result, 10000));
    EXPECT_EQ(values, (std::vector<std::string>{"failed", "161", ""}));

    Script("exit 1");
    EXPECT_FALSE(Osb::Scm::ShowUnitProperties("x.service", {"ActiveState"}, values, result, 10000));
}

TEST(SystemctlMissingTest, ASystemWithoutSystemctlSaysSo) {
    vigil_test::ScopedEnv path("PATH", "/nonexistent");
    const Osb::Scm::SystemctlResult result = Osb::Scm::RunSystemctl({"daemon-reload"}, 1000);
    EXPECT_EQ(result.error, Osb::Err::kFileNotFound);
}

}  // namespace
