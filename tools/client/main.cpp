// fileagent-client: talks to MirelleStudioFileAgent over its pipe. See Usage below.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "platform/SystemRoot.h"
#include "service/VigilProtocol.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/CommandLine.h"
#include "tools/client/Printer.h"

namespace {

using namespace vigil_client;

constexpr int kExitRefused = 1;
constexpr int kExitNoService = 2;
constexpr int kExitTimedOut = 3;
constexpr int kExitUsage = 64;

std::atomic<bool> interrupted{false};
extern "C" void OnInterrupt(int) { interrupted = true; }

// A folder path as the service wants it: absolute, ending with the separator.
std::string FolderPath(const std::string& given) {
    std::string path = std::filesystem::absolute(given).lexically_normal().string();
    if (path.empty() || path.back() != '/') path.push_back('/');
    return path;
}

void ShowChanges(AgentConnection& agent, const Printer& printer, const Options& o,
                 bool quietIfNone) {
    Bytes body;
    auto changes = agent.getChanges(o.clear, &body);
    if (o.ack && !changes.empty()) agent.removeChanges(body);
    if (!(quietIfNone && changes.empty())) printer.changes(changes, o.clear || o.ack);
    if (!o.json && changes.empty() && !quietIfNone) std::printf("no changes\n");
}

// What the tool was doing when something failed, for the message: the request and the folders.
struct Doing {
    std::string request = "Hello";
    std::vector<std::string> paths;
    std::string text() const {
        std::string t = request;
        for (const std::string& path : paths) t += " " + path;
        return t;
    }
};

int Run(const Options& o, Doing& doing) {
    Printer printer(o.json);
    AgentConnection agent(Osb::Utf8ToUtf16(o.pipe));
    agent.setReplyTimeout(o.timeoutMs);
    const HelloReply hello = agent.hello(o.guid, o.major, o.minor);
    const std::string& c = o.command;
    if (c == "raw") {
        doing.request = "the request with code " + o.arguments[0];
        Reply reply = agent.request(o.rawCode, o.rawBody);
        printer.raw(reply.code, reply.requestId, reply.clientId, reply.body);
        return reply.code == Vigil::Protocol::kError ? kExitRefused : 0;
    }
    if (c == "hello") {
        printer.hello(hello, o.guid);
    } else if (c == "check") {
        doing.request = "ConnectionCheck";
        agent.connectionCheck();
        printer.status("ConnectionCheck");
    } else if (c == "noop") {
        doing.request = "ConnectionNoop";
        agent.connectionNoop();
        printer.status("ConnectionNoop");
    } else if (c == "folders") {
        doing.request = "GetFolders";
        printer.folders(agent.getFolders());
    } else if (c == "add" || c == "remove") {
        for (const std::string& a : o.arguments) doing.paths.push_back(FolderPath(a));
        if (c == "add") {
            doing.request = "AddFolders";
            agent.addFolders({o.subtree, !o.noChanged, o.removed}, doing.paths);
            printer.status("AddFolders");
        } else {
            doing.request = "RemoveFolders";
            agent.removeFolders(o.subtree, doing.paths);
            printer.status("RemoveFolders");
        }
    } else if (c == "changes" || c == "poll") {
        doing.request = o.ack ? "GetChanges or RemoveChanges" : "GetChanges";
        if (c == "changes") {
            ShowChanges(agent, printer, o, false);
        } else {
            std::signal(SIGINT, OnInterrupt);
            for (long n = 0; !interrupted && (o.count < 0 || n < o.count); ++n) {
                if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.interval));
                ShowChanges(agent, printer, o, true);
            }
        }
    }
    return 0;
}

// "pipe "NAME" (socket PATH)": where the tool looked for the service.
std::string Where(const Options& o) {
    std::string socket;
    if (Osb::PipeSocketPath(Osb::Utf8ToUtf16(o.pipe), socket) != 0) socket = "none: a bad name";
    return "pipe \"" + o.pipe + "\" (socket " + socket + ")";
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& e) {
        std::fprintf(stderr, "fileagent-client: %s\nTry 'fileagent-client --help'.\n", e.what());
        return kExitUsage;
    }
    if (options.action == Options::Action::kHelp) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (options.action == Options::Action::kVersion) {
        std::printf("%s\n", kToolVersion);
        return 0;
    }
    Doing doing;
    try {
        return Run(options, doing);
    } catch (const RequestRefused& refused) {
        if (!options.json) std::fprintf(stderr, "fileagent-client: %s refused\n", doing.text().c_str());
        Printer(options.json).error(refused.reply());
        return kExitRefused;
    } catch (const Osb::ExSystem& e) {
        if (e.status() == Osb::Err::kFileNotFound) {
            std::fprintf(stderr, "fileagent-client: no service listens on %s\n",
                         Where(options).c_str());
        } else if (e.status() == Osb::Err::kTimeout) {
            std::fprintf(stderr, "fileagent-client: no reply to %s within %g s on %s\n",
                         doing.text().c_str(), options.timeoutMs / 1000.0, Where(options).c_str());
            return kExitTimedOut;
        } else {
            std::fprintf(stderr, "fileagent-client: %s failed on %s: %s\n", doing.text().c_str(),
                         Where(options).c_str(), Osb::Utf16ToUtf8(e.what()).c_str());
        }
        return kExitNoService;
    } catch (const DecodeError& e) {
        std::fprintf(stderr, "fileagent-client: malformed reply to %s: %s\n", doing.text().c_str(),
                     e.what());
        return kExitNoService;
    } catch (const std::length_error& e) {
        std::fprintf(stderr, "fileagent-client: %s: %s\n", doing.text().c_str(), e.what());
        return kExitUsage;
    }
}
