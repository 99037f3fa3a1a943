#include "dictionary/ExpandEntities.h"

#include <string>
#include <string_view>

namespace lexkit_private {
namespace {

struct EntityRow {
    std::u16string_view name;
    char16_t unit;  // for `endl`, the pair CR LF stands in its place (see kEndlRow)
};

// Row 0 is `endl`; its result is two units.
constexpr size_t kEndlRow = 0;

constexpr EntityRow kEntityTable[] = {
    {u"endl", 0x000D},
    {u"tab", 0x0009},
    {u"cr", 0x000D},
    {u"lf", 0x000A},
    // U+00A0 to U+00FF, one after the other.
    {u"nbsp", 0x00A0},
    {u"iexcl", 0x00A1},
    {u"cent", 0x00A2},
    {u"pound", 0x00A3},
    {u"curren", 0x00A4},
    {u"yen", 0x00A5},
    {u"brvbar", 0x00A6},
    {u"sect", 0x00A7},
    {u"uml", 0x00A8},
    {u"copy", 0x00A9},
    {u"ordf", 0x00AA},
    {u"laquo", 0x00AB},
    {u"not", 0x00AC},
    {u"shy", 0x00AD},
    {u"reg", 0x00AE},
    {u"macr", 0x00AF},
    {u"deg", 0x00B0},
    {u"plusmn", 0x00B1},
    {u"sup2", 0x00B2},
    {u"sup3", 0x00B3},
    {u"acute", 0x00B4},
    {u"micro", 0x00B5},
    {u"para", 0x00B6},
    {u"middot", 0x00B7},
    {u"cedil", 0x00B8},
    {u"sup1", 0x00B9},
    {u"ordm", 0x00BA},
    {u"raquo", 0x00BB},
    {u"frac14", 0x00BC},
    {u"frac12", 0x00BD},
    {u"frac34", 0x00BE},
    {u"iquest", 0x00BF},
    {u"Agrave", 0x00C0},
    {u"Aacute", 0x00C1},
    {u"Acirc", 0x00C2},
    {u"Atilde", 0x00C3},
    {u"Auml", 0x00C4},
    {u"Aring", 0x00C5},
    {u"AElig", 0x00C6},
    {u"Ccedil", 0x00C7},
    {u"Egrave", 0x00C8},
    {u"Eacute", 0x00C9},
    {u"Ecirc", 0x00CA},
    {u"Euml", 0x00CB},
    {u"Igrave", 0x00CC},
    {u"Iacute", 0x00CD},
    {u"Icirc", 0x00CE},
    {u"Iuml", 0x00CF},
    {u"ETH", 0x00D0},
    {u"Ntilde", 0x00D1},
    {u"Ograve", 0x00D2},
    {u"Oacute", 0x00D3},
    {u"Ocirc", 0x00D4},
    {u"Otilde", 0x00D5},
    {u"Ouml", 0x00D6},
    {u"times", 0x00D7},
    {u"Oslash", 0x00D8},
    {u"Ugrave", 0x00D9},
    {u"Uacute", 0x00DA},
    {u"Ucirc", 0x00DB},
    {u"Uuml", 0x00DC},
    {u"Yacute", 0x00DD},
    {u"THORN", 0x00DE},
    {u"szlig", 0x00DF},
    {u"agrave", 0x00E0},
    {u"aacute", 0x00E1},
    {u"acirc", 0x00E2},
    {u"atilde", 0x00E3},
    {u"auml", 0x00E4},
    {u"aring", 0x00E5},
    {u"aelig", 0x00E6},
    {u"ccedil", 0x00E7},
    {u"egrave", 0x00E8},
    {u"eacute", 0x00E9},
    {u"ecirc", 0x00EA},
    {u"euml", 0x00EB},
    {u"igrave", 0x00EC},
    {u"iacute", 0x00ED},
    {u"icirc", 0x00EE},
    {u"iuml", 0x00EF},
    {u"eth", 0x00F0},
    {u"ntilde", 0x00F1},
    {u"ograve", 0x00F2},
    {u"oacute", 0x00F3},
    {u"ocirc", 0x00F4},
    {u"otilde", 0x00F5},
    {u"ouml", 0x00F6},
    {u"divide", 0x00F7},
    {u"oslash", 0x00F8},
    {u"ugrave", 0x00F9},
    {u"uacute", 0x00FA},
    {u"ucirc", 0x00FB},
    {u"uuml", 0x00FC},
    {u"yacute", 0x00FD},
    {u"thorn", 0x00FE},
    {u"yuml", 0x00FF},
    // The rest, out of that range.
    {u"quot", 0x0022},
    {u"amp", 0x0026},
    {u"lt", 0x003C},
    {u"gt", 0x003E},
    {u"OElig", 0x0152},
    {u"oelig", 0x0153},
    {u"Scaron", 0x0160},
    {u"scaron", 0x0161},
    {u"Yuml", 0x0178},
    {u"circ", 0x02C6},
    {u"tilde", 0x02DC},
    {u"ensp", 0x2002},
    {u"emsp", 0x2003},
    {u"thinsp", 0x2009},
    {u"zwnj", 0x200C},
    {u"zwj", 0x200D},
    {u"lrm", 0x200E},
    {u"rlm", 0x200F},
    {u"ndash", 0x2013},
    {u"mdash", 0x2014},
    {u"lsquo", 0x2018},
    {u"rsquo", 0x2019},
    {u"sbquo", 0x201A},
    {u"ldquo", 0x201C},
    {u"rdquo", 0x201D},
    {u"bdquo", 0x201E},
    {u"dagger", 0x2020},
    {u"Dagger", 0x2021},
    {u"permil", 0x2030},
    {u"lsaquo", 0x2039},
    {u"rsaquo", 0x203A},
    {u"euro", 0x20AC},
};
static_assert(std::size(kEntityTable) == 132);

constexpr std::u16string_view kHexPrefixTable[] = {u"U+", u"u", u""};

int HexDigit(char16_t unit) {
    if (unit >= u'0' && unit <= u'9') return unit - u'0';
    if (unit >= u'a' && unit <= u'f') return unit - u'a' + 10;
    if (unit >= u'A' && unit <= u'F') return unit - u'A' + 10;
    return -1;
}

// An entity whose body begins `rest`: its body length and its result (one or two units).
struct Entity {
    size_t bodyLength = 0;
    char16_t result[2] = {0, 0};
    size_t resultLength = 0;
};

bool FindEntity(std::u16string_view rest, Entity& entity) {
    for (size_t row = 0; row < std::size(kEntityTable); ++row) {
        const EntityRow& r = kEntityTable[row];
        if (r.name.size() <= rest.size() && rest.starts_with(r.name)) {
            entity.bodyLength = r.name.size();
            if (row == kEndlRow) {
                entity.result[0] = u'\r';
                entity.result[1] = u'\n';
                entity.resultLength = 2;
            } else {
                entity.result[0] = r.unit;
                entity.resultLength = 1;
            }
            return true;
        }
    }
    for (const std::u16string_view prefix : kHexPrefixTable) {
        if (!(rest.size() > prefix.size() && rest.starts_with(prefix))) continue;
        // The first prefix that fits is the only one tried, digits or not.
        size_t at = prefix.size();
        uint32_t number = 0;
        size_t digits = 0;
        for (; digits < 4 && at < rest.size(); ++digits, ++at) {
            const int digit = HexDigit(rest[at]);
            if (digit < 0) break;
            number = number * 16 + static_cast<uint32_t>(digit);
        }
        if (digits == 0) return false;
        entity.bodyLength = at;
        entity.result[0] = static_cast<char16_t>(number);
        entity.resultLength = 1;
        return true;
    }
    return false;
}

}  // namespace

ByteRunValueRef ExpandEntities(const char16_t* units, uint32_t length) {
    if (length == 0) return ByteRunValueRef();
    const std::u16string_view text(units, length);
    std::u16string out;
    out.reserve(length);
    size_t at = 0;
    for (;;) {
        const size_t hash = text.find(u'#', at);
        if (hash == std::u16string_view::npos) {
            out.append(text.substr(at));
            break;
        }
        // `#` and `{` and at least a one-unit body and `}` must fit: 4 units from the `#`.
        Entity entity;
        const bool opens = text.size() - hash >= 4 && text[hash + 1] == u'{';
        if (opens) {
            const std::u16string_view rest = text.substr(hash + 2);
            if (FindEntity(rest, entity) && entity.bodyLength < rest.size() &&
                rest[entity.bodyLength] == u'}') {
                out.append(text.substr(at, hash - at));
                out.append(entity.result, entity.resultLength);
                at = hash + 2 + entity.bodyLength + 1;
                continue;
            }
        }
        out.append(text.substr(at, hash + 1 - at));
        at = hash + 1;
    }
    if (out.empty()) return ByteRunValueRef();
    return ByteRunValueRef::FromUnits(out.data(), out.size());
}

}  // namespace lexkit_private
