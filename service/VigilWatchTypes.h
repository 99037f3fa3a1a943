// The value types the watch engine and the protocol share.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace Vigil::Watch {

// A client's GUID: 16 raw bytes as they came over the pipe, opaque to the service. Equality and
// order are those of an unsigned byte-wise comparison.
struct Guid {
    std::array<uint8_t, 16> bytes{};

    friend bool operator==(const Guid& a, const Guid& b) { return a.bytes == b.bytes; }
    friend std::strong_ordering operator<=>(const Guid& a, const Guid& b) {
        int c = std::memcmp(a.bytes.data(), b.bytes.data(), a.bytes.size());
        return c < 0   ? std::strong_ordering::less
               : c > 0 ? std::strong_ordering::greater
                       : std::strong_ordering::equal;
    }
};

// How one folder is watched. Each value is 0 or 1.
struct FolderOptions {
    uint8_t watchSubtree = 0;   // the whole tree below the folder, not only its entries
    uint8_t reportChanged = 0;  // names that appear or change go on the pending list
    uint8_t reportRemoved = 0;  // names that disappear go on it too; else they are taken off it
    uint8_t reserved = 0;       // always 0
};

struct WatchedFolder {
    std::u16string path;  // ends with the path separator
    FolderOptions options;
};

// The directory that holds a pending name, relative to the watched folder: the part of the name
// before its last separator, empty for a name in the folder itself.
inline std::u16string_view DirectoryOf(std::u16string_view name) {
    const size_t slash = name.rfind(u'/');
    return slash == std::u16string_view::npos ? std::u16string_view() : name.substr(0, slash);
}

// Sets and maps of directory names that can be searched by a view, without making a string.
struct DirectoryHash {
    using is_transparent = void;
    size_t operator()(std::u16string_view text) const {
        return std::hash<std::u16string_view>{}(text);
    }
};
using DirectorySet = std::unordered_set<std::u16string, DirectoryHash, std::equal_to<>>;
template <typename Value>
using DirectoryMap = std::unordered_map<std::u16string, Value, DirectoryHash, std::equal_to<>>;

}  // namespace Vigil::Watch
