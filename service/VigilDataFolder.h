// The service's data folder: below the common application data folder, with the fixed tail
// "/Orvanta/Mirelle Studio/File Agent/" (the separator is the platform's).
//
// The folder holds every client's GUID and folders, so it is the service's alone: it belongs to the
// user the service runs as and grants nobody else any right (0700). The levels above it that the
// service makes stay open to all (0755). A data folder that is a symbolic link, or that belongs to
// another user, could have been planted by whoever made it to steer the service's writes: the
// start refuses it (5) instead of using it, and names the folder.
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
    // CreateDirectoryW, for the levels above the data folder: true, or false with the code in
    // ErrorCode().
    bool (*createDirectory)(const std::u16string& path);
    // The same for the data folder itself, made private (0700) from the start.
    bool (*createPrivateDirectory)(const std::u16string& path);
    // Osb::MakeFolderPrivate: 0, or the code of a refusal or failure.
    uint32_t (*makePrivate)(const std::u16string& path);

    static DataFolderCalls system();
};

// The tail below the system's folder. It starts and ends with the separator.
std::u16string DataFolderTail();

// Finds the data folder and creates its missing levels, one at a time below the system's folder,
// which is never created; the last level is made private. Then makes sure that the folder, found
// or made, is private (tightening the rights of one that an older version left open). Returns the
// path, which ends with the separator. Raises Osb::ExSystem: 161 when the system's folder is valid
// but missing (S_FALSE, E_FAIL), 160 for any other failure of the folder query, the code of
// CreateDirectoryW for a level that cannot be made (183, an existing level, and 123 are
// tolerated), and the code of makePrivate (5 for a symbolic link or a folder of another user, 267
// for a file) with a second reason that names the folder.
std::u16string DataFolderWith(const DataFolderCalls& calls);

}  // namespace Vigil
