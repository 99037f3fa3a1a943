#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Utf.h"
#include "service/VigilServiceConfiguration.h"
#include "tests/support/ScratchRoot.h"

namespace {

namespace fs = std::filesystem;

const std::string kDisplayKey = "$$$/private/Vigil/Vigil_Display_Name=Orvanta Vigil Watch V";
const std::string kDescriptionKey =
    "$$$/Vigil/Description=Tracks files that are managed by Mirelle Catalog";

// A dictionary that records what it is asked and answers with the text behind the '=', as the real
// lookup does for a key it does not hold.
struct FakeDictionary {
    struct Load {
        std::u16string path;
        uint32_t row;
        bool force;
    };
    std::vector<Load> loads;
    std::vector<std::string> lookups;

    Vigil::DictionaryCalls calls() {
        return {[this](const std::u16string& path, uint32_t row, bool force) {
                    loads.push_back({path, row, force});
                    return true;
                },
                [this](const std::string& text) {
                    lookups.push_back(text);
                    return Osb::Utf8ToUtf16(text.substr(text.find('=') + 1));
                }};
    }
};

class ServiceConfigurationTest : public ::testing::Test {
  protected:
    std::string keyDir() const {
        return root_ /
               "etc/orvanta/registry/HKEY_LOCAL_MACHINE/Software/Orvanta/Mirelle Studio/14.0";
    }
    void makeKey(const std::optional<std::string>& locale) const {
        fs::create_directories(keyDir());
        if (locale) std::ofstream(keyDir() + "/Locale", std::ios::binary) << *locale << '\n';
    }
    // The dictionary path the step must compose, from the test binary's own folder.
    static std::u16string dictionaryPath(const std::string& locale) {
        const std::string folder = fs::read_symlink("/proc/self/exe").parent_path().string();
        return Osb::Utf8ToUtf16(folder + "/Assets/locale/" + locale + "/lexicon.dct");
    }
    void expectEnglishTexts(const Vigil::ServiceTexts& texts) const {
        EXPECT_EQ(texts.displayName, u"Orvanta Vigil Watch V14");
        EXPECT_EQ(texts.description, u"Tracks files that are managed by Mirelle Catalog");
        EXPECT_EQ(dictionary_.lookups, (std::vector<std::string>{kDisplayKey, kDescriptionKey}));
    }

    vigil_test::ScratchRoot root_;
    FakeDictionary dictionary_;
};

TEST_F(ServiceConfigurationTest, WithoutProductKeyNoDictionaryIsLoadedAndNoKeyIsMade) {
    expectEnglishTexts(Vigil::ReadServiceTexts(dictionary_.calls()));
    EXPECT_TRUE(dictionary_.loads.empty());
    EXPECT_FALSE(fs::exists(root_ / "etc/orvanta/registry/HKEY_LOCAL_MACHINE/Software"));
}

// The locale as the registry holds it (none: the key exists without the value) decides the path,
// in its own case, and the table row.
TEST_F(ServiceConfigurationTest, LocaleValueChoosesPathAndRow) {
    const struct {
        std::optional<std::string> value;
        std::string pathLocale;
        uint32_t row;
    } cases[] = {
        {std::nullopt, "en_US", 58}, {"en_US", "en_US", 58},  {"EN_us", "EN_us", 58},
        {"de_DE", "de_DE", 39},      {"zh_TW", "zh_TW", 205}, {"", "", 0},
    };
    if (fs::read_symlink("/proc/self/exe").native().size() >= 260) {
        GTEST_SKIP() << "the executable's path is longer than its 260-unit buffer";
    }
    for (const auto& c : cases) {
        fs::remove_all(root_ / "etc");
        makeKey(c.value);
        FakeDictionary dictionary;
        Vigil::ReadServiceTexts(dictionary.calls());
        ASSERT_EQ(dictionary.loads.size(), 1u) << c.pathLocale;
        EXPECT_EQ(dictionary.loads[0].path, dictionaryPath(c.pathLocale)) << c.pathLocale;
        EXPECT_EQ(dictionary.loads[0].row, c.row) << c.pathLocale;
        EXPECT_FALSE(dictionary.loads[0].force);
    }
}

TEST_F(ServiceConfigurationTest, UnknownLocaleRaisesBeforeAnyLoad) {
    for (const char* locale : {"en-US", "de", "az_latn_az"}) {
        makeKey(locale);
        try {
            Vigil::ReadServiceTexts(dictionary_.calls());
            ADD_FAILURE() << "no error for " << locale;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Invalid locale string in locale/LocaleUtil");
        }
    }
    EXPECT_TRUE(dictionary_.loads.empty());
    EXPECT_TRUE(dictionary_.lookups.empty());
}

}  // namespace
