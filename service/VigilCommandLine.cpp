#include "service/VigilCommandLine.h"

#include <bit>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Vigil {

const std::u16string kDefaultPipeName = u"\\\\.\\pipe\\Orvanta Vigil Watch 14.0";

namespace {

// Raised inside the scan where the usage text is due; the two public entry points turn it into
// the exit or into a false result. It never leaves this file.
struct UsageRequested {};

struct OptionName {
    const char* name;  // without the prefix, compared ignoring case
    bool takesValue;
    uint32_t command;  // the bit of CommandLine::commands, 0 for a modifier
    std::u16string CommandLine::*field;
    bool setsAutoStart;
};

const OptionName kOptions[] = {
    {"ACCOUNT", true, 0, &CommandLine::account, false},
    {"AUTOSTART", false, 0, nullptr, true},
    {"CONTINUE", false, Command::kContinue, nullptr, false},
    {"DEPENDENCIES", true, 0, &CommandLine::dependencies, false},
    {"DOMAIN", true, 0, &CommandLine::domain, false},
    {"INSTALL", false, Command::kInstall, nullptr, false},
    {"PASSWORD", true, 0, &CommandLine::password, false},
    {"PAUSE", false, Command::kPause, nullptr, false},
    {"PORT", true, 0, &CommandLine::port, false},
    {"RESTART", false, Command::kRestart, nullptr, false},
    {"START", false, Command::kStart, nullptr, false},
    {"STOP", false, Command::kStop, nullptr, false},
    {"UNINSTALL", false, Command::kUninstall, nullptr, false},
};

// _stricmp's test for equality: the whole of both texts, ASCII letters folded.
bool equalsIgnoringCase(const char* a, const char* b) {
    for (;; ++a, ++b) {
        const int x = std::toupper(static_cast<unsigned char>(*a));
        if (x != std::toupper(static_cast<unsigned char>(*b))) return false;
        if (x == 0) return true;
    }
}

std::u16string scanOptionValue(const char*& cursor, const char* const*& argvCursor) {
    std::u16string value;
    if (cursor != nullptr && *cursor == '=') {
        ++cursor;
        if (*cursor == '\0') cursor = *++argvCursor;
    }
    if (cursor == nullptr || *cursor == '\0') throw UsageRequested{};
    // isalnum and isspace in the C locale: the process has not called setlocale yet. The NUL at
    // the end fails both, so the value never runs past its argument.
    for (;;) {
        const auto c = static_cast<unsigned char>(*cursor);
        if (!std::isalnum(c) && !std::isspace(c)) break;
        value.push_back(static_cast<char16_t>(c));
        ++cursor;
    }
    return value;
}

void scan(CommandLine& commandLine, int argc, const char* const* argv) {
    if (argc == 1) return;
    const char* cursor = nullptr;
    const char* const* argvCursor = argv;
    while (*argvCursor != nullptr) {
        // One step only: an empty argument behind an option is skipped, but a second empty one
        // right behind it becomes the current text and fails the prefix test below.
        if (cursor == nullptr || *cursor == '\0') {
            cursor = *++argvCursor;
            if (cursor == nullptr) break;
        }
        if (*cursor != '-' && *cursor != '/') throw UsageRequested{};
        ++cursor;
        if (std::strchr("ACDIPRSUacdiprsu", *cursor) == nullptr || *cursor == '\0') {
            throw UsageRequested{};
        }
        const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(*cursor)));
        const OptionName* match = nullptr;
        for (const OptionName& option : kOptions) {
            if (option.name[0] == upper && equalsIgnoringCase(cursor, option.name)) {
                match = &option;
                break;
            }
        }
        // No match leaves the cursor on the letter, which the next turn refuses as a prefix.
        if (match == nullptr) continue;
        cursor = *++argvCursor;
        if (match->takesValue) {
            commandLine.*(match->field) = scanOptionValue(cursor, argvCursor);
        } else if (match->setsAutoStart) {
            commandLine.autoStart = true;
        } else {
            commandLine.commands |= match->command;
        }
    }
    if (std::popcount(commandLine.commands) >= 2) throw UsageRequested{};
}

}  // namespace

bool scanCommandLine(CommandLine& commandLine, int argc, const char* const* argv) {
    try {
        scan(commandLine, argc, argv);
        return true;
    } catch (const UsageRequested&) {
        return false;
    }
}

void parseCommandLine(CommandLine& commandLine, int argc, char** argv) {
    if (!scanCommandLine(commandLine, argc, argv)) {
        printUsage(kVersionMajor, kVersionMinor, kVersionBuild);
    }
}

std::u16string parseOptionValue(const char*& cursor, const char* const*& argvCursor) {
    try {
        return scanOptionValue(cursor, argvCursor);
    } catch (const UsageRequested&) {
        printUsage(kVersionMajor, kVersionMinor, kVersionBuild);
    }
}

std::string usageText(int major, int minor, int build, const char* date, const char* time) {
    std::string text = "Orvanta Vigil Watch\n";
    text += "  Version: " + std::to_string(major) + "." + std::to_string(minor) + " - " +
            std::to_string(build) + "\n";
    text += std::string("  When:    ") + date + " " + time + "\n";
    text +=
        "\nUsage: MirelleStudioFileAgent [options]"
        "\n----------------------\n"
        "\nWindows Service Setup Options:"
        "\n------------------------------\n"
        "  /INSTALL                  Install Service\n"
        "    [/AUTOSTART]            Auto Start service\n"
        "    [/ACCOUNT  account]     Service Account Name\n"
        "    [/PASSWORD password]    Service Account Password\n"
        "    [/DOMAIN   domain]      Service Account Domain\n"
        "    [/DEPENDENCIES d1, d2]  Service Startup Dependencies\n"
        "\n  /UNINSTALL                Remove Service\n"
        "\nWindows Service Control Options:"
        "\n--------------------------------\n"
        "  /START                Start Service\n"
        "  /STOP                 Stop Service\n"
        "  /PAUSE                Pause Service\n"
        "  /CONTINUE             Resume Service\n"
        "  /RESTART\t\t\t  Restart Service\n"
        "\nServer Configuration Options:"
        "\n---------------------------\n"
        "  /PORT                 Server Listen Port\n"
        "\n";
    return text;
}

const char* buildDate() { return __DATE__; }
const char* buildTime() { return __TIME__; }

void printUsage(int major, int minor, int build) {
    const std::string text = usageText(major, minor, build, buildDate(), buildTime());
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    std::exit(0);
}

std::u16string fullAccountName(const CommandLine& commandLine) {
    if (commandLine.account.empty()) return {};
    if (commandLine.domain.empty()) return commandLine.account;
    return commandLine.domain + u"\\" + commandLine.account;
}

}  // namespace Vigil
