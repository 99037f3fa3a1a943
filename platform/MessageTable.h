// The program's message table: twelve ids in eight languages. The event log and the exceptions of
// the protocol take their texts from here. Texts are used exactly as they stand, final CR LF included.
#pragma once

#include <cstdint>
#include <string_view>

namespace Osb {

enum class MessageLanguage { kGerman, kEnglish, kFrench, kItalian, kJapanese, kDutch, kSwedish, kSpanish };

// The language the environment selects: the first of LC_ALL, LC_MESSAGES and LANG that is set and
// not empty decides by its first two letters (de, en, fr, it, ja, nl, sv, es); English otherwise.
MessageLanguage MessageLanguageFromEnvironment();

// The text of `id` in `language`, or an empty view when the table has no such id.
std::u16string_view MessageText(uint32_t id, MessageLanguage language);

}  // namespace Osb
