#include <gtest/gtest.h>

#include <string>

#include "util/ProductKey.h"

namespace {

TEST(ProductKeyTest, BuildsPathWithTrailingBackslash) {
    const struct {
        std::string product;
        std::string version;
        std::u16string expected;
    } cases[] = {
        {"Mirelle Studio", "14.0", u"Software\\Orvanta\\Mirelle Studio\\14.0\\"},
        {"Mirelle Studio", "", u"Software\\Orvanta\\Mirelle Studio\\"},
        {"", "", u"Software\\Orvanta\\\\"},
        {"Caf\xC3\xA9", "2", u"Software\\Orvanta\\Caf\u00E9\\2\\"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(mst_util::product_key(c.product, c.version), c.expected)
            << c.product << "|" << c.version;
    }
}

}  // namespace
