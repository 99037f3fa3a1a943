#include "dictionary/Unescape.h"

#include <string>

#include "dictionary/ExpandEntities.h"

namespace lexkit_private {
namespace {

struct EscapeRow {
    char16_t character;
    char16_t result;
};

constexpr EscapeRow kBackslashEscapeTable[] = {
    {u'"', 0x0022}, {u'n', 0x000A}, {u'r', 0x000D}, {u't', 0x0009}, {u'b', 0x0008},
};

constexpr EscapeRow kCaretEscapeTable[] = {
    {u'Q', 0x0022}, {u'[', 0x201C}, {u']', 0x201D}, {u'{', 0x2018}, {u'}', 0x2019}, {u'C', 0x00A9},
    {u'R', 0x00AE}, {u'T', 0x2122}, {u'D', 0x00B0}, {u'B', 0x2022}, {u'#', 0x2318}, {u'!', 0x00AC},
    {u'I', 0x2206}, {u'S', 0x2211}, {u'n', 0x000A}, {u'r', 0x000D},
};

template <size_t N>
bool LookUp(const EscapeRow (&table)[N], char16_t character, char16_t& result) {
    for (const EscapeRow& row : table) {
        if (row.character == character) {
            result = row.result;
            return true;
        }
    }
    return false;
}

}  // namespace

ByteRunValueRef Unescape(const char16_t* units, uint32_t length) {
    std::u16string out;
    out.reserve(length);
    char16_t opener = 0;  // 0 outside an escape, else `^` or `\`
    for (uint32_t i = 0; i < length; ++i) {
        const char16_t unit = units[i];
        if (opener == 0) {
            if (unit == u'^' || unit == u'\\') {
                opener = unit;
            } else {
                out.push_back(unit);
            }
            continue;
        }
        char16_t result;
        const bool found = opener == u'^' ? LookUp(kCaretEscapeTable, unit, result)
                                          : LookUp(kBackslashEscapeTable, unit, result);
        if (found) {
            out.push_back(result);
        } else {
            out.push_back(opener);
            if (unit != opener) out.push_back(unit);
        }
        opener = 0;
    }
    if (opener != 0) out.push_back(opener);
    return ExpandEntities(out.data(), static_cast<uint32_t>(out.size()));
}

}  // namespace lexkit_private
