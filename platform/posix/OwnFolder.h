// Opening a folder of the process's own user for work relative to its descriptor, so that a path
// component swapped later cannot redirect that work. Internal to the POSIX backend.
#pragma once

#include <cstdint>
#include <string>

namespace Osb::posix {

// Opens the folder `folder` (closing separators allowed) and returns its descriptor, or -1 with
// the last error (ErrorCode.h) set. Refused: a symbolic link in the last component (5; it is never
// followed), a folder that belongs to another user than the process's effective one (5), and
// anything else that is not a folder (`notFolderCode`). Other failures give the translated errno,
// judged against `errorPath` (a missing parent of `errorPath` gives 3).
int OpenOwnFolder(std::string folder, const std::string& errorPath, uint32_t notFolderCode);

}  // namespace Osb::posix
