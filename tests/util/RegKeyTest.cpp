#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "platform/Registry.h"
#include "tests/support/ScratchRoot.h"
#include "util/RegKey.h"

namespace {

namespace fs = std::filesystem;
namespace Reg = Osb::Reg;

constexpr int32_t kFileNotFound = 2;
constexpr int32_t kAccessDenied = 5;
constexpr int32_t kInvalidHandle = 6;
const std::u16string kKey = u"Software\\Orvanta\\Mirelle Studio\\14.0\\";

class RegKeyTest : public ::testing::Test {
  protected:
    std::string keyDir() const {
        return root_ /
               "etc/orvanta/registry/HKEY_LOCAL_MACHINE/Software/Orvanta/Mirelle Studio/14.0";
    }
    // Writes a value the way an installer's registry file would hold it.
    void writeValue(const std::string& name, const std::string& utf8) const {
        fs::create_directories(keyDir());
        std::ofstream(keyDir() + "/" + name, std::ios::binary) << utf8 << '\n';
    }

    vigil_test::ScratchRoot root_;
};

TEST_F(RegKeyTest, ReadAccessOnMissingKeyFailsAndCreatesNothing) {
    mst_util::reg_key_t key(kKey, Reg::kKeyRead, false);
    EXPECT_EQ(key.open(), kFileNotFound);
    EXPECT_FALSE(key.is_open());
    EXPECT_FALSE(fs::exists(root_ / "etc/orvanta/registry/HKEY_LOCAL_MACHINE/Software"));
}

TEST_F(RegKeyTest, WritingAccessCreatesMissingKeyWithParents) {
    for (const uint32_t access : {Reg::kKeyWrite, Reg::kSetValue, Reg::kCreateSubKey}) {
        fs::remove_all(root_ / "etc");
        mst_util::reg_key_t key(kKey, access, false);
        EXPECT_EQ(key.open(), 0) << access;
        EXPECT_TRUE(key.is_open());
        EXPECT_TRUE(fs::is_directory(keyDir())) << access;
    }
}

TEST_F(RegKeyTest, OpenNowOpensExistingKeyForReading) {
    writeValue("Locale", "de_DE");
    mst_util::reg_key_t key(kKey, Reg::kKeyRead, true);
    ASSERT_TRUE(key.is_open());
    int32_t status = -1;
    EXPECT_EQ(key.read_string(u"Locale", u"en_US", &status), u"de_DE");
    EXPECT_EQ(status, 0);
    // A second open closes the first handle and opens the key again.
    EXPECT_EQ(key.open(), 0);
    EXPECT_EQ(key.read_string(u"Locale", u"en_US", nullptr), u"de_DE");
}

struct ReadCase {
    const char* what;
    std::optional<std::string> fileText;  // none: no value file
    std::u16string expected;
    int32_t status;
};

TEST_F(RegKeyTest, ReadStringGivesValueOrDefault) {
    const ReadCase cases[] = {
        {"missing value gives the default", std::nullopt, u"dflt", kFileNotFound},
        {"empty value gives empty text, not the default", "", u"", 0},
        {"plain text", "fr_FR", u"fr_FR", 0},
        {"text beyond the basic plane", "\xE6\x97\xA5\xF0\x9F\x98\x80", u"日\U0001F600", 0},
        {"long text", std::string(5000, 'x'), std::u16string(5000, u'x'), 0},
    };
    for (const ReadCase& c : cases) {
        fs::remove_all(root_ / "etc");
        fs::create_directories(keyDir());
        if (c.fileText) writeValue("V", *c.fileText);
        mst_util::reg_key_t key(kKey, Reg::kKeyRead, true);
        int32_t status = -1;
        EXPECT_EQ(key.read_string(u"V", u"dflt", &status), c.expected) << c.what;
        EXPECT_EQ(status, c.status) << c.what;
    }
}

TEST_F(RegKeyTest, KeyThatCannotBeReadGivesDefault) {
    writeValue("Locale", "de_DE");
    int32_t status = -1;
    mst_util::reg_key_t closed(u"Software\\Missing\\", Reg::kKeyRead, true);
    EXPECT_EQ(closed.read_string(u"Locale", u"en_US", &status), u"en_US");
    EXPECT_EQ(status, kInvalidHandle);
    // Opened with the right to write only: the query is refused.
    mst_util::reg_key_t writeOnly(kKey, Reg::kKeyWrite, true);
    ASSERT_TRUE(writeOnly.is_open());
    EXPECT_EQ(writeOnly.read_string(u"Locale", u"en_US", &status), u"en_US");
    EXPECT_EQ(status, kAccessDenied);
}

}  // namespace
