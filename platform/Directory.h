// CreateDirectoryW: one folder, its parent must exist.
#pragma once

#include <string>

namespace Osb {

// Creates the folder `path` (mode 0755). Returns true, or false with the last error (ErrorCode.h)
// set: 183 when anything exists at `path`, 3 when the parent is missing, 5 when refused, 123 for a
// path that holds a zero unit, or the translated code of the system's failure. Any thread.
bool CreateDirectoryW(const std::u16string& path);

}  // namespace Osb
