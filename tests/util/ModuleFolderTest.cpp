#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "util/ModuleFolder.h"

namespace {

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
    const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    if (exe.native().size() >= 260) GTEST_SKIP() << "the build path is longer than 259 bytes";
    EXPECT_EQ(mst_util::module_folder(), exe.parent_path().string());
}

}  // namespace
