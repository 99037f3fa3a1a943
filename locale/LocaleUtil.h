// The locale table: 208 rows in a fixed order, and the search of a locale name in it.
//
// Row 0 and row 207 are marks with the locale id 0 and 0xFFFFFFFF and empty texts; rows 1 to 206
// are locales. The row number is what the dictionary is told, and it knows the row of en_us (58)
// as a constant, so the order of the rows never changes. Seven names stand in two adjacent rows
// (script or sort variants); a search always finds the first. Constant data; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace lexkit_private {

struct LocaleRow {
    uint32_t localeId;         // the Windows locale identifier
    const char* abbreviation;  // the three-letter Windows language abbreviation
    const char* name;          // language and region in lower case, joined by '_'
    const char* fullName;      // the same with the script where one exists, else the name
};

constexpr size_t kLocaleRowCount = 208;
constexpr uint32_t kLocaleIndexEnUs = 58;

const std::array<LocaleRow, kLocaleRowCount>& LocaleTable();

// The first row whose name equals `name` when both are lowered byte by byte, ASCII letters only
// (as tolower does in the C locale, whatever locale the process has set). Nothing else is
// normalised: "en-US" and "en" stand in no row. The empty name finds row 0; row 207 is never a
// result. Raises std::runtime_error("Invalid locale string in locale/LocaleUtil") for a name that
// stands in no row.
uint32_t LocaleIndexFromName(const std::string& name);

}  // namespace lexkit_private
