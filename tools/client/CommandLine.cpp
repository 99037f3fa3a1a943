#include "tools/client/CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace vigil_client {

const char kToolVersion[] = "fileagent-client " VIGIL_TOOL_VERSION;

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

Options (each also as --option=value):
  --pipe NAME                pipe name (default "\\.\pipe\Orvanta Vigil Watch 14.0")
  --guid GUID                client GUID, in the service's GUID text
                             (default F11EA6E7-0001-4000-8000-00000000C11E)
  --protocol MAJOR.MINOR     protocol version stated in Hello (default 1.0; 0.x selects the
                             short AddFolders layout)
  --timeout SECONDS          how long to wait for each reply (default 30; 0 waits for ever)
  --json                     print each reply as one JSON object
  --version                  print the tool's version
  --help                     this text

Exit status: 0 success, 1 the service answered with an Error, 2 no service or a broken
connection, 3 no reply within the time-out, 64 a bad command line, or a request longer than the
service takes (16383 bytes in all: add or remove fewer folders at a time).

Examples:
  fileagent-client add --subtree ~/Pictures
  fileagent-client poll --interval 500 --ack
  fileagent-client --json changes --clear
)";

namespace {

constexpr char kDefaultPipe[] = "\\\\.\\pipe\\Orvanta Vigil Watch 14.0";
constexpr char kDefaultGuid[] = "F11EA6E7-0001-4000-8000-00000000C11E";

// The options that only some commands take, as bits.
enum Only : unsigned {
    kSubtree = 1,
    kAddOptions = 2,  // --no-changed, --removed
    kCollect = 4,     // --clear, --ack
    kPolling = 8,     // --interval, --count
};

struct CommandRule {
    std::string_view name;
    size_t minArguments;
    size_t maxArguments;
    unsigned options;
};

constexpr size_t kAny = static_cast<size_t>(-1);
constexpr CommandRule kCommands[] = {
    {"hello", 0, 0, 0},
    {"check", 0, 0, 0},
    {"noop", 0, 0, 0},
    {"folders", 0, 0, 0},
    {"add", 1, kAny, kSubtree | kAddOptions},
    {"remove", 1, kAny, kSubtree},
    {"changes", 0, 0, kCollect},
    {"poll", 0, 0, kCollect | kPolling},
    {"raw", 1, 2, 0},
};

[[noreturn]] void Refuse(const std::string& why) { throw UsageError(why); }

long Number(const std::string& text, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || value < 0 || errno == ERANGE) {
        Refuse("bad " + what + ": '" + text + "'");
    }
    return value;
}

int TimeoutMs(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds < 0 ||
        seconds > 86400) {
        Refuse("bad time-out: '" + text + "' (seconds, 0 to 86400; 0 waits for ever)");
    }
    if (seconds == 0) return -1;
    return std::max(1, static_cast<int>(std::lround(seconds * 1000)));
}

Bytes Hex(const std::string& text) {
    if (text.size() % 2 != 0) Refuse("the hex body needs an even number of digits");
    Bytes out;
    for (size_t i = 0; i < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            Refuse("bad hex body: '" + pair + "' at digit " + std::to_string(i + 1));
        }
        out.push_back(static_cast<uint8_t>(std::strtoul(pair.c_str(), nullptr, 16)));
    }
    return out;
}

const CommandRule& RuleOf(const std::string& command) {
    for (const CommandRule& rule : kCommands) {
        if (rule.name == command) return rule;
    }
    Refuse("unknown command '" + command + "'");
}

// The options given and the rule they need, for the check once the command is known.
struct Given {
    std::string option;
    unsigned needs;
};

void Check(Options& o, const std::vector<Given>& given) {
    if (o.command.empty()) Refuse("no command given");
    const CommandRule& rule = RuleOf(o.command);
    for (const Given& g : given) {
        if ((rule.options & g.needs) == 0) Refuse(g.option + " does not apply to " + o.command);
    }
    const size_t n = o.arguments.size();
    if (n < rule.minArguments) {
        Refuse(o.command == "raw" ? "raw wants CODE [HEXBODY]"
                                  : o.command + " wants one or more folders");
    }
    if (n > rule.maxArguments) {
        Refuse(rule.maxArguments == 0 ? o.command + " takes no arguments ('" + o.arguments[0] +
                                            "' given)"
                                      : "raw wants CODE [HEXBODY]");
    }
    if (o.clear && o.ack) Refuse("--clear and --ack exclude each other");
    if (o.command == "raw") {
        const long code = Number(o.arguments[0], "code");
        if (code > 0xFFFFFFFFL) Refuse("bad code: '" + o.arguments[0] + "'");
        o.rawCode = static_cast<uint32_t>(code);
        if (n > 1) o.rawBody = Hex(o.arguments[1]);
    }
}

}  // namespace

Options ParseCommandLine(const std::vector<std::string>& args) {
    Options o;
    o.pipe = kDefaultPipe;
    o.guid = *ParseGuid(kDefaultGuid);
    std::vector<Given> given;
    bool optionsEnded = false;  // after "--", a folder may start with '-'
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (!optionsEnded && arg == "--") {
            optionsEnded = true;
            continue;
        }
        if (optionsEnded || arg.size() < 2 || arg[0] != '-' || (arg[1] != '-' && arg != "-h")) {
            (o.command.empty() ? o.command : o.arguments.emplace_back()) = arg;
            continue;
        }
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        const bool hasValue = equals != std::string::npos;
        auto value = [&]() -> std::string {
            if (hasValue) return arg.substr(equals + 1);
            if (i + 1 >= args.size()) Refuse(name + " needs a value");
            return args[++i];
        };
        auto flag = [&](bool& field, unsigned needs) {
            if (hasValue) Refuse(name + " takes no value");
            field = true;
            if (needs != 0) given.push_back({name, needs});
        };
        if (name == "--help" || name == "-h") {
            o.action = Options::Action::kHelp;
            return o;
        } else if (name == "--version") {
            if (hasValue) Refuse("--version takes no value; the protocol version is --protocol");
            o.action = Options::Action::kVersion;
            return o;
        } else if (name == "--pipe") {
            o.pipe = value();
            if (o.pipe.empty()) Refuse("the pipe name is empty");
        } else if (name == "--guid") {
            const std::string text = value();
            const auto guid = ParseGuid(text);
            if (!guid) Refuse("bad GUID: '" + text + "'");
            o.guid = *guid;
        } else if (name == "--protocol") {
            const std::string text = value();
            const size_t dot = text.find('.');
            if (dot == std::string::npos) Refuse("bad protocol version: '" + text + "'");
            const long major = Number(text.substr(0, dot), "protocol version");
            const long minor = Number(text.substr(dot + 1), "protocol version");
            if (major > 0xFFFFFFFFL || minor > 0xFFFFFFFFL) {
                Refuse("bad protocol version: '" + text + "'");
            }
            o.major = static_cast<uint32_t>(major);
            o.minor = static_cast<uint32_t>(minor);
        } else if (name == "--timeout") {
            o.timeoutMs = TimeoutMs(value());
        } else if (name == "--json") {
            flag(o.json, 0);
        } else if (name == "--subtree") {
            flag(o.subtree, kSubtree);
        } else if (name == "--no-changed") {
            flag(o.noChanged, kAddOptions);
        } else if (name == "--removed") {
            flag(o.removed, kAddOptions);
        } else if (name == "--clear") {
            flag(o.clear, kCollect);
        } else if (name == "--ack") {
            flag(o.ack, kCollect);
        } else if (name == "--interval") {
            const long ms = Number(value(), "interval");
            if (ms > 86400000L) Refuse("bad interval: at most 86400000 ms");
            o.interval = static_cast<int>(ms);
            given.push_back({name, kPolling});
        } else if (name == "--count") {
            o.count = Number(value(), "count");
            given.push_back({name, kPolling});
        } else {
            Refuse("unknown option " + name);
        }
    }
    Check(o, given);
    return o;
}

}  // namespace vigil_client
