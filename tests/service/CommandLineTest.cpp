#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/VigilCommandLine.h"

namespace Vigil {
namespace {

struct ScanCase {
    std::vector<const char*> args;  // behind the program's name
    bool good;
    uint32_t commands = 0;
    std::u16string account = u"";
    std::u16string port = kDefaultPipeName;
    std::u16string dependencies = u"";
    std::u16string domain = u"";
    bool autoStart = false;
};

class ScanTest : public ::testing::TestWithParam<ScanCase> {};

TEST_P(ScanTest, FillsTheRecordOrAsksForUsage) {
    const ScanCase& c = GetParam();
    std::vector<const char*> argv{"MirelleStudioFileAgent"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    argv.push_back(nullptr);
    CommandLine line;
    const bool good = scanCommandLine(line, static_cast<int>(argv.size() - 1), argv.data());
    ASSERT_EQ(good, c.good);
    if (!good) return;
    EXPECT_EQ(line.commands, c.commands);
    EXPECT_EQ(line.account, c.account);
    EXPECT_EQ(line.port, c.port);
    EXPECT_EQ(line.dependencies, c.dependencies);
    EXPECT_EQ(line.domain, c.domain);
    EXPECT_EQ(line.autoStart, c.autoStart);
    EXPECT_TRUE(line.password.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ScanTest,
    ::testing::Values(
        ScanCase{{}, true}, ScanCase{{"/PORT", "abc"}, true, 0, u"", u"abc"},
        ScanCase{{"/AUTOSTART"}, true, 0, u"", kDefaultPipeName, u"", u"", true},
        ScanCase{{"-install"}, true, Command::kInstall},
        ScanCase{{"/INSTALL"}, true, Command::kInstall},
        ScanCase{{"/iNsTaLl"}, true, Command::kInstall},
        ScanCase{{"/install", "/INSTALL"}, true, Command::kInstall},
        ScanCase{{"/UNINSTALL"}, true, Command::kUninstall},
        ScanCase{{"/start"}, true, Command::kStart}, ScanCase{{"-STOP"}, true, Command::kStop},
        ScanCase{{"/Pause"}, true, Command::kPause},
        ScanCase{{"/CONTINUE"}, true, Command::kContinue},
        ScanCase{{"/RESTART"}, true, Command::kRestart}, ScanCase{{"/START", "/STOP"}, false},
        ScanCase{{"/INSTALL", "/UNINSTALL"}, false},
        ScanCase{{"/ACCOUNT", "=bob"}, true, 0, u"bob"},
        ScanCase{{"/ACCOUNT", "=", "bob"}, true, 0, u"bob"}, ScanCase{{"/ACCOUNT=bob"}, false},
        ScanCase{{"/ACCOUNT", "="}, false}, ScanCase{{"/ACCOUNT", "a b"}, true, 0, u"a b"},
        ScanCase{{"/ACCOUNT", "a.b"}, false},
        ScanCase{{"/ACCOUNT", "bob/PAUSE"}, true, Command::kPause, u"bob"},
        ScanCase{{"/ACCOUNT", "BoB  1"}, true, 0, u"BoB  1"}, ScanCase{{"/ACCOUNT"}, false},
        ScanCase{{"/ACCOUNT", ""}, false},
        ScanCase{{"/PORT", "/START"}, true, Command::kStart, u"", u""},
        ScanCase{{"/DEPENDENCIES", "d1,", "d2"}, false},
        ScanCase{{"/DEPENDENCIES", "d1 d2"}, true, 0, u"", kDefaultPipeName, u"d1 d2"},
        ScanCase{{"/DOMAIN", "x", "/INSTALL"},
                 true,
                 Command::kInstall,
                 u"",
                 kDefaultPipeName,
                 u"",
                 u"x"},
        ScanCase{{"/ACCOUNT", "a", "/ACCOUNT", "b"}, true, 0, u"b"}, ScanCase{{"//START"}, false},
        ScanCase{{"/-START"}, false}, ScanCase{{"START"}, false}, ScanCase{{"/"}, false},
        ScanCase{{"/STOPX"}, false}, ScanCase{{"/BOGUS"}, false},
        ScanCase{{"/PAUSE", "", "/AUTOSTART"},
                 true,
                 Command::kPause,
                 u"",
                 kDefaultPipeName,
                 u"",
                 u"",
                 true},
        // Only one empty argument is stepped over at a time: the second becomes the current
        // text and fails the prefix test.
        ScanCase{{"/PAUSE", "", "", "/AUTOSTART"}, false}, ScanCase{{"/PORT", "x\xe9y"}, false},
        ScanCase{{"/PORT", "My Pipe 2"}, true, 0, u"", u"My Pipe 2"}));

TEST(CommandLineTest, FullAccountNameJoinsDomainOnlyWithAnAccount) {
    CommandLine line;
    EXPECT_EQ(fullAccountName(line), u"");
    line.domain = u"dom";
    EXPECT_EQ(fullAccountName(line), u"");
    line.account = u"bob";
    EXPECT_EQ(fullAccountName(line), u"dom\\bob");
    line.domain.clear();
    EXPECT_EQ(fullAccountName(line), u"bob");
}

TEST(CommandLineTest, OptionValueLeavesBothCursorsOnTheCharacterThatEndedIt) {
    const char* argv[] = {"=", "ab c,rest", nullptr};
    const char* const* argvCursor = argv;
    const char* cursor = argv[0];
    EXPECT_EQ(parseOptionValue(cursor, argvCursor), u"ab c");
    EXPECT_EQ(argvCursor, argv + 1);
    EXPECT_STREQ(cursor, ",rest");
}

// `shape` spells the text: A an upper-case letter, a a lower-case one, 9 a digit, _ a digit or
// a blank; any other character stands for itself.
bool HasShape(const std::string& text, const std::string& shape) {
    if (text.size() != shape.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool fits = shape[i] == 'A'   ? (c >= 'A' && c <= 'Z')
                          : shape[i] == 'a' ? (c >= 'a' && c <= 'z')
                          : shape[i] == '9' ? (c >= '0' && c <= '9')
                          : shape[i] == '_' ? (c == ' ' || (c >= '0' && c <= '9'))
                                            : c == shape[i];
        if (!fits) return false;
    }
    return true;
}

// The heading carries the numbers and build stamp it is given; every option has its line, in
// the order of the commands, including the tab-separated /RESTART line users have scripts for.
TEST(CommandLineTest, UsageTextNamesTheVersionAndEveryOption) {
    const std::string text = usageText(12, 3, 4567, "Dec  7 2015", "01:18:33");
    EXPECT_EQ(text.substr(0, text.find("\n\n")),
              "Orvanta Vigil Watch\n  Version: 12.3 - 4567\n  When:    Dec  7 2015 01:18:33");
    size_t at = 0;
    for (const char* line :
         {"\nUsage: MirelleStudioFileAgent [options]\n", "\n  /INSTALL ", "\n    [/AUTOSTART] ",
          "\n    [/ACCOUNT  account] ", "\n    [/PASSWORD password] ", "\n    [/DOMAIN   domain] ",
          "\n    [/DEPENDENCIES d1, d2] ", "\n  /UNINSTALL ", "\n  /START ", "\n  /STOP ",
          "\n  /PAUSE ", "\n  /CONTINUE ", "\n  /RESTART\t\t\t  Restart Service\n",
          "\n  /PORT                 Server Listen Port\n\n"}) {
        const size_t found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line;
        at = found + 1;
    }
    EXPECT_EQ(text.substr(text.size() - 2), "\n\n");
    EXPECT_TRUE(HasShape(buildDate(), "Aaa _9 9999")) << buildDate();
    EXPECT_TRUE(HasShape(buildTime(), "99:99:99")) << buildTime();
}

}  // namespace
}  // namespace Vigil
