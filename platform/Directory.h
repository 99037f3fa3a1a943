// CreateDirectoryW: one folder, its parent must exist. And the folders a service keeps to itself.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

// Creates the folder `path` (mode 0755). Returns true, or false with the last error (ErrorCode.h)
// set: 183 when anything exists at `path`, 3 when the parent is missing, 5 when refused, 123 for a
// path that holds a zero unit, or the translated code of the system's failure. Any thread.
bool CreateDirectoryW(const std::u16string& path);

// CreateDirectoryW for a folder that only the calling process's user may use: it is made with
// mode 0700 (the umask can only take rights away), so that no other user ever sees it open.
bool CreatePrivateDirectory(const std::u16string& path);

// Makes sure that `path` (a closing separator allowed) is a folder of the calling process's user
// that nobody else may use, tightening its rights to exactly 0700 when they differ. Refuses,
// without changing anything: a symbolic link in the last component (5; it is never followed), a
// folder that belongs to another user (5), anything that is not a folder (267). Returns 0 or that
// code; a missing path gives 2 or 3. Any thread.
uint32_t MakeFolderPrivate(const std::u16string& path);

}  // namespace Osb
