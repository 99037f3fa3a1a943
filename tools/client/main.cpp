// fileagent-client: talks to MirelleStudioFileAgent over its pipe. See Usage below.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "service/VigilProtocol.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/Printer.h"

namespace {

using namespace vigil_client;

constexpr int kExitRefused = 1;
constexpr int kExitNoService = 2;
constexpr int kExitUsage = 64;
constexpr char kDefaultPipe[] = "\\\\.\\pipe\\Orvanta Vigil Watch 14.0";
constexpr char kDefaultGuid[] = "F11EA6E7-0001-4000-8000-00000000C11E";

const char kUsage[] = R"(Usage: fileagent-client [options] COMMAND [arguments]

Talks to MirelleStudioFileAgent over its pipe. Each call connects, says Hello with its GUID,
and runs one command. The pipe lives below $VIGIL_SYSTEM_ROOT (or /).

Commands:
  hello                      say Hello and show the client id and the versions
  check                      ConnectionCheck
  noop                       ConnectionNoop
  folders                    list the GUID's watched folders
  add PATH...                watch folders (relative paths are made absolute)
      [--subtree]              the whole tree below each folder
      [--no-changed]           do not report names that appear or change
      [--removed]              report names that disappear
  remove PATH... [--subtree] stop watching folders
  changes                    show the pending changes
      [--clear]                and take them off the pending lists at once
      [--ack]                  then confirm them (RemoveChanges with the reply's body)
  poll [--interval MS] [--count N] [--clear|--ack]
                             fetch and show changes as they come, until Ctrl+C or N polls
  raw CODE [HEXBODY]         send any message code (e.g. 0x00000103) with a body in hex

Options:
  --pipe NAME                pipe name (default "\\.\pipe\Orvanta Vigil Watch 14.0")
  --guid GUID                client GUID, in the service's GUID text
                             (default F11EA6E7-0001-4000-8000-00000000C11E)
  --version MAJOR.MINOR      protocol version stated in Hello (default 1.0; 0.x selects the
                             short AddFolders layout)
  --json                     print each reply as one JSON object
  --help                     this text

Exit status: 0 success, 1 the service answered with an Error, 2 no service or a broken pipe,
64 a bad command line, or a request longer than the service takes (16383 bytes in all: add or
remove fewer folders at a time).

Examples:
  fileagent-client add --subtree ~/Pictures
  fileagent-client poll --interval 500 --ack
  fileagent-client --json changes --clear
)";

std::atomic<bool> interrupted{false};
extern "C" void OnInterrupt(int) { interrupted = true; }

struct Options {
    std::string pipe = kDefaultPipe;
    Guid guid = *ParseGuid(kDefaultGuid);
    uint32_t major = 1, minor = 0;
    bool json = false;
    bool subtree = false, noChanged = false, removed = false, clear = false, ack = false;
    int interval = 1000;
    long count = -1;
    std::string command;
    std::vector<std::string> arguments;
};

[[noreturn]] void UsageError(const std::string& why) {
    std::fprintf(stderr, "fileagent-client: %s\nTry 'fileagent-client --help'.\n", why.c_str());
    std::exit(kExitUsage);
}

long Number(const std::string& text, const char* what) {
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || value < 0)
        UsageError(std::string("bad ") + what + ": " + text);
    return value;
}

Options Parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) UsageError(a + " needs a value");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--pipe") {
            o.pipe = value();
        } else if (a == "--guid") {
            std::string text = value();
            auto guid = ParseGuid(text);
            if (!guid) UsageError("bad GUID: " + text);
            o.guid = *guid;
        } else if (a == "--version") {
            std::string text = value();
            auto dot = text.find('.');
            if (dot == std::string::npos) UsageError("bad version: " + text);
            o.major = static_cast<uint32_t>(Number(text.substr(0, dot), "version"));
            o.minor = static_cast<uint32_t>(Number(text.substr(dot + 1), "version"));
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--subtree") {
            o.subtree = true;
        } else if (a == "--no-changed") {
            o.noChanged = true;
        } else if (a == "--removed") {
            o.removed = true;
        } else if (a == "--clear") {
            o.clear = true;
        } else if (a == "--ack") {
            o.ack = true;
        } else if (a == "--interval") {
            o.interval = static_cast<int>(Number(value(), "interval"));
        } else if (a == "--count") {
            o.count = Number(value(), "count");
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            UsageError("unknown option " + a);
        } else if (o.command.empty()) {
            o.command = a;
        } else {
            o.arguments.push_back(a);
        }
    }
    if (o.command.empty()) UsageError("no command given");
    if (o.clear && o.ack) UsageError("--clear and --ack exclude each other");
    return o;
}

// A folder path as the service wants it: absolute, ending with the separator.
std::string FolderPath(const std::string& given) {
    std::string path = std::filesystem::absolute(given).lexically_normal().string();
    if (path.empty() || path.back() != '/') path.push_back('/');
    return path;
}

Bytes ParseHex(const std::string& text) {
    if (text.size() % 2 != 0) UsageError("the hex body needs an even number of digits");
    Bytes out;
    for (size_t i = 0; i < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(Number("0x" + text.substr(i, 2), "hex body")));
    }
    return out;
}

void ShowChanges(AgentConnection& agent, const Printer& printer, const Options& o,
                 bool quietIfNone) {
    Bytes body;
    auto changes = agent.getChanges(o.clear, &body);
    if (o.ack && !changes.empty()) agent.removeChanges(body);
    if (!(quietIfNone && changes.empty())) printer.changes(changes, o.clear || o.ack);
    if (!o.json && changes.empty() && !quietIfNone) std::printf("no changes\n");
}

int Run(const Options& o) {
    Printer printer(o.json);
    AgentConnection agent(Osb::Utf8ToUtf16(o.pipe));
    if (o.command == "raw") {
        if (o.arguments.empty() || o.arguments.size() > 2) UsageError("raw wants CODE [HEXBODY]");
        agent.hello(o.guid, o.major, o.minor);
        uint32_t code = static_cast<uint32_t>(Number(o.arguments[0], "code"));
        Reply reply =
            agent.request(code, o.arguments.size() > 1 ? ParseHex(o.arguments[1]) : Bytes{});
        printer.raw(reply.code, reply.requestId, reply.clientId, reply.body);
        return reply.code == Vigil::Protocol::kError ? kExitRefused : 0;
    }
    HelloReply hello = agent.hello(o.guid, o.major, o.minor);
    const std::string& c = o.command;
    if (c == "hello") {
        printer.hello(hello, o.guid);
    } else if (c == "check") {
        agent.connectionCheck();
        printer.status("ConnectionCheck");
    } else if (c == "noop") {
        agent.connectionNoop();
        printer.status("ConnectionNoop");
    } else if (c == "folders") {
        printer.folders(agent.getFolders());
    } else if (c == "add" || c == "remove") {
        if (o.arguments.empty()) UsageError(c + " wants one or more folders");
        std::vector<std::string> paths;
        for (const std::string& a : o.arguments) paths.push_back(FolderPath(a));
        if (c == "add") {
            agent.addFolders({o.subtree, !o.noChanged, o.removed}, paths);
            printer.status("AddFolders");
        } else {
            agent.removeFolders(o.subtree, paths);
            printer.status("RemoveFolders");
        }
    } else if (c == "changes") {
        ShowChanges(agent, printer, o, false);
    } else if (c == "poll") {
        std::signal(SIGINT, OnInterrupt);
        for (long n = 0; !interrupted && (o.count < 0 || n < o.count); ++n) {
            if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.interval));
            ShowChanges(agent, printer, o, true);
        }
    } else {
        UsageError("unknown command " + c);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options = Parse(argc, argv);
    try {
        return Run(options);
    } catch (const RequestRefused& refused) {
        Printer(options.json).error(refused.reply());
        return kExitRefused;
    } catch (const Osb::ExSystem& e) {
        if (e.status() == Osb::Err::kFileNotFound) {
            std::fprintf(stderr, "fileagent-client: no service listens on pipe \"%s\" (below %s)\n",
                         options.pipe.c_str(),
                         std::getenv("VIGIL_SYSTEM_ROOT") ? std::getenv("VIGIL_SYSTEM_ROOT") : "/");
        } else {
            std::fprintf(stderr, "fileagent-client: %s\n", Osb::Utf16ToUtf8(e.what()).c_str());
        }
        return kExitNoService;
    } catch (const DecodeError& e) {
        std::fprintf(stderr, "fileagent-client: malformed reply: %s\n", e.what());
        return kExitNoService;
    } catch (const std::length_error& e) {
        std::fprintf(stderr, "fileagent-client: %s\n", e.what());
        return kExitUsage;
    }
}
