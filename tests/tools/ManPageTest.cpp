// The man pages keep up with the programs: every option a program's own usage text names is
// described on its page.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
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

// The options a usage text names: words that start with `lead` ("--" or "/") followed by
// characters `inside` accepts, the first of them a letter.
std::set<std::string> Options(const std::string& usage, const std::string& lead,
                              int (*inside)(int)) {
    std::set<std::string> options;
    for (size_t at = usage.find(lead); at != std::string::npos; at = usage.find(lead, at + 1)) {
        if (at > 0 && !std::isspace(static_cast<unsigned char>(usage[at - 1])) &&
            usage[at - 1] != '[') {
            continue;  // inside a word, a path or a pipe name
        }
        size_t end = at + lead.size();
        while (end < usage.size() && inside(static_cast<unsigned char>(usage[end]))) ++end;
        if (end > at + lead.size() &&
            std::isalpha(static_cast<unsigned char>(usage[at + lead.size()])))
            options.insert(usage.substr(at, end - at));
    }
    return options;
}

int LowerOrDash(int c) { return std::islower(c) || c == '-'; }
int Upper(int c) { return std::isupper(c); }

TEST(ManPageTest, EveryOptionOfTheUsageTextIsOnThePage) {
    struct Row {
        const char* program;
        std::string usage;  // the command that prints the usage text
        const char* page;
        const char* lead;
        int (*inside)(int);
    };
    const Row rows[] = {
        {"fileagent-client", "'" VIGIL_CLIENT_PATH "' --help", "fileagent-client.1", "--",
         LowerOrDash},
        {"lexicon-tool", "'" VIGIL_LEXICON_TOOL_PATH "' --help", "lexicon-tool.1", "--",
         LowerOrDash},
        // An option the program does not know prints its usage text.
        {"MirelleStudioFileAgent", "'" VIGIL_AGENT_PATH "' /NO-SUCH-OPTION",
         "MirelleStudioFileAgent.8", "/", Upper},
    };
    for (const Row& row : rows) {
        const std::string usage = Output(row.usage);
        const std::string page = PageText(std::string(VIGIL_MAN_DIR) + "/" + row.page);
        ASSERT_FALSE(page.empty()) << row.page;
        const std::set<std::string> options = Options(usage, row.lead, row.inside);
        EXPECT_GE(options.size(), 3u) << row.program << " printed:\n" << usage;
        for (const std::string& name : options) {
            EXPECT_NE(page.find(name), std::string::npos) << row.page << " lacks " << name;
        }
    }
}

}  // namespace
