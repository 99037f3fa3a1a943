// The byte format of the watch folder cache file, reader and writer side by side, as functions of
// their input so that tests drive them without a file.
//
// Every generation is UTF-16 little-endian, two bytes a unit, no byte order mark; a line ends with
// one U+000A (bytes 0A 00) and no carriage return.
//
// Generation 3, "WatchFolder.3.cache", the only one written:
//   line 1        "0.5\n"
//   folder line   "GGGGGGGG-GGGG-GGGG-GGGG-GGGGGGGGGGGG, a, b, c, d, PATH\n"
//     columns 0-35   the client GUID, upper-case hexadecimal; the digit pairs print the GUID's
//     bytes
//                    in the order 3 2 1 0 - 5 4 - 7 6 - 9 8 - 11 10 15 14 13 12
//     columns 36-49  ", a, b, c, d, " with watchSubtree, reportChanged, reportRemoved (0 or 1)
//                    and reserved (always 0)
//     column 50-     the folder's path as stored, to the line end
// Generation 2, "WatchFolder.2.cache", read once and migrated:
//   line 1        "0.3"
//   folder line   "%X %X %X %X, %d," then the path at column 40: four 32-bit words holding GUID
//                 bytes 0-3, 4-7, 8-11, 12-15 little-endian, and watchSubtree; the other options
//                 read as reportChanged 1, reportRemoved 0, reserved 0.
// Generation 1, "WatchFolder.cache": no version of it is accepted; it is only deleted.
//
// A folder line of either generation is accepted with 42 to 300 units, its line end included, so a
// generation 3 path holds at most 249 units and a generation 2 path at most 259.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "service/VigilWatchTypes.h"

namespace Vigil::Watch {

inline constexpr char16_t kCacheFileName3[] = u"WatchFolder.3.cache";
inline constexpr char16_t kCacheFileName2[] = u"WatchFolder.2.cache";
inline constexpr char16_t kCacheFileName1[] = u"WatchFolder.cache";
// A save writes the new content under this name first and renames it over the current file; the
// reader never looks at it, and a start removes one that a crash left behind.
inline constexpr char16_t kCacheTemporaryName[] = u"WatchFolder.3.cache.tmp";

inline constexpr size_t kMinCacheLineUnits = 42;   // line end included
inline constexpr size_t kMaxCacheLineUnits = 300;  // line end included
inline constexpr size_t kPathColumn3 = 50;
inline constexpr size_t kPathColumn2 = 40;
// The reader takes a line in pieces of at most this many units (a limit of 1024 with its
// terminator), so a longer line fails the length test with its first piece.
inline constexpr size_t kCacheReadPieceUnits = 1023;

// The folder table as the database holds it: clients in byte-wise GUID order, each client's
// folders in the order they were first added.
using CachedFolderTable = std::map<Guid, std::vector<WatchedFolder>>;

// Reads a GUID from the start of `line`: hexadecimal digits of either case, dashes skipped
// wherever they stand, 32 digits filling the bytes in the order of the folder line above (pair 1 to
// byte 3, 2 to 2, 3 to 1, 4 to 0, 5 to 5, 6 to 4, 7 to 7, 8 to 6, 9 to 9, 10 to 8, 11 to 11, 12 to
// 10, 13 to 15, 14 to 14, 15 to 13, 16 to 12). True once 32 digits are seen (the rest is not looked
// at); false at any other character or at the end of `line` before that, with `guid` then holding
// whatever pairs were complete.
bool parseGuid(std::u16string_view line, Guid& guid);

// The 36-unit text of `guid` as a folder line holds it; parseGuid reads it back.
std::u16string formatGuid(const Guid& guid);

// True when `line` (the first line of a file of `generation`, as read, line end included) states
// the version that generation is read with: 0.5 for 3, 0.3 for 2, none for 1. The line must hold at
// least 3 units; the numbers are read as "%d.%d" reads them (leading blanks, a sign, any digits).
bool acceptVersionLine(int generation, std::u16string_view line);

// Reads one folder line of `generation` 3 or 2, as read (at most 1023 units, line end included
// when there is one). Returns false for a malformed line: a length outside 42 to 300, a generation
// 3 line without a GUID at its start or without a path column (50 units or fewer). Otherwise fills
// `guid` and `folder`: the path is the text from the path column with its last unit cut (the line
// end, or a path unit when the line lost its end), and each option is 1 when its number is not 0.
// Numbers that are missing keep their defaults (watchSubtree 1, reportChanged 1, reportRemoved 0,
// reserved 0). The path's existence is not tested here.
bool parseFolderLine(int generation, std::u16string_view line, Guid& guid, WatchedFolder& folder);

// The bytes of one generation 3 folder line, line end included. Options are written 0 or 1
// (reserved always 0).
void appendFolderLine(const Guid& guid, const WatchedFolder& folder, std::vector<uint8_t>& out);

// The whole content of a generation 3 file for `table`: the version line, then a line per folder
// of each client in table order. A client without folders adds no line. A folder whose path holds
// a line feed or a zero unit is left out: its line could not be read back as written and would end
// the load of every line behind it.
std::vector<uint8_t> encodeCacheFile(const CachedFolderTable& table);

}  // namespace Vigil::Watch
