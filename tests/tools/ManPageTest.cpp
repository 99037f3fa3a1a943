// The man pages keep up with the programs: every option a program's own usage text names is
// described on its page.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <string>

#include "tests/support/FileText.h"

namespace {

std::string Output(const std::string& command) {
    std::string text;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return text;
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, got);
    ::pclose(pipe);
    return text;
}

// The page as a reader sees its words: roff's escaped minus signs are minus signs.
std::string PageText(const std::string& path) {
    std::string text = vigil_test::FileText(path);
    for (size_t at = text.find("\\-"); at != std::string::npos; at = text.find("\\-", at)) {
        text.erase(at, 1);
    }
    return text;
}

TEST(ManPageTest, EveryOptionOfTheUsageTextIsOnThePage) {
    struct Row {
        const char* program;
        std::string usage;  // the command that prints the usage text
        const char* page;
        const char* option;  // what an option looks like in the usage text
    };
    const Row rows[] = {
        {"fileagent-client", "'" VIGIL_CLIENT_PATH "' --help", "fileagent-client.1",
         "--[a-z][a-z-]*"},
        {"lexicon-tool", "'" VIGIL_LEXICON_TOOL_PATH "' --help", "lexicon-tool.1",
         "--[a-z][a-z-]*"},
        // An option the program does not know prints its usage text.
        {"MirelleStudioFileAgent", "'" VIGIL_AGENT_PATH "' /NO-SUCH-OPTION",
         "MirelleStudioFileAgent.8", "/[A-Z]+"},
    };
    for (const Row& row : rows) {
        const std::string usage = Output(row.usage);
        const std::string page = PageText(std::string(VIGIL_MAN_DIR) + "/" + row.page);
        ASSERT_FALSE(page.empty()) << row.page;
        const std::regex option(row.option);
        std::set<std::string> options;
        for (auto it = std::sregex_iterator(usage.begin(), usage.end(), option);
             it != std::sregex_iterator(); ++it) {
            options.insert(it->str());
        }
        EXPECT_GE(options.size(), 3u) << row.program << " printed:\n" << usage;
        for (const std::string& name : options) {
            EXPECT_NE(page.find(name), std::string::npos) << row.page << " lacks " << name;
        }
    }
}

}  // namespace
