// The built executable end to end, under a scratch system root: the console run, the usage text,
// and the setup and control commands against the service manager, with their messages, exit
// codes, dumps and events.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/PipeClient.h"
#include "service/VigilCommandLine.h"
#include "tests/e2e/AgentProcess.h"
#include "tests/e2e/ServerFixture.h"
#include "tests/support/ScratchRoot.h"
#include "tools/client/AgentConnection.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace Vigil::Protocol;

const Vigil::Watch::Guid kGuid{{9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6}};
const std::u16string kDefaultPipe = u"\\\\.\\pipe\\Orvanta Vigil Watch 14.0";
const std::string kStarted = "0x20000A0A Orvanta Vigil Watch Service has Started.";
const std::string kPaused = "0x20000A0B Orvanta Vigil Watch Service has Paused.";
const std::string kResumed = "0x20000A0C Orvanta Vigil Watch Service has Resumed.";
const std::string kStopped = "0x20000A0D Orvanta Vigil Watch Service has Stopped.";
const std::string kInstalled = "Service sucessfully installed.\n";
const std::string kUninstalled = "Service sucessfully uninstalled.\n";
const std::string kControlled = "Service successfully executed control command.\n";

class AgentE2eTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("VIGIL_SERVICE");
        setenv("LC_ALL", "C", 1);
        events_ = root_ / "events.log";
        setenv("VIGIL_EVENT_LOG", events_.c_str(), 1);
    }
    void TearDown() override {
        // A service left running by a failed test must not outlive it.
        RunAgent({"/UNINSTALL"});
        unsetenv("VIGIL_EVENT_LOG");
    }

    std::vector<std::string> events() const { return FileLines(events_); }
    std::string serviceLog() const { return root_ / "var/log/orvanta/OrvantaVigilWatch14.0.log"; }

    static std::unique_ptr<Connection> ConnectWithin(const std::u16string& pipe, int ms = 20000) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            try {
                return std::make_unique<Connection>(pipe);
            } catch (const Osb::Exception&) {
                if (Clock::now() >= deadline) return nullptr;
                std::this_thread::yield();
            }
        }
    }
    bool EventsWithin(size_t count, int ms = 20000) const {
        const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
        while (events().size() < count) {
            if (Clock::now() >= deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }
    static void ExpectDump(const Finished& run, uint32_t code) {
        EXPECT_EQ(run.status, static_cast<int>(code & 0xFF));
        EXPECT_TRUE(run.out.empty()) << run.out;
        EXPECT_EQ(run.err.rfind("Dump Exception Stack -- Unexpected Error. Depth of 1\n"
                                "    Operating System Error = " +
                                    std::to_string(code) + "\n    What: ",
                                0),
                  0u)
            << run.err;
    }

    fs::path productKey() const {
        return root_ /
               "etc/orvanta/registry/HKEY_LOCAL_MACHINE/Software/Orvanta/Mirelle Studio/14.0";
    }

    ScratchRoot root_;
    std::string events_;
};

// The first session of a user in the console: watch a folder, create a file, see its name. The
// run stops cleanly on SIGINT, and on SIGTERM the next run, which still has the watched folder
// from the cache in the data folder.
TEST_F(AgentE2eTest, ConsoleSessionSeesANewFileKeepsItsFolderAndStopsOnEachSignal) {
    const fs::path watched = root_ / "home/demo/Pictures";
    fs::create_directories(watched);
    const auto guid = *vigil_client::ParseGuid("F11EA6E7-0001-4000-8000-00000000C11E");
    for (int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        fs::remove(events_);
        RunningAgent agent({"/PORT", "session"});
        ASSERT_TRUE(agent.waitForOutput("Vigil State: RUNNING\n"));
        vigil_client::AgentConnection client(u"session");
        client.hello(guid, 1, 0);
        if (signal == SIGINT) {
            client.addFolders(vigil_client::FolderOptions{}, {watched.string() + "/"});
            std::ofstream(watched / "first-photo.jpg") << "x";
            std::vector<std::string> names;
            const auto deadline = Clock::now() + std::chrono::seconds(20);
            // The reply to AddFolders comes before the watch thread has set up the watch, so a
            // file made at once may pass unseen: its attributes are changed until the name comes.
            auto mode = fs::perms::owner_exec;
            while (names.empty() && Clock::now() < deadline) {
                fs::permissions(watched / "first-photo.jpg", mode,
                                fs::perm_options::replace | fs::perm_options::nofollow);
                mode = mode == fs::perms::owner_exec ? fs::perms::owner_all : fs::perms::owner_exec;
                for (const auto& folder : client.getChanges(true)) {
                    names.insert(names.end(), folder.names.begin(), folder.names.end());
                }
            }
            // A name may be pending more than once; it is the one name there is.
            EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
                      std::set<std::string>{"first-photo.jpg"});
        } else {
            EXPECT_EQ(client.getFolders(), std::vector<std::string>{watched.string() + "/"});
        }
        agent.signal(signal);
        const Finished end = agent.wait();
        EXPECT_EQ(end.status, 0);
        EXPECT_EQ(end.err, "");
        // The client traces come from the pipe's threads and fall between the service's lines.
        std::string own;
        bool connectTraced = false;
        std::istringstream lines(end.out);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("- Client ", 0) == 0) {
                connectTraced = connectTraced || line.rfind("- Client Connect : ", 0) == 0;
            } else {
                own += line + "\n";
            }
        }
        EXPECT_EQ(own,
                  "Vigil Startup ...\nVigil State: START PENDING\nVigil State: RUNNING\n"
                  "Vigil State: STOPPED\nVigil Shutdown ...\n");
        EXPECT_TRUE(connectTraced) << end.out;
        EXPECT_EQ(events(), (std::vector<std::string>{kStarted, kStopped}));
        EXPECT_TRUE(
            fs::exists(root_ / "var/lib/Orvanta/Mirelle Studio/File Agent/WatchFolder.3.cache"));
    }
}

TEST_F(AgentE2eTest, InstallStartPauseContinueStopRestartUninstall) {
    Finished run = RunAgent({"/INSTALL"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kInstalled);
    const std::string conf = root_ / "etc/orvanta/services/OrvantaVigilWatch14.0.conf";
    const std::vector<std::string> record = FileLines(conf);
    EXPECT_NE(std::find(record.begin(), record.end(), "BinaryPath=" + AgentPath()), record.end());
    EXPECT_NE(std::find(record.begin(), record.end(), "StartType=3"), record.end());
    EXPECT_NE(std::find(record.begin(), record.end(), "DisplayName=Orvanta Vigil Watch V14"),
              record.end());

    run = RunAgent({"/START"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);
    auto waiting = ConnectWithin(kDefaultPipe);
    ASSERT_NE(waiting, nullptr);
    const uint32_t id = waiting->hello(kGuid);

    run = RunAgent({"/PAUSE"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);
    waiting->send(Request(kConnectionNoop, id, 41, Le32({0})));
    waiting->send(Request(kConnectionCheck, id, 42, Bytes(28, 0)));
    EXPECT_TRUE(waiting->silentFor(300));
    // A new client is still accepted while the request above waits.
    Connection newcomer(kDefaultPipe);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    auto connects = [&] {
        size_t n = 0;
        for (const std::string& line : FileLines(serviceLog())) {
            n += line.rfind("- Client Connect : ", 0) == 0 ? 1 : 0;
        }
        return n;
    };
    while (connects() < 2 && Clock::now() < deadline) std::this_thread::yield();
    EXPECT_EQ(connects(), 2u);
    newcomer.send(Request(kHello, 0, 7, HelloBody(1, 0, kGuid)));
    EXPECT_TRUE(newcomer.silentFor(100));

    run = RunAgent({"/CONTINUE"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);
    EXPECT_EQ(waiting->receive().header.requestId, 41u);
    EXPECT_EQ(waiting->receive().header.requestId, 42u);
    const Reply welcome = newcomer.receive();
    EXPECT_EQ(welcome.header.code, kHelloReply);
    EXPECT_EQ(welcome.header.requestId, 7u);

    run = RunAgent({"/STOP"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);
    EXPECT_TRUE(waiting->closedWithin(10000));
    ExpectDump(RunAgent({"/PAUSE"}), 1062);
    run = RunAgent({"/STOP"});  // not running: counts as done
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);

    run = RunAgent({"/RESTART"});  // the failed stop is ignored and the service starts
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kControlled);
    ASSERT_NE(ConnectWithin(kDefaultPipe), nullptr);
    ExpectDump(RunAgent({"/START"}), 1056);
    ExpectDump(RunAgent({"/INSTALL"}), 1073);

    run = RunAgent({"/UNINSTALL"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, kUninstalled);
    EXPECT_FALSE(fs::exists(conf));
    EXPECT_TRUE(EventsWithin(6));
    // The service processes wrote nothing but client traces: no dump, no sanitizer report.
    for (const std::string& line : FileLines(serviceLog())) {
        EXPECT_EQ(line.rfind("- Client ", 0), 0u) << line;
    }
    EXPECT_EQ(events(), (std::vector<std::string>{kStarted, kPaused, kResumed, kStopped, kStarted,
                                                  kStopped}));
}

// Runs that end at once: a bad command line gives the usage text, a command on a service that is
// not installed the dump of 1060, a locale without a table a plain message in every role. None of
// them builds or installs anything.
TEST_F(AgentE2eTest, RunsThatCannotGoOnSayWhyAndLeaveNothingBehind) {
    const std::string usage = Vigil::usageText(1, 0, 201, Vigil::buildDate(), Vigil::buildTime());
    const std::string notBuilt =
        "MirelleStudioFileAgent: the service could not be set up: Invalid locale string in "
        "locale/LocaleUtil\n";
    const struct {
        std::vector<std::string> args;
        const char* locale;  // the registry's Locale, or none
        uint32_t dump;       // the code of the dump expected, or 0
        int status;
        std::string err;
    } cases[] = {
        {{"/START", "/STOP"}, nullptr, 0, 0, usage},
        {{"/INSTALL", "/UNINSTALL"}, nullptr, 0, 0, usage},
        {{"/ACCOUNT=bob"}, nullptr, 0, 0, usage},
        {{"/ACCOUNT"}, nullptr, 0, 0, usage},
        {{"//START"}, nullptr, 0, 0, usage},
        {{"/UNINSTALL"}, nullptr, 1060, 0, ""},
        {{"/START"}, nullptr, 1060, 0, ""},
        {{"/STOP"}, nullptr, 1060, 0, ""},
        {{"/PAUSE"}, nullptr, 1060, 0, ""},
        {{"/CONTINUE"}, nullptr, 1060, 0, ""},
        {{}, "xx_NOWHERE\n", 0, 255, notBuilt},
        {{"/INSTALL"}, "xx_NOWHERE\n", 0, 255, notBuilt},
        {{"/STOP"}, "xx_NOWHERE\n", 0, 255, notBuilt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? std::string("no arguments") : c.args[0]);
        fs::remove_all(productKey());
        if (c.locale) {
            fs::create_directories(productKey());
            std::ofstream(productKey() / "Locale") << c.locale;
        }
        const Finished run = RunAgent(c.args);
        if (c.dump != 0) {
            ExpectDump(run, c.dump);
            continue;
        }
        EXPECT_EQ(run.status, c.status);
        EXPECT_TRUE(run.out.empty()) << run.out;
        // The executable and this test link the same object for the usage text, with its stamps.
        EXPECT_EQ(run.err, c.err);
        if (c.status == 0) {  // the usage rows come first: nothing was built by them
            EXPECT_FALSE(fs::exists(root_ / "etc/orvanta/services"));
        }
    }
    EXPECT_FALSE(fs::exists(root_ / "etc/orvanta/services/OrvantaVigilWatch14.0.conf"));
    EXPECT_TRUE(events().empty());
}

// What /INSTALL records: the modifiers of its command line, the texts of the registry's Locale
// (the dictionary beside the executable; English without a key, for en_US, or for a locale with
// no dictionary), and the path of the executable, cut to 2047 units. A copy alone in a folder of
// its own runs: the project's libraries are linked in. No password is ever written.
TEST_F(AgentE2eTest, InstallRecordsItsModifiersTextsAndPath) {
    std::string longFolder = root_ / "long";
    while (longFolder.size() < 2100) longFolder += "/" + std::string(200, 'd');
    fs::create_directories(longFolder);
    const std::string copy = longFolder + "/MirelleStudioFileAgent";
    fs::copy_file(AgentPath(), copy);
    const std::string english = "DisplayName=Orvanta Vigil Watch V14";
    const std::string tracks = "Description=Tracks files that are managed by Mirelle Catalog";
    const struct {
        std::vector<std::string> args;
        const char* locale;  // null: no key at all
        std::string program;
        std::vector<std::string> lines;
    } cases[] = {
        {{"/INSTALL"},
         nullptr,
         AgentPath(),
         {"StartType=3", "ErrorControl=0", "Account=", "Dependencies=", english, tracks,
          "BinaryPath=" + AgentPath()}},
        {{"/INSTALL", "/AUTOSTART", "/ACCOUNT", "bob", "/DOMAIN", "dom", "/PASSWORD", "pw"},
         nullptr,
         AgentPath(),
         {"StartType=2", "ErrorControl=1", "Account=dom\\\\bob"}},
        {{"/DOMAIN", "dom", "/INSTALL"}, nullptr, AgentPath(), {"Account="}},
        {{"/INSTALL", "/DEPENDENCIES", "Tcpip  Afd"},
         nullptr,
         AgentPath(),
         {"Dependencies=Tcpip/Afd"}},
        {{"/PORT", "other", "/INSTALL"}, nullptr, AgentPath(), {"BinaryPath=" + AgentPath()}},
        {{"/INSTALL"}, "en_US", AgentPath(), {english, tracks}},
        {{"/INSTALL"}, "pt_BR", AgentPath(), {english, tracks}},
        {{"/INSTALL"},
         "de_DE",
         AgentPath(),
         {"DisplayName=Orvanta Vigil Dateiüberwachung V14",
          "Description=Überwacht Dateien, die von Mirelle Catalog verwaltet werden"}},
        {{"/INSTALL"}, nullptr, copy, {"BinaryPath=" + copy.substr(0, 2047)}},
    };
    const std::string conf = root_ / "etc/orvanta/services/OrvantaVigilWatch14.0.conf";
    const std::string eventSource =
        root_ /
        "etc/orvanta/registry/HKEY_LOCAL_MACHINE/SYSTEM/CurrentControlSet/Services/EventLog/"
        "Application/Orvanta Vigil Watch 14.0/EventMessageFile";
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args) + (c.locale ? c.locale : ""));
        fs::remove_all(productKey());
        if (c.locale) {
            fs::create_directories(productKey());
            std::ofstream(productKey() / "Locale", std::ios::binary) << c.locale;
        }
        const Finished install = RunAgent(c.args, 20000, c.program);
        EXPECT_EQ(install.status, 0) << install.err;
        EXPECT_EQ(install.out, kInstalled);
        const std::vector<std::string> record = FileLines(conf);
        for (const std::string& line : c.lines) {
            EXPECT_NE(std::find(record.begin(), record.end(), line), record.end()) << line;
        }
        for (const std::string& line : record) EXPECT_EQ(line.find("pw"), std::string::npos);
        EXPECT_EQ(FileLines(eventSource), std::vector<std::string>{c.program.substr(0, 2047)});
        EXPECT_EQ(RunAgent({"/UNINSTALL"}).status, 0);
        EXPECT_FALSE(fs::exists(conf));
        EXPECT_FALSE(fs::exists(eventSource));
    }
}

// Without the common data folder the start fails with 161: in the console with a dump, as a
// service with the events of a failed start, after which the service is down again.
TEST_F(AgentE2eTest, MissingCommonDataFolderFailsTheStartWith161) {
    fs::remove_all(root_ / "var/lib");
    const Finished run = RunAgent({"/PORT", "no data"});
    EXPECT_EQ(run.out, "Vigil Startup ...\n");
    EXPECT_EQ(run.status, 161);
    EXPECT_NE(run.err.find("    Operating System Error = 161\n"), std::string::npos) << run.err;
    const std::vector<std::string> failed = {
        "0xE0000A0E Orvanta Vigil Watch Service has terminated because of a system error.",
        "0x000000A1"};
    EXPECT_EQ(events(), failed);

    fs::remove(events_);
    ASSERT_EQ(RunAgent({"/INSTALL"}).status, 0);
    RunAgent({"/START"});
    ASSERT_TRUE(EventsWithin(2));
    EXPECT_EQ(events(), failed);
    EXPECT_EQ(RunAgent({"/STOP"}).status, 0);  // not running: counts as done
}

}  // namespace
}  // namespace vigil_test
