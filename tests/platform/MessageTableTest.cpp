#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "platform/MessageTable.h"
#include "platform/Utf.h"
#include "tests/support/ScopedEnv.h"

namespace {

using vigil_test::ScopedEnv;
using Osb::MessageLanguage;


struct EnglishRow {
    uint32_t id;
    std::u16string_view text;
};

// The English texts as the event log, the protocol's error replies and the clients know them.
constexpr EnglishRow kEnglish[] = {
    {0x20000A0A, u"Orvanta Vigil Watch Service has Started.\r\n"},
    {0x20000A0B, u"Orvanta Vigil Watch Service has Paused.\r\n"},
    {0x20000A0C, u"Orvanta Vigil Watch Service has Resumed.\r\n"},
    {0x20000A0D, u"Orvanta Vigil Watch Service has Stopped.\r\n"},
    {0x22020A02, u"Tracks files that are managed by Orvanta Mirelle Studio\r\n"},
    {0xE0000A0E, u"Orvanta Vigil Watch Service has terminated because of a system error.\r\n"},
    {0xE0000A0F,
     u"Orvanta Vigil Watch Service has terminated because of an unexpected exception.\r\n"
     u"%1!s!\r\n"},
    {0xE0000A10,
     u"Orvanta Vigil Watch Service has determined that the message received from the client has "
     u"an invalid protocol header\r\n"},
    {0xE0000A11,
     u"Orvanta Vigil Watch Service has determined that the message received from the client has "
     u"an invalid message length\r\n"},
    {0xE0000A12,
     u"Orvanta Vigil Watch Service has determined that the message received from the client has "
     u"invalid data\r\n"},
    {0xE0000A13,
     u"Orvanta Vigil Watch Service has determined that the message received from the client is "
     u"unsupported\r\n"},
    {0xE0000A14,
     u"Orvanta Vigil Watch Service has determined that the message received from the client "
     u"specified an invalid version\r\n"},
};

constexpr MessageLanguage kAllLanguages[] = {
    MessageLanguage::kGerman,  MessageLanguage::kEnglish,  MessageLanguage::kFrench,
    MessageLanguage::kItalian, MessageLanguage::kJapanese, MessageLanguage::kDutch,
    MessageLanguage::kSwedish, MessageLanguage::kSpanish,
};

size_t Count(std::u16string_view text, std::u16string_view what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::u16string_view::npos;
         at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

std::string Hex(uint32_t id) {
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "0x%08X", static_cast<unsigned>(id));
    return buffer;
}

TEST(MessageTableTest, EnglishTextsAreExactToTheByte) {
    for (const EnglishRow& row : kEnglish) {
        EXPECT_EQ(Osb::MessageText(row.id, MessageLanguage::kEnglish), row.text) << Hex(row.id);
    }
}

TEST(MessageTableTest, EveryLanguageHasEveryIdWithTheEnglishStructure) {
    for (MessageLanguage language : kAllLanguages) {
        for (const EnglishRow& row : kEnglish) {
            const std::u16string_view text = Osb::MessageText(row.id, language);
            const std::string where =
                Hex(row.id) + " in language " + std::to_string(static_cast<int>(language));
            ASSERT_GT(text.size(), 2u) << where;
            EXPECT_EQ(text.substr(text.size() - 2), u"\r\n") << where;
            // Line breaks and inserts are where the event log folds and fills: the same number
            // in every language, and no percent sign besides the insert marker.
            EXPECT_EQ(Count(text, u"\r\n"), Count(row.text, u"\r\n")) << where;
            EXPECT_EQ(Count(text, u"\r"), Count(text, u"\r\n")) << where;
            EXPECT_EQ(Count(text, u"\n"), Count(text, u"\r\n")) << where;
            EXPECT_EQ(Count(text, u"%1!s!"), Count(row.text, u"%1!s!")) << where;
            EXPECT_EQ(Count(text, u"%"), Count(row.text, u"%")) << where;
            // The insert keeps its own line, as in English.
            if (Count(row.text, u"%1!s!") != 0) {
                EXPECT_NE(text.find(u"\r\n%1!s!\r\n"), std::u16string_view::npos) << where;
            }
            // Product names are not translated.
            const std::u16string_view product =
                row.id == 0x22020A02 ? u"Orvanta Mirelle Studio" : u"Orvanta Vigil Watch";
            EXPECT_NE(text.find(product), std::u16string_view::npos) << where;
            // Stored as UTF-16 that survives the trip to the UTF-8 event file.
            EXPECT_EQ(Osb::Utf8ToUtf16(Osb::Utf16ToUtf8(text)), text) << where;
            if (language != MessageLanguage::kEnglish) {
                EXPECT_NE(text, row.text) << where << " is not translated";
            }
        }
    }
}

TEST(MessageTableTest, TranslationsAreDistinctPerId) {
    // A text pasted into the wrong row would repeat within one language.
    for (MessageLanguage language : kAllLanguages) {
        for (size_t i = 0; i < std::size(kEnglish); ++i) {
            for (size_t j = i + 1; j < std::size(kEnglish); ++j) {
                EXPECT_NE(Osb::MessageText(kEnglish[i].id, language),
                          Osb::MessageText(kEnglish[j].id, language))
                    << Hex(kEnglish[i].id) << " and " << Hex(kEnglish[j].id) << " in language "
                    << static_cast<int>(language);
            }
        }
    }
}

TEST(MessageTableTest, UnknownIdsHaveNoText) {
    // Neighbours of real ids, other severity bits, and operating system codes.
    for (uint32_t id : {0x0u, 0x2u, 0x5u, 0x20000A09u, 0x20000A0Eu, 0x22020A03u, 0xE0000A0Du,
                        0xE0000A15u, 0x60000A0Au, 0xFFFFFFFFu}) {
        for (MessageLanguage language : kAllLanguages) {
            EXPECT_TRUE(Osb::MessageText(id, language).empty()) << Hex(id);
        }
    }
}

TEST(MessageTableTest, LanguageFollowsTheFirstLocaleVariableThatIsSet) {
    struct Case {
        const char* lcAll;
        const char* lcMessages;
        const char* lang;
        MessageLanguage expected;
    };
    const Case cases[] = {
        {nullptr, nullptr, nullptr, MessageLanguage::kEnglish},
        {nullptr, nullptr, "C", MessageLanguage::kEnglish},
        {nullptr, nullptr, "POSIX", MessageLanguage::kEnglish},
        {nullptr, nullptr, "C.UTF-8", MessageLanguage::kEnglish},
        {nullptr, nullptr, "de_DE.UTF-8", MessageLanguage::kGerman},
        {nullptr, nullptr, "en_GB", MessageLanguage::kEnglish},
        {nullptr, nullptr, "fr_FR", MessageLanguage::kFrench},
        {nullptr, nullptr, "it_IT.UTF-8", MessageLanguage::kItalian},
        {nullptr, nullptr, "ja_JP.UTF-8", MessageLanguage::kJapanese},
        {nullptr, nullptr, "nl_NL", MessageLanguage::kDutch},
        {nullptr, nullptr, "sv_SE.UTF-8", MessageLanguage::kSwedish},
        {nullptr, nullptr, "es_ES", MessageLanguage::kSpanish},
        {nullptr, nullptr, "de", MessageLanguage::kGerman},
        {nullptr, nullptr, "pt_BR.UTF-8", MessageLanguage::kEnglish},
        {nullptr, nullptr, "d", MessageLanguage::kEnglish},
        // LC_MESSAGES before LANG, LC_ALL before both.
        {nullptr, "fr_FR", "de_DE", MessageLanguage::kFrench},
        {"ja_JP", "fr_FR", "de_DE", MessageLanguage::kJapanese},
        {"sv_SE", nullptr, "de_DE", MessageLanguage::kSwedish},
        // The first one that is set decides even when it names no language of the table.
        {"C", "fr_FR", "de_DE", MessageLanguage::kEnglish},
        {nullptr, "C", "de_DE", MessageLanguage::kEnglish},
        {nullptr, "pt_PT", "es_ES", MessageLanguage::kEnglish},
        // An empty value counts as not set.
        {"", "", "nl_NL", MessageLanguage::kDutch},
        {"", "it_IT", "nl_NL", MessageLanguage::kItalian},
        {"", "", "", MessageLanguage::kEnglish},
    };
    for (const Case& c : cases) {
        ScopedEnv lcAll("LC_ALL", c.lcAll);
        ScopedEnv lcMessages("LC_MESSAGES", c.lcMessages);
        ScopedEnv lang("LANG", c.lang);
        EXPECT_EQ(Osb::MessageLanguageFromEnvironment(), c.expected)
            << "LC_ALL=" << (c.lcAll ? c.lcAll : "(unset)")
            << " LC_MESSAGES=" << (c.lcMessages ? c.lcMessages : "(unset)")
            << " LANG=" << (c.lang ? c.lang : "(unset)");
    }
}

}  // namespace
