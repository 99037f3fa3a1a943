#include <gtest/gtest.h>

#include <cctype>
#include <stdexcept>
#include <string>

#include "locale/LocaleUtil.h"

namespace {

using lexkit_private::LocaleIndexFromName;
using lexkit_private::LocaleTable;

TEST(LocaleUtilTest, FindsRowIgnoringAsciiCase) {
    const struct {
        const char* name;
        uint32_t row;
    } cases[] = {
        {"en_US", 58},   {"EN_us", 58},  {"en_us", 58},  {"", 0},
        {"af_za", 1},    {"zu_ZA", 206}, {"ARN_CL", 19}, {"smj_SE", 168},
        {"wen_de", 197}, {"az_AZ", 21},  {"es_ES", 68},  {"zh_TW", 205},
    };
    for (const auto& c : cases) EXPECT_EQ(LocaleIndexFromName(c.name), c.row) << c.name;
    EXPECT_EQ(lexkit_private::kLocaleIndexEnUs, LocaleIndexFromName("en_US"));
}

TEST(LocaleUtilTest, NameInNoRowRaises) {
    for (const char* name : {"en-US", "en", "en_US ", " en_US", "en_USA", "az_latn_az",
                             "zh_hans_cn", "xx_xx", "en_U\xC5"}) {
        try {
            LocaleIndexFromName(name);
            ADD_FAILURE() << "no error for \"" << name << "\"";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Invalid locale string in locale/LocaleUtil") << name;
        }
    }
    // A zero byte is part of the name, not its end.
    EXPECT_THROW(LocaleIndexFromName(std::string("en_us\0", 6)), std::runtime_error);
}

// Every name, in upper case, finds its own row, or the row before it for the second of a pair.
TEST(LocaleUtilTest, EveryNameFindsItsFirstRow) {
    const auto& table = LocaleTable();
    ASSERT_EQ(table.size(), 208u);  // the mark rows at both ends are never a result
    int seconds = 0;
    for (size_t i = 1; i + 1 < table.size(); ++i) {
        std::string upper = table[i].name;
        for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        const bool second = std::string(table[i - 1].name) == table[i].name;
        seconds += second;
        EXPECT_EQ(LocaleIndexFromName(upper), second ? i - 1 : i) << table[i].name;
    }
    EXPECT_EQ(seconds, 7);
}

}  // namespace
