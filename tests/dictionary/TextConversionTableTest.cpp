#include <gtest/gtest.h>

#include <string>

#include "dictionary/LxErrException.h"
#include "dictionary/TextConversionTable.h"

namespace {

using lexkit_private::kLxErrBufferTooSmall;
using lexkit_private::kTextConversionTable;

const uint32_t kUtf8 = 1;
const uint32_t kOther = 2;

TEST(TextConversionTableTest, EncodingOneIsUtf8AndEverythingElseTheAnsiCodePage) {
    const std::string bytes = "\xC3\xA9\x80";
    EXPECT_EQ(lexkit_private::MultiByteToUtf16(bytes, &kUtf8), u"\u00E9\uFFFD");
    EXPECT_EQ(lexkit_private::MultiByteToUtf16(bytes, nullptr), u"\u00C3\u00A9\u20AC");
    EXPECT_EQ(lexkit_private::MultiByteToUtf16(bytes, &kOther), u"\u00C3\u00A9\u20AC");
    EXPECT_EQ(lexkit_private::Utf16ToMultiByte(u"\u00E9\u20AC", &kUtf8), "\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(lexkit_private::Utf16ToMultiByte(u"\u00E9\u20AC", nullptr), "\xE9\x80");
    EXPECT_EQ(lexkit_private::MultiByteToUtf16("", &kUtf8), u"");
    EXPECT_EQ(lexkit_private::Utf16ToMultiByte(u"", nullptr), "");
}

TEST(TextConversionTableTest, RowsReportSizesAndShortTargets) {
    uint32_t units = 99;
    EXPECT_EQ(kTextConversionTable.MultiByteLength("", 0, units, &kUtf8), 0u);
    EXPECT_EQ(units, 0u);
    EXPECT_EQ(kTextConversionTable.MultiByteLength("\xF0\x9F\x98\x80", 4, units, &kUtf8), 0u);
    EXPECT_EQ(units, 2u);
    char16_t wide[2];
    EXPECT_EQ(kTextConversionTable.MultiByteToWide("abc", 3, wide, 2, nullptr),
              kLxErrBufferTooSmall);
    EXPECT_EQ(kTextConversionTable.MultiByteToWide("abc", 0, wide, 0, nullptr), 0u);

    uint32_t bytes = 0;
    EXPECT_EQ(kTextConversionTable.WideToMultiByteLength(u"\u20AC", 1, bytes, &kUtf8), 0u);
    EXPECT_EQ(bytes, 4u);  // three bytes and the terminator
    // A short target: written counts the characters among the bytes that fit.
    char narrow[3];
    uint32_t written = 99;
    EXPECT_EQ(kTextConversionTable.WideToMultiByte(u"abcd", 4, narrow, 3, written, nullptr),
              kLxErrBufferTooSmall);
    EXPECT_EQ(written, 3u);
    EXPECT_EQ(kTextConversionTable.WideToMultiByte(u"ab", 2, narrow, 3, written, nullptr), 0u);
    EXPECT_EQ(written, 2u);
    EXPECT_EQ(std::string(narrow, 2), "ab");
}

}  // namespace
