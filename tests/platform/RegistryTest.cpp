#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/Registry.h"
#include "tests/support/FileText.h"
#include "tests/support/RunAsUser.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;
using Osb::HKey;
namespace Reg = Osb::Reg;

constexpr int32_t kFileNotFound = 2;
constexpr int32_t kAccessDenied = 5;
constexpr int32_t kInvalidParameter = 87;
constexpr int32_t kInvalidName = 123;

class RegistryTest : public ::testing::Test {
  protected:
    std::string keyDir(const std::string& relative) const {
        return root_ / ("etc/orvanta/registry/HKEY_LOCAL_MACHINE/" + relative);
    }

    static void writeFile(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }

    // Creates the key and returns its handle, failing the test on any error.
    static HKey create(const std::u16string& subKey, uint32_t access = Reg::kKeyAllAccess) {
        HKey key = nullptr;
        EXPECT_EQ(Osb::RegCreateKeyExW(Osb::HKeyLocalMachine(), subKey, access, &key, nullptr), 0);
        return key;
    }

    static int32_t setText(HKey key, const std::u16string& name, const std::u16string& text) {
        return Osb::RegSetValueExW(key, name, Reg::kTypeSz,
                                   reinterpret_cast<const uint8_t*>(text.c_str()),
                                   static_cast<uint32_t>((text.size() + 1) * sizeof(char16_t)));
    }

    // Reads a value the way the program does: size first, then the data.
    static int32_t queryText(HKey key, const std::u16string& name, std::u16string& text) {
        uint32_t bytes = 0;
        if (int32_t status = Osb::RegQueryValueExW(key, name, nullptr, nullptr, &bytes)) {
            return status;
        }
        std::vector<char16_t> buffer(bytes / sizeof(char16_t));
        uint32_t type = 0;
        const int32_t status = Osb::RegQueryValueExW(
            key, name, &type, reinterpret_cast<uint8_t*>(buffer.data()), &bytes);
        EXPECT_EQ(type, Reg::kTypeSz);
        EXPECT_EQ(bytes, buffer.size() * sizeof(char16_t));
        if (status == 0) {
            EXPECT_EQ(buffer.back(), u'\0') << "no terminating zero unit";
            text.assign(buffer.data(), buffer.size() - 1);
        }
        return status;
    }

    vigil_test::ScratchRoot root_;
};

TEST_F(RegistryTest, CreateMakesEveryMissingKeyAndTellsWhetherItWasNew) {
    HKey key = nullptr;
    uint32_t disposition = 0;
    ASSERT_EQ(
        Osb::RegCreateKeyExW(Osb::HKeyLocalMachine(), u"Software\\Orvanta\\Mirelle Studio\\14.0",
                             Reg::kKeyAllAccess, &key, &disposition),
        0);
    EXPECT_EQ(disposition, Reg::kCreatedNewKey);
    EXPECT_TRUE(fs::is_directory(keyDir("Software/Orvanta/Mirelle Studio/14.0")));
    Osb::RegCloseKey(key);

    // Trailing and doubled backslashes name the same key.
    ASSERT_EQ(Osb::RegCreateKeyExW(Osb::HKeyLocalMachine(),
                                   u"\\Software\\\\Orvanta\\Mirelle Studio\\14.0\\",
                                   Reg::kKeyAllAccess, &key, &disposition),
              0);
    EXPECT_EQ(disposition, Reg::kOpenedExistingKey);

    // Keys open relative to an open key.
    HKey version = nullptr;
    ASSERT_EQ(Osb::RegCreateKeyExW(key, u"Sub", Reg::kKeyAllAccess, &version, &disposition), 0);
    EXPECT_EQ(disposition, Reg::kCreatedNewKey);
    ASSERT_EQ(setText(version, u"Locale", u"ja-JP"), 0);
    HKey again = nullptr;
    ASSERT_EQ(Osb::RegOpenKeyExW(key, u"Sub", 0, Reg::kKeyRead, &again), 0);
    std::u16string value;
    EXPECT_EQ(queryText(again, u"Locale", value), 0);
    EXPECT_EQ(value, u"ja-JP");
    for (HKey opened : {again, version, key}) EXPECT_EQ(Osb::RegCloseKey(opened), 0);
    EXPECT_TRUE(fs::exists(keyDir("Software/Orvanta/Mirelle Studio/14.0/Sub/Locale")));
}

TEST_F(RegistryTest, OpeningAMissingKeyGivesTwoAndCreatesNothing) {
    const std::u16string missing[] = {u"Software", u"Software\\Orvanta\\Mirelle Studio\\14.0"};
    for (const std::u16string& subKey : missing) {
        HKey key = nullptr;
        EXPECT_EQ(Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), subKey, 0, Reg::kKeyRead, &key),
                  kFileNotFound);
        EXPECT_EQ(key, nullptr);
    }
    EXPECT_FALSE(fs::exists(root_ / "etc"));

    // A missing key below an existing one, and a value's name used as a key.
    HKey parent = create(u"Software\\Orvanta");
    ASSERT_EQ(setText(parent, u"Value", u"x"), 0);
    const std::u16string missingBelow[] = {u"Mirelle Studio\\14.0", u"Value", u"Value\\Below"};
    for (const std::u16string& subKey : missingBelow) {
        HKey key = nullptr;
        EXPECT_EQ(Osb::RegOpenKeyExW(parent, subKey, 0, Reg::kKeyRead, &key), kFileNotFound);
    }
    Osb::RegCloseKey(parent);
    EXPECT_FALSE(fs::exists(keyDir("Software/Orvanta/Mirelle Studio")));
}

TEST_F(RegistryTest, KeyNamesThatAreNoSingleNameAreRefused) {
    const std::u16string refused[] = {u"Software\\.", u"..\\..\\etc", u"Software\\..\\x",
                                      u"Soft/ware",   u"a\\b/c",      std::u16string(u"a\0b", 3)};
    for (const std::u16string& subKey : refused) {
        HKey key = nullptr;
        EXPECT_EQ(Osb::RegCreateKeyExW(Osb::HKeyLocalMachine(), subKey, Reg::kKeyAllAccess, &key,
                                       nullptr),
                  kInvalidName);
        EXPECT_EQ(Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), subKey, 0, Reg::kKeyRead, &key),
                  kInvalidName);
        EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), subKey), kInvalidName);
    }
    EXPECT_FALSE(fs::exists(root_ / "etc"));
}

TEST_F(RegistryTest, ValuesRoundTripThroughTheirFile) {
    HKey key = create(u"Software\\Orvanta\\Mirelle Studio\\14.0");
    const std::u16string locale = u"fr-FR";
    ASSERT_EQ(setText(key, u"Locale", locale), 0);
    EXPECT_EQ(vigil_test::FileText(keyDir("Software/Orvanta/Mirelle Studio/14.0/Locale")),
              "fr-FR\n");

    const std::u16string texts[] = {u"", u"Dossier \u00e9t\u00e9 \u65e5\u672c", u"two\nlines\n",
                                    u"\U0001F600", u"C:\\Program Files\\x"};
    for (const std::u16string& text : texts) {
        ASSERT_EQ(setText(key, u"Text", text), 0);
        std::u16string back;
        ASSERT_EQ(queryText(key, u"Text", back), 0);
        EXPECT_EQ(back, text);
    }
    // Nothing but the values stays in the key's folder: no temporary files.
    std::vector<std::string> names;
    for (const auto& entry :
         fs::directory_iterator(keyDir("Software/Orvanta/Mirelle Studio/14.0"))) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Locale", "Text"}));
    Osb::RegCloseKey(key);
}

TEST_F(RegistryTest, OneFinalNewlineOfTheFileIsNotPartOfTheValue) {
    HKey key = create(u"Software\\Orvanta");
    struct Row {
        std::string file;
        std::u16string value;
    };
    const Row rows[] = {
        {"de-DE\n", u"de-DE"},
        {"de-DE", u"de-DE"},
        {"de-DE\n\n", u"de-DE\n"},
        {"de-DE\r\n", u"de-DE\r"},
        {"", u""},
        {"\n", u""},
        {"a\nb", u"a\nb"},
        {"caf\xc3\xa9\n", u"caf\u00e9"},
        {"caf\xe9\n", u"caf\xdce9"},  // not UTF-8: the byte travels as an escape
    };
    for (const Row& row : rows) {
        writeFile(keyDir("Software/Orvanta/Locale"), row.file);
        std::u16string value;
        ASSERT_EQ(queryText(key, u"Locale", value), 0);
        EXPECT_EQ(value, row.value);
        // Writing the value back gives the same bytes with exactly one newline.
        ASSERT_EQ(setText(key, u"Copy", value), 0);
        std::string expected = row.file;
        if (!expected.empty() && expected.back() == '\n') expected.pop_back();
        EXPECT_EQ(vigil_test::FileText(keyDir("Software/Orvanta/Copy")), expected + "\n");
    }
    Osb::RegCloseKey(key);
}

TEST_F(RegistryTest, QueryReportsTheSizeItNeeds) {
    HKey key = create(u"Software\\Orvanta");
    ASSERT_EQ(setText(key, u"Locale", u"en-US"), 0);
    const uint32_t needed = 6 * sizeof(char16_t);  // five units and the zero unit

    uint32_t type = 0;
    uint32_t bytes = 0;
    EXPECT_EQ(Osb::RegQueryValueExW(key, u"Locale", &type, nullptr, &bytes), 0);
    EXPECT_EQ(bytes, needed);
    EXPECT_EQ(type, Reg::kTypeSz);

    char16_t buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    bytes = needed - 1;
    EXPECT_EQ(
        Osb::RegQueryValueExW(key, u"Locale", nullptr, reinterpret_cast<uint8_t*>(buffer), &bytes),
        Reg::kMoreData);
    EXPECT_EQ(bytes, needed);
    bytes = sizeof(buffer);
    EXPECT_EQ(
        Osb::RegQueryValueExW(key, u"Locale", nullptr, reinterpret_cast<uint8_t*>(buffer), &bytes),
        0);
    EXPECT_EQ(bytes, needed);
    EXPECT_EQ(std::u16string(buffer, 7), std::u16string(u"en-US\0#", 7));

    // Data without room for its size is a caller's mistake; neither pointer only asks existence.
    EXPECT_EQ(
        Osb::RegQueryValueExW(key, u"Locale", nullptr, reinterpret_cast<uint8_t*>(buffer), nullptr),
        kInvalidParameter);
    EXPECT_EQ(Osb::RegQueryValueExW(key, u"Locale", nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(Osb::RegQueryValueExW(key, u"Absent", nullptr, nullptr, nullptr), kFileNotFound);
    Osb::RegCloseKey(key);
}

TEST_F(RegistryTest, ValueEndsAtItsFirstZeroUnit) {
    HKey key = create(u"Software\\Orvanta");
    const char16_t data[] = u"abc\0def";
    ASSERT_EQ(Osb::RegSetValueExW(key, u"V", Reg::kTypeSz, reinterpret_cast<const uint8_t*>(data),
                                  sizeof(data)),
              0);
    EXPECT_EQ(vigil_test::FileText(keyDir("Software/Orvanta/V")), "abc\n");
    // Without a terminator, all units count; an odd last byte is no unit.
    ASSERT_EQ(
        Osb::RegSetValueExW(key, u"V", Reg::kTypeSz, reinterpret_cast<const uint8_t*>(data), 5), 0);
    EXPECT_EQ(vigil_test::FileText(keyDir("Software/Orvanta/V")), "ab\n");
    Osb::RegCloseKey(key);
}

TEST_F(RegistryTest, AccessAndArgumentsAreChecked) {
    HKey writable = create(u"Software\\Orvanta");
    ASSERT_EQ(setText(writable, u"Locale", u"de-DE"), 0);
    HKey readOnly = nullptr;
    ASSERT_EQ(Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), u"Software\\Orvanta", 0, Reg::kKeyRead,
                                 &readOnly),
              0);
    EXPECT_EQ(setText(readOnly, u"Locale", u"fr-FR"), kAccessDenied);
    std::u16string value;
    EXPECT_EQ(queryText(readOnly, u"Locale", value), 0);
    EXPECT_EQ(value, u"de-DE");

    HKey writeOnly = nullptr;
    ASSERT_EQ(Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), u"Software\\Orvanta", 0, Reg::kKeyWrite,
                                 &writeOnly),
              0);
    EXPECT_EQ(Osb::RegQueryValueExW(writeOnly, u"Locale", nullptr, nullptr, nullptr),
              kAccessDenied);

    EXPECT_EQ(Osb::RegSetValueExW(writable, u"Locale", 4 /* REG_DWORD */,
                                  reinterpret_cast<const uint8_t*>(u"x"), 4),
              kInvalidParameter);
    const std::u16string refused[] = {u"", u".", u"..", u"a/b"};
    for (const std::u16string& name : refused) {
        EXPECT_EQ(setText(writable, name, u"x"), kInvalidName)
            << std::string(name.begin(), name.end());
        EXPECT_EQ(Osb::RegQueryValueExW(writable, name, nullptr, nullptr, nullptr), kInvalidName);
    }
    EXPECT_EQ(vigil_test::FileText(keyDir("Software/Orvanta/Locale")), "de-DE\n");
    Osb::RegCloseKey(writeOnly);
    Osb::RegCloseKey(readOnly);
    Osb::RegCloseKey(writable);
}

TEST_F(RegistryTest, DeleteRemovesAKeyWithItsValuesButNotOneWithSubkeys) {
    HKey key = create(u"A\\B\\C");
    ASSERT_EQ(setText(key, u"V1", u"1"), 0);
    ASSERT_EQ(setText(key, u"V2", u"2"), 0);
    Osb::RegCloseKey(key);

    EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), u"A\\B"), kAccessDenied);
    EXPECT_TRUE(fs::exists(keyDir("A/B/C/V1")));
    EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), u"A\\B\\C"), 0);
    EXPECT_FALSE(fs::exists(keyDir("A/B/C")));
    EXPECT_TRUE(fs::is_directory(keyDir("A/B")));
    EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), u"A\\B\\C"), kFileNotFound);
    EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), u"X\\Y"), kFileNotFound);
    // The predefined key itself cannot go.
    EXPECT_EQ(Osb::RegDeleteKeyW(Osb::HKeyLocalMachine(), u""), kAccessDenied);
}

// A plain user may neither read a value it has no right to nor add one to a key it may not write.
TEST_F(RegistryTest, ReadingAKeyThatMayNotBeReadIsRefused) {
    HKey key = create(u"Software\\Orvanta");
    ASSERT_EQ(setText(key, u"Locale", u"de-DE"), 0);
    Osb::RegCloseKey(key);
    ASSERT_EQ(::chmod(keyDir("Software/Orvanta/Locale").c_str(), 0), 0);
    for (const std::string& folder :
         {root_.path(), root_ / "etc", root_ / "etc/orvanta", root_ / "etc/orvanta/registry",
          keyDir(""), keyDir("Software"), keyDir("Software/Orvanta")}) {
        ASSERT_EQ(::chmod(folder.c_str(), 0755), 0) << folder;
    }
    const vigil_test::ChildOutcome outcome = vigil_test::RunAsUser({65534, 65534, {}}, [] {
        HKey reader = nullptr;
        const int32_t opened = Osb::RegOpenKeyExW(Osb::HKeyLocalMachine(), u"Software\\Orvanta", 0,
                                                  Reg::kKeyAllAccess, &reader);
        if (opened != 0) return "open " + std::to_string(opened);
        return std::to_string(Osb::RegQueryValueExW(reader, u"Locale", nullptr, nullptr, nullptr)) +
               " " + std::to_string(setText(reader, u"Other", u"x"));
    });
    if (outcome.cannotSwitch) GTEST_SKIP() << "cannot give up root here";
    EXPECT_EQ(outcome.output, "5 5");
    EXPECT_FALSE(fs::exists(keyDir("Software/Orvanta/Other")));
}

}  // namespace
