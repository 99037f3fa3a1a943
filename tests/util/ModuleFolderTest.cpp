#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "util/ModuleFolder.h"

namespace {

namespace fs = std::filesystem;

// Set for a child run of this binary: the test below then only writes module_folder() there.
constexpr const char* kChildOutput = "VIGIL_TEST_MODULE_FOLDER_OUT";

TEST(ModuleFolderTest, FolderIsTextBeforeLastSlashWithBackslashesTurned) {
    const struct {
        std::u16string path;
        std::string expected;
    } cases[] = {
        {u"/opt/orvanta/MirelleStudioFileAgent", "/opt/orvanta"},
        {u"C:\\Program Files\\Orvanta\\agent.exe", "C:/Program Files/Orvanta"},
        {u"a\\b/c\\d", "a/b/c"},
        {u"/agent", ""},
        {u"agent", ""},
        {u"", ""},
        {u"/opt/\u00DCn\u00EF/\u65E5/agent", "/opt/\xC3\x9Cn\xC3\xAF/\xE6\x97\xA5"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(mst_util::folder_of(c.path), c.expected);
    }
}

TEST(ModuleFolderTest, ModuleFolderIsTheExecutablesFolder) {
    const fs::path exe = fs::read_symlink("/proc/self/exe");
    if (exe.native().size() >= 260) GTEST_SKIP() << "the build path is longer than 259 bytes";
    EXPECT_EQ(mst_util::module_folder(), exe.parent_path().string());
}

// The path is read into 260 units: a longer one is cut to 259, and the folder is taken from what
// is left. A copy of this binary runs from a path of more than 300 bytes and reports its folder.
TEST(ModuleFolderTest, LongExecutablePathIsCutBeforeItsFolderIsTaken) {
    if (const char* out = std::getenv(kChildOutput)) {
        std::ofstream(out, std::ios::binary) << mst_util::module_folder();
        return;
    }
    char pattern[] = "/tmp/vgl-mf.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string top = pattern;
    const std::string outer = top + "/" + std::string(150, 'a');
    const std::string inner = outer + "/" + std::string(150, 'b');
    fs::create_directories(inner);
    const std::string copy = inner + "/util_tests";
    fs::copy_file("/proc/self/exe", copy);
    const std::string output = top + "/folder.txt";
    const std::string command =
        std::string(kChildOutput) + "=" + output + " " + copy +
        " --gtest_filter=ModuleFolderTest.LongExecutablePathIsCutBeforeItsFolderIsTaken"
        " > /dev/null";
    const int status = std::system(command.c_str());
    std::ifstream in(output, std::ios::binary);
    const std::string folder{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    fs::remove_all(top);
    ASSERT_EQ(status, 0);
    ASSERT_GT(copy.size(), 260u);
    // The cut text ends inside the inner folder's name, so the last slash left is the outer one's.
    EXPECT_EQ(folder, outer);
}

}  // namespace
