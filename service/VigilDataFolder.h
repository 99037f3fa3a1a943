// The service's data folder: below the common application data folder, with the fixed tail
// "/Orvanta/Mirelle Studio/File Agent/" (the separator is the platform's).
//
// Service::dataFolder calls DataFolderWith(DataFolderCalls::system()); tests give their own calls
// to reach the failures that a real machine rarely shows.
#pragma once

#include <cstdint>
#include <string>

namespace Vigil {

struct DataFolderCalls {
    // SHGetFolderPathW for the common application data folder: an HRESULT, `path` set on S_OK.
    uint32_t (*getFolderPath)(std::u16string& path);
    // _waccess(path, 0) == 0.
    bool (*exists)(const std::u16string& path);
    // CreateDirectoryW: true, or false with the code in ErrorCode().
    bool (*createDirectory)(const std::u16string& path);

    static DataFolderCalls system();
};

// The tail below the system's folder. It starts and ends with the separator.
std::u16string DataFolderTail();

// Finds the data folder and creates its missing levels, one at a time below the system's folder,
// which is never created. Returns the path, which ends with the separator. Raises Osb::ExSystem:
// 161 when the system's folder is valid but missing (S_FALSE, E_FAIL), 160 for any other failure
// of the folder query, and the code of CreateDirectoryW for a level that cannot be made (183, an
// existing level, and 123 are tolerated).
std::u16string DataFolderWith(const DataFolderCalls& calls);

}  // namespace Vigil
