// The writing side of an entry: what Serialize, SerializeKey and SerializeValue put on a stream.

#include <gtest/gtest.h>

#include <sstream>

#include "dictionary/DictionaryEntry.h"
#include "dictionary/DictionaryFormat.h"
#include "tests/support/Utf16Le.h"

namespace lexkit_test {
namespace {

using lexkit_private::ByteRunValueRef;
using lexkit_private::DictionaryEntry;

std::string Le(std::u16string_view units) { return vigil_test::Utf16Le<std::string>(units); }

DictionaryEntry Entry(const std::string& key, std::u16string_view value) {
    return DictionaryEntry(key.data(), static_cast<uint32_t>(key.size()),
                           ByteRunValueRef::FromUnits(value.data(), value.size()));
}

TEST(SerializeTest, ValueFormsFollowModeEncodingAndByteOrder) {
    const uint32_t utf8 = 1;
    const uint32_t ansi = 0;
    struct {
        const char* what;
        bool binary;
        const uint32_t* encoding;
        int byteOrder;
        std::string expected;
        uint32_t result;  // checked in binary mode only
    } cases[] = {
        {"binary as is", true, nullptr, lexkit_private::kByteOrderNative, Le(u"\"\u00e9\u20ac"), 6},
        {"binary little", true, nullptr, lexkit_private::kByteOrderLittle, Le(u"\"\u00e9\u20ac"),
         6},
        {"binary swapped", true, nullptr, lexkit_private::kByteOrderBig,
         std::string("\0\"\0\xe9\x20\xac", 6), 6},
        {"binary utf-8", true, &utf8, 0, "\"\xc3\xa9\xe2\x82\xac", 6},
        {"binary ansi", true, &ansi, 0, "\"\xe9\x80", 3},
        {"text", false, nullptr, 0, Le(u"\\\"\u00e9\u20ac\"\r\n"), 0},
    };
    for (auto& c : cases) {
        DictionaryEntry entry = Entry("/k", u"\"\u00e9\u20ac");
        std::ostringstream out;
        const uint32_t written = entry.SerializeValue(out, c.binary, c.encoding, c.byteOrder);
        EXPECT_EQ(out.str(), c.expected) << c.what;
        if (c.binary) {
            EXPECT_EQ(written, c.result) << c.what;
        }
    }
}

TEST(SerializeTest, TextLineEscapesLineBreaksAndQuotesOnly) {
    DictionaryEntry entry = Entry("/a\xe9", u"1\n2\r3\"\\^#{tab}");
    std::ostringstream out;
    entry.Serialize(out, false, nullptr);
    EXPECT_EQ(out.str(), Le(u"\"/a\u00e9=1\\n2\\r3\\\"\\^#{tab}\"\r\n"));
    std::ostringstream binary;
    EXPECT_EQ(entry.Serialize(binary, true, nullptr), 3u + 28u);
    EXPECT_EQ(binary.str(), "/a\xe9" + Le(u"1\n2\r3\"\\^#{tab}"));
}

TEST(SerializeTest, KeyAloneAndEmptyKey) {
    DictionaryEntry entry = Entry("/k", u"v");
    std::ostringstream text, binary;
    entry.SerializeKey(text, false);
    EXPECT_EQ(text.str(), Le(u"\"/k="));
    EXPECT_EQ(entry.SerializeKey(binary, true), 2u);
    EXPECT_EQ(binary.str(), "/k");
    DictionaryEntry empty = Entry("", u"v");
    std::ostringstream nothing;
    EXPECT_EQ(empty.SerializeKey(nothing, true), 0u);
    empty.SerializeKey(nothing, false);
    EXPECT_EQ(nothing.str(), "");
}

}  // namespace
}  // namespace lexkit_test
