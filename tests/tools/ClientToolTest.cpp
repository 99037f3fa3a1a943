// The client tool's command line, and the tool itself run as a process: against a real pipe server
// of the service, against a server that never answers, and against none.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/SystemRoot.h"
#include "platform/Utf.h"
#include "tests/e2e/ServerFixture.h"
#include "tools/client/CommandLine.h"

namespace {

using vigil_client::Options;
using vigil_client::ParseCommandLine;

std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    for (char c : line + " ") {
        if (c != ' ') {
            word += c;
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words;
}

TEST(ClientCommandLineTest, AcceptedFormsMeanTheSame) {
    struct Case {
        const char* line;
        std::string pipe;
        int timeoutMs;
        uint32_t major;
        std::vector<std::string> arguments;
    };
    const std::string defaultPipe = "\\\\.\\pipe\\Orvanta Vigil Watch 14.0";
    const Case cases[] = {
        {"add --subtree /a /b", defaultPipe, 30000, 1, {"/a", "/b"}},
        {"--pipe=p add /a --timeout 2.5", "p", 2500, 1, {"/a"}},
        {"--pipe p --timeout=0 add /a", "p", -1, 1, {"/a"}},
        {"--protocol=0.9 add -- --odd -x", defaultPipe, 30000, 0, {"--odd", "-x"}},
        {"add /a --protocol 2.0 --timeout 0.0001", defaultPipe, 1, 2, {"/a"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Options o = ParseCommandLine(Words(c.line));
        EXPECT_EQ(o.command, "add");
        EXPECT_EQ(o.pipe, c.pipe);
        EXPECT_EQ(o.timeoutMs, c.timeoutMs);
        EXPECT_EQ(o.major, c.major);
        EXPECT_EQ(o.arguments, c.arguments);
    }
    const Options raw = ParseCommandLine(Words("raw 0x00000103 00ff10"));
    EXPECT_EQ(raw.rawCode, 0x103u);
    EXPECT_EQ(raw.rawBody, (vigil_client::Bytes{0x00, 0xFF, 0x10}));
    EXPECT_EQ(ParseCommandLine(Words("bogus --version")).action, Options::Action::kVersion);
    EXPECT_EQ(ParseCommandLine(Words("-h")).action, Options::Action::kHelp);
}

TEST(ClientCommandLineTest, RefusalsSayWhatIsWrong) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "no command given"},
        {"bogus", "unknown command 'bogus'"},
        {"add", "add wants one or more folders"},
        {"folders /a", "folders takes no arguments ('/a' given)"},
        {"changes --subtree", "--subtree does not apply to changes"},
        {"add /a --clear", "--clear does not apply to add"},
        {"changes --interval 5", "--interval does not apply to changes"},
        {"poll --clear --ack", "--clear and --ack exclude each other"},
        {"hello --timeout -1", "bad time-out: '-1'"},
        {"hello --timeout", "--timeout needs a value"},
        {"hello --json=yes", "--json takes no value"},
        {"hello --version=1.0", "the protocol version is --protocol"},
        {"hello --protocol 1", "bad protocol version: '1'"},
        {"hello --guid xyz", "bad GUID: 'xyz'"},
        {"hello --frobnicate", "unknown option --frobnicate"},
        {"raw", "raw wants CODE [HEXBODY]"},
        {"raw 0x103 001", "the hex body needs an even number of digits"},
        {"raw 0x103 0g", "bad hex body: '0g'"},
        {"raw 0x100000000", "bad code"},
    };
    for (const auto& [line, reason] : cases) {
        SCOPED_TRACE(line);
        try {
            ParseCommandLine(Words(line));
            ADD_FAILURE() << "accepted";
        } catch (const vigil_client::UsageError& e) {
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
    }
}

struct ToolRun {
    int status = -1;
    std::string output;  // standard output and error together
    double seconds = 0;
};

// Runs the tool with `args` (each passed as one word, quoted for the shell).
ToolRun Tool(const std::vector<std::string>& args) {
    std::string command = "'" VIGIL_CLIENT_PATH "'";
    for (const std::string& arg : args) {
        std::string quoted = "'";
        for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += " " + quoted + "'";
    }
    command += " 2>&1";
    const auto start = std::chrono::steady_clock::now();
    ToolRun run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char buffer[4096];
    while (size_t got = std::fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, got);
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return run;
}

class ClientToolTest : public vigil_test::ServerFixture {
  protected:
    std::string pipe() const { return Osb::Utf16ToUtf8(pipeName_); }
};

TEST_F(ClientToolTest, OptionsWithEqualsReachTheServiceAndARefusalNamesThePath) {
    const std::string folder = root_->path() + "/photos/";
    std::filesystem::create_directories(folder);
    ToolRun added = Tool({"--pipe=" + pipe(), "--timeout=10", "add", folder});
    EXPECT_EQ(added.status, 0) << added.output;
    ToolRun listed = Tool({"folders", "--pipe", pipe()});
    EXPECT_EQ(listed.status, 0) << listed.output;
    EXPECT_NE(listed.output.find(folder), std::string::npos) << listed.output;

    const std::string missing = root_->path() + "/no-such-folder/";
    ToolRun refused = Tool({"--pipe", pipe(), "add", missing});
    EXPECT_EQ(refused.status, 1) << refused.output;
    EXPECT_NE(refused.output.find("AddFolders " + missing + " refused"), std::string::npos)
        << refused.output;
}

TEST_F(ClientToolTest, ABadCommandLineNeedsNoServiceAndASilentOneTimesOut) {
    // A socket that takes connections (into its backlog) and never answers, like a paused service.
    const std::string name = "silent-" + std::to_string(::getpid());
    std::string path;
    ASSERT_EQ(Osb::PipeSocketPath(Osb::Utf8ToUtf16(name), path), 0u);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 8), 0);

    ToolRun silent = Tool({"--pipe", name, "--timeout", "0.3", "hello"});
    EXPECT_EQ(silent.status, 3) << silent.output;
    EXPECT_NE(silent.output.find("no reply to Hello within 0.3 s"), std::string::npos)
        << silent.output;
    EXPECT_NE(silent.output.find("(socket " + path + ")"), std::string::npos) << silent.output;
    EXPECT_LT(silent.seconds, 5.0);

    // Checked before connecting: the same silent socket is never reached.
    ToolRun bad = Tool({"--pipe", name, "hello", "extra"});
    EXPECT_EQ(bad.status, 64) << bad.output;
    EXPECT_NE(bad.output.find("hello takes no arguments"), std::string::npos) << bad.output;
    ::close(listener);

    ToolRun none = Tool({"--pipe", name + "-none", "check"});
    EXPECT_EQ(none.status, 2) << none.output;
    EXPECT_NE(none.output.find("no service listens on pipe \"" + name + "-none\""),
              std::string::npos)
        << none.output;
}

}  // namespace
