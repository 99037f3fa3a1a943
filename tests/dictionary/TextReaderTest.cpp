#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "dictionary/ByteSwapUnicodeReader.h"
#include "dictionary/DictionaryReader.h"
#include "dictionary/MultibyteReader.h"
#include "dictionary/UnicodeReader.h"
#include "tests/support/Hex.h"

namespace {

using lexkit_private::ByteSwapUnicodeReader;
using lexkit_private::DictionaryReader;
using lexkit_private::MultibyteReader;
using lexkit_private::UnicodeReader;

enum class Encoding { kLittle, kBig, kMultibyte };

// `units` as the bytes of a file: UTF-16 with its mark in front, or one byte per unit.
std::string FileOf(Encoding encoding, const std::u16string& units) {
    std::string bytes;
    if (encoding == Encoding::kMultibyte) {
        for (char16_t u : units) bytes.push_back(static_cast<char>(u));
        return bytes;
    }
    const bool little = encoding == Encoding::kLittle;
    for (char16_t u : std::u16string(1, 0xFEFF) + units) {
        bytes.push_back(static_cast<char>(little ? u & 0xFF : u >> 8));
        bytes.push_back(static_cast<char>(little ? u >> 8 : u & 0xFF));
    }
    return bytes;
}

using vigil_test::Hex;

// All lines of `bytes`, read as the loader reads them: the stream is rewound after Create. A
// UTF-16 file's first line therefore starts with U+FEFF.
std::vector<std::u16string> Lines(const std::string& bytes) {
    std::istringstream stream(bytes);
    std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
    stream.clear();
    stream.seekg(0);
    std::vector<std::u16string> lines;
    while (const char16_t* line = reader->ReadLine()) lines.emplace_back(line);
    // The end of the stream stays the end. (A 0 at the start of a line ends only one call.)
    if (stream.eof()) {
        EXPECT_EQ(reader->ReadLine(), nullptr);
        EXPECT_EQ(reader->ReadLine(), nullptr);
    }
    return lines;
}

TEST(TextReaderTest, CreatePicksTheReaderByTheMarkAndPositionsTheStream) {
    struct Case {
        std::string bytes;
        const char* kind;
        std::streamoff position;
    } cases[] = {
        {"\xFF\xFE"
         "a\0",
         "little", 2},
        {"\xFE\xFF\0a", "big", 2},
        {"\xEF\xBB\xBFk=v", "multibyte", 0},  // a UTF-8 mark is not recognised
        {"\xFF", "multibyte", 0},             // fewer than two bytes
        {"", "multibyte", 0},
        {"\xFE", "multibyte", 0},
    };
    for (const Case& c : cases) {
        std::istringstream stream(c.bytes);
        std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
        const std::string kind = dynamic_cast<ByteSwapUnicodeReader*>(reader.get()) ? "big"
                                 : dynamic_cast<UnicodeReader*>(reader.get())       ? "little"
                                 : dynamic_cast<MultibyteReader*>(reader.get())     ? "multibyte"
                                                                                    : "?";
        EXPECT_EQ(kind, c.kind) << Hex(std::u16string(c.bytes.begin(), c.bytes.end()));
        EXPECT_EQ(static_cast<std::streamoff>(stream.tellg()), c.position) << c.kind;
    }
}

TEST(TextReaderTest, EachEncodingSplitsLinesOnItsLineEnds) {
    const std::u16string mark(1, 0xFEFF);
    struct Case {
        std::u16string text;
        std::vector<std::u16string> lines;  // behind the mark's own unit, if any
        bool utf16Only;
    } cases[] = {
        {u"k=v", {u"k=v"}, false},
        {u"k=v\n", {u"k=v"}, false},
        {u"a\r\nb", {u"a", u"", u"b"}, false},  // CR LF: a line and an empty line
        {u"a\n\n\nb\r", {u"a", u"", u"", u"b"}, false},
        {u"\n", {u""}, false},
        {u"a\u2028b\u2029c", {u"a", u"b", u"c"}, true},
    };
    for (const Case& c : cases) {
        for (Encoding e : {Encoding::kLittle, Encoding::kBig, Encoding::kMultibyte}) {
            if (c.utf16Only && e == Encoding::kMultibyte) continue;
            std::vector<std::u16string> expected = c.lines;
            if (e != Encoding::kMultibyte) expected.front().insert(0, mark);
            EXPECT_EQ(Lines(FileOf(e, c.text)), expected)
                << Hex(c.text) << " encoding " << static_cast<int>(e);
        }
    }
}

TEST(TextReaderTest, MultibyteLinesAreWindows1252AndKeepUnicodeLineSeparators) {
    // E2 80 A8 is U+2028 in UTF-8; here it is three characters of 1252 and no line end.
    EXPECT_EQ(Lines("\x80=\xE9\xE2\x80\xA8x\n"),
              std::vector<std::u16string>{u"\u20AC=\u00E9\u00E2\u20AC\u00A8x"});
}

TEST(TextReaderTest, AZeroUnitEndsTheLineOrTheData) {
    struct Case {
        std::u16string text;
        std::vector<std::u16string> lines;
    } cases[] = {
        {std::u16string(u"ab\0cd\n", 6), {u"ab", u"cd"}},
        {std::u16string(u"ab\n\0cd", 6), {u"ab"}},  // at the start of a line: the end
    };
    // The loader stops at that null; a reader asked again goes on behind the 0.
    std::istringstream stream(std::string("\0cd", 3));
    std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
    EXPECT_EQ(reader->ReadLine(), nullptr);
    EXPECT_EQ(std::u16string(reader->ReadLine()), u"cd");

    for (const Case& c : cases) {
        EXPECT_EQ(Lines(FileOf(Encoding::kMultibyte, c.text)), c.lines) << Hex(c.text);
        // Behind the mark, so the first line of the UTF-16 files holds it.
        std::vector<std::u16string> utf16 = c.lines;
        utf16.front().insert(0, 1, char16_t{0xFEFF});
        EXPECT_EQ(Lines(FileOf(Encoding::kLittle, c.text)), utf16) << Hex(c.text);
        EXPECT_EQ(Lines(FileOf(Encoding::kBig, c.text)), utf16) << Hex(c.text);
    }
}

TEST(TextReaderTest, ALoneLastByteOfUtf16GivesTheReplacementCharacter) {
    for (Encoding e : {Encoding::kLittle, Encoding::kBig}) {
        // A pair cut after its high half: the half passes as it is, and the lone byte behind it
        // is the only unit that is replaced.
        const std::u16string cut{u'a', 0xD83D};
        EXPECT_EQ(Lines(FileOf(e, cut)), std::vector<std::u16string>{u"\uFEFF" + cut});
        EXPECT_EQ(Lines(FileOf(e, cut) + "\xDE"),
                  std::vector<std::u16string>{u"\uFEFF" + cut + u"\uFFFD"});
        EXPECT_EQ(Lines(FileOf(e, u"a") + "\x41"), std::vector<std::u16string>{u"\uFEFFa\uFFFD"});
        EXPECT_EQ(Lines(FileOf(e, u"a\n") + "\x41"),
                  (std::vector<std::u16string>{u"\uFEFFa", u"\uFFFD"}));
    }
}

TEST(TextReaderTest, LongLinesGrowTheBuffersByHalfAndStayWhole) {
    // Lengths around each capacity: the NUL needs a unit of its own.
    for (size_t length : {255u, 256u, 257u, 383u, 384u, 1000u, 5000u}) {
        std::u16string text;
        for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char16_t>(u'a' + i % 26));
        for (Encoding e : {Encoding::kLittle, Encoding::kMultibyte}) {
            std::istringstream stream(FileOf(e, text + u"\nz"));
            std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
            std::u16string line = reader->ReadLine();  // the stream stays behind the mark
            EXPECT_EQ(line, text) << length;
            size_t capacity = 256;
            while (capacity < length + 1) capacity = capacity * 3 / 2;
            EXPECT_EQ(reader->LineCapacityForTesting(), capacity) << length;
            if (auto* multibyte = dynamic_cast<MultibyteReader*>(reader.get())) {
                size_t bytes = 256;
                while (bytes < length) bytes = bytes * 3 / 2;
                EXPECT_EQ(multibyte->ByteCapacityForTesting(), bytes) << length;
            }
            EXPECT_EQ(std::u16string(reader->ReadLine()), u"z");
        }
    }
}

// Random bytes through every reader: lines never hold a line end or a NUL, never hold more units
// than the bytes could give, and the reading ends. Run under the address sanitizer, any read
// outside a buffer fails it.
TEST(TextReaderTest, RandomBytesNeverBreakAReader) {
    std::mt19937 random(20261123);
    const char* prefixes[] = {"\xFF\xFE", "\xFE\xFF", ""};
    for (int round = 0; round < 600; ++round) {
        std::string bytes = prefixes[round % 3];
        const size_t size = random() % 700;
        for (size_t i = 0; i < size; ++i) {
            // Mostly non-zero, so that lines grow long enough to reach the buffers' growth.
            const unsigned r = random() % 64;
            bytes.push_back(static_cast<char>(r == 0 ? 0 : r < 8 ? '\n' : random() % 255 + 1));
        }
        std::istringstream stream(bytes);
        std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
        size_t units = 0;
        size_t lines = 0;
        while (const char16_t* line = reader->ReadLine()) {
            const std::u16string text(line);
            for (char16_t u : text) {
                ASSERT_TRUE(u != u'\n' && u != u'\r') << round;
                if (round % 3 != 2) {
                    ASSERT_TRUE(u != 0x2028 && u != 0x2029) << round;
                }
            }
            units += text.size();
            ASSERT_LE(++lines, bytes.size() + 1) << round;
        }
        EXPECT_LE(units, round % 3 == 2 ? bytes.size() : bytes.size() / 2) << round;
        if (stream.eof()) {
            EXPECT_EQ(reader->ReadLine(), nullptr) << round;
        }
    }
}

}  // namespace
