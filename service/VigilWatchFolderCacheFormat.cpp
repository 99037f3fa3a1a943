#include "service/VigilWatchFolderCacheFormat.h"

#include <array>

namespace Vigil::Watch {

namespace {

// Digit pair k (from 0) of the GUID text holds GUID byte kPairToByte[k]; the table is its own
// printing order, so the writer and the reader cannot disagree.
constexpr std::array<uint8_t, 16> kPairToByte = {3, 2, 1,  0,  5,  4,  7,  6,
                                                 9, 8, 11, 10, 15, 14, 13, 12};
// The printed groups end after these pairs; a dash follows the first four.
constexpr std::array<size_t, 4> kDashAfterPair = {4, 6, 8, 10};

int hexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    return -1;
}

// The blanks that a blank of a scan format, and a number conversion, skip.
bool isBlank(char16_t c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

void skipBlanks(std::u16string_view text, size_t& pos) {
    while (pos < text.size() && isBlank(text[pos])) ++pos;
}

// A line as the reader sees it: the stream hands over a terminated string, so a zero unit inside
// a line ends its text there, and nothing behind it in that line is used.
std::u16string_view textOf(std::u16string_view line) {
    const size_t zero = line.find(u'\0');
    return zero == std::u16string_view::npos ? line : line.substr(0, zero);
}

// One number conversion of a scan format ("%d" with base 10, "%X" with base 16): blanks, a sign,
// for base 16 an optional 0x, then at least one digit. A value too large for 32 bits keeps its low
// 32 bits rather than failing the line; only GUID words and whether an option is 0 depend on it.
// False when no digit stands there, with `pos` then unspecified (the scan ends anyway).
bool scanNumber(std::u16string_view text, size_t& pos, int base, uint32_t& value) {
    skipBlanks(text, pos);
    bool negative = false;
    if (pos < text.size() && (text[pos] == u'+' || text[pos] == u'-')) {
        negative = text[pos] == u'-';
        ++pos;
    }
    if (base == 16 && pos + 2 < text.size() && text[pos] == u'0' &&
        (text[pos + 1] == u'x' || text[pos + 1] == u'X') && hexValue(text[pos + 2]) >= 0) {
        pos += 2;
    }
    uint32_t result = 0;
    size_t digits = 0;
    for (; pos < text.size(); ++pos, ++digits) {
        const int digit = hexValue(text[pos]);
        if (digit < 0 || digit >= base) break;
        result = result * static_cast<uint32_t>(base) + static_cast<uint32_t>(digit);
    }
    if (digits == 0) return false;
    value = negative ? 0u - result : result;
    return true;
}

// A literal character of a scan format: it must stand exactly at `pos` (no blanks before it).
bool scanLiteral(std::u16string_view text, size_t& pos, char16_t c) {
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
}

void appendUnit(char16_t unit, std::vector<uint8_t>& out) {
    out.push_back(static_cast<uint8_t>(unit & 0xFF));
    out.push_back(static_cast<uint8_t>(unit >> 8));
}

void appendText(std::u16string_view text, std::vector<uint8_t>& out) {
    const size_t at = out.size();
    out.resize(at + 2 * text.size());
    uint8_t* put = out.data() + at;
    for (const char16_t unit : text) {
        *put++ = static_cast<uint8_t>(unit & 0xFF);
        *put++ = static_cast<uint8_t>(unit >> 8);
    }
}

// A folder line behind a GUID text made once per client.
void appendLine(std::u16string_view guidText, const WatchedFolder& folder,
                std::vector<uint8_t>& out) {
    appendText(guidText, out);
    // The columns hold single digits; a stored option other than 0 or 1 is still written as 1 so
    // that the path stays at column 50.
    const FolderOptions& o = folder.options;
    char16_t middle[] = u", 0, 0, 0, 0, ";
    middle[2] = o.watchSubtree != 0 ? u'1' : u'0';
    middle[5] = o.reportChanged != 0 ? u'1' : u'0';
    middle[8] = o.reportRemoved != 0 ? u'1' : u'0';
    appendText(std::u16string_view(middle, 14), out);
    appendText(folder.path, out);
    appendUnit(u'\n', out);
}

}  // namespace

bool parseGuid(std::u16string_view line, Guid& guid) {
    uint32_t value = 0;
    size_t digits = 0;
    for (const char16_t c : line) {
        if (digits == 32) break;
        if (c == u'-') continue;
        const int digit = hexValue(c);
        if (digit < 0) return false;
        value = (value << 4) | static_cast<uint32_t>(digit);
        ++digits;
        if (digits % 2 == 0) guid.bytes[kPairToByte[digits / 2 - 1]] = static_cast<uint8_t>(value);
    }
    return digits == 32;
}

std::u16string formatGuid(const Guid& guid) {
    static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
    std::u16string text;
    text.reserve(36);
    for (size_t pair = 0; pair < kPairToByte.size(); ++pair) {
        const uint8_t byte = guid.bytes[kPairToByte[pair]];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
        for (const size_t after : kDashAfterPair) {
            if (pair + 1 == after) text += u'-';
        }
    }
    return text;
}

bool acceptVersionLine(int generation, std::u16string_view line) {
    const std::u16string_view text = textOf(line);
    // Read as "%d.%d": a minor number is only read behind a major one and its dot.
    uint32_t major = 0xFFFFFFFF;
    uint32_t minor = 0xFFFFFFFF;
    size_t pos = 0;
    if (scanNumber(text, pos, 10, major) && scanLiteral(text, pos, u'.')) {
        scanNumber(text, pos, 10, minor);
    }
    if (text.size() < 3) return false;
    if (generation == 3) return major == 0 && minor == 5;
    if (generation == 2) return major == 0 && minor == 3;
    return false;  // generation 1 has no reader
}

bool parseFolderLine(int generation, std::u16string_view line, Guid& guid, WatchedFolder& folder) {
    const std::u16string_view text = textOf(line);
    if (text.size() < kMinCacheLineUnits || text.size() > kMaxCacheLineUnits) return false;
    // watchSubtree, reportChanged, reportRemoved, reserved. Generation 2 reads only the first, so
    // the others keep these values, the same that a folder of the short AddFolders layout gets.
    uint32_t numbers[4] = {1, 1, 0, 0};
    size_t pathColumn = 0;
    if (generation == 3) {
        if (!parseGuid(text, guid)) return false;
        // A line that ends at or before the path column has no path to cut its line end from; it
        // is taken for a malformed line like any other.
        if (text.size() <= kPathColumn3) return false;
        // ", %d, %d, %d, %d, " from column 36; the scan stops at its first mismatch, and a number
        // it did not reach keeps its default.
        size_t pos = 36;
        for (uint32_t& number : numbers) {
            if (!scanLiteral(text, pos, u',') || !scanNumber(text, pos, 10, number)) break;
        }
        pathColumn = kPathColumn3;
    } else if (generation == 2) {
        // "%X %X %X %X, %d,": words that the scan does not reach stay 0.
        uint32_t words[4] = {0, 0, 0, 0};
        size_t pos = 0;
        bool scanned = true;
        for (uint32_t& word : words) {
            if (!(scanned = scanNumber(text, pos, 16, word))) break;
        }
        if (scanned && scanLiteral(text, pos, u',')) scanNumber(text, pos, 10, numbers[0]);
        for (size_t i = 0; i < 16; ++i) {
            guid.bytes[i] = static_cast<uint8_t>(words[i / 4] >> (8 * (i % 4)));
        }
        pathColumn = kPathColumn2;
    } else {
        return false;
    }
    // The last unit is the line end, or on a last line that lost it, the path's own last unit.
    folder.path.assign(text.substr(pathColumn, text.size() - pathColumn - 1));
    folder.options.watchSubtree = numbers[0] != 0 ? 1 : 0;
    folder.options.reportChanged = numbers[1] != 0 ? 1 : 0;
    folder.options.reportRemoved = numbers[2] != 0 ? 1 : 0;
    folder.options.reserved = numbers[3] != 0 ? 1 : 0;
    return true;
}

void appendFolderLine(const Guid& guid, const WatchedFolder& folder, std::vector<uint8_t>& out) {
    appendLine(formatGuid(guid), folder, out);
}

std::vector<uint8_t> encodeCacheFile(const CachedFolderTable& table) {
    size_t bytes = 8;
    for (const auto& [guid, folders] : table) {
        for (const WatchedFolder& folder : folders) bytes += 2 * (51 + folder.path.size());
    }
    std::vector<uint8_t> out;
    out.reserve(bytes);
    appendText(u"0.5\n", out);
    for (const auto& [guid, folders] : table) {
        const std::u16string guidText = formatGuid(guid);
        for (const WatchedFolder& folder : folders) {
            // A Linux file name may hold a line feed, which the format cannot carry: the line
            // would come back as two malformed ones and end the load there.
            if (folder.path.find_first_of(std::u16string_view(u"\n\0", 2)) !=
                std::u16string::npos) {
                continue;
            }
            appendLine(guidText, folder, out);
        }
    }
    return out;
}

}  // namespace Vigil::Watch
