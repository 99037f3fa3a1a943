// The path of the running executable, as Windows' GetModuleFileNameW gives it for the process's
// own module. On POSIX it is the target of /proc/self/exe, converted to UTF-16 by the rule of
// platform/Utf.h (bytes that are not UTF-8 survive as lone low surrogates). Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

// Copies the executable's full path into `buffer`, which holds `size` units, always terminated by
// a zero unit when `size` > 0. Returns the length without the terminator. A path that does not fit
// is cut to `size` - 1 units; the call then returns `size` and sets the last error to 122, as
// Windows does. When the path cannot be found it returns 0 with the last error set.
uint32_t GetModuleFileNameW(char16_t* buffer, uint32_t size);

// The executable's full path, never cut. Empty, with the last error set, when it cannot be found.
std::u16string ModuleFileName();

// The folder of the executable: ModuleFileName() up to its last '/', which is not included.
// Empty when the path cannot be found.
std::u16string ModuleFolder();

}  // namespace Osb
