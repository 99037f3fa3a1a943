// The command line of the executable: the record its scan fills, the scan, and the usage text.
//
// Arguments are narrow text; a value is widened character by character. Every fault in the command
// line ends in the usage text on standard error and exit code 0, through parseCommandLine; the
// scan itself is also offered without the exit (scanCommandLine) so that callers can test a line.
#pragma once

#include <cstdint>
#include <string>

namespace Vigil {

// Bits of CommandLine::commands. 0x01 is never set; the seven bits 0x02 to 0x80 are the commands.
namespace Command {
constexpr uint32_t kInstall = 0x02;
constexpr uint32_t kUninstall = 0x04;
constexpr uint32_t kStart = 0x08;
constexpr uint32_t kStop = 0x10;
constexpr uint32_t kPause = 0x20;
constexpr uint32_t kContinue = 0x40;
constexpr uint32_t kRestart = 0x80;
}  // namespace Command

// The pipe name that the run role uses when /PORT does not replace it.
extern const std::u16string kDefaultPipeName;

// The program's own version, as the usage text shows it.
constexpr int kVersionMajor = 1;
constexpr int kVersionMinor = 0;
constexpr int kVersionBuild = 201;

struct CommandLine {
    uint32_t commands = 0;
    std::u16string domain;
    std::u16string account;
    std::u16string password;
    std::u16string dependencies;
    std::u16string port = kDefaultPipeName;
    bool autoStart = false;
};

// Fills `commandLine` from argv[1..argc-1]. A bad command line does not come back: it ends in
// printUsage. argv must end with a null entry, as main's does.
void parseCommandLine(CommandLine& commandLine, int argc, char** argv);

// The same scan without the exit: true when the line is good (the record then holds what it
// says), false where parseCommandLine would print the usage text (the record is then partly
// filled and must not be used).
bool scanCommandLine(CommandLine& commandLine, int argc, const char* const* argv);

// The value of an option that takes one. `cursor` is the position inside the current argument
// (null when the option was the last argument) and `argvCursor` the position in argv; both are
// left on the first character that is not part of the value. Ends in printUsage when no value is
// there at all.
std::u16string parseOptionValue(const char*& cursor, const char* const*& argvCursor);

// Writes the usage text to standard error and ends the process with exit code 0.
[[noreturn]] void printUsage(int major, int minor, int build);

// The usage text for the given version and build stamps ("Dec  7 2015", "01:18:33").
std::string usageText(int major, int minor, int build, const char* date, const char* time);

// The date and time at which this executable was built, in the forms above.
const char* buildDate();
const char* buildTime();

// The full account name that install receives: empty without an account; the domain, a backslash
// and the account when both are given; the account alone otherwise.
std::u16string fullAccountName(const CommandLine& commandLine);

}  // namespace Vigil
