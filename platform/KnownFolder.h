// SHGetFolderPathW for the one folder the program asks for: the common application data folder.
//
// On POSIX that folder is ROOT/var/lib (SystemRoot.h). It is never created here: a machine without
// it has a valid folder path that does not exist, which the call reports as S_FALSE, the way
// Windows does for a known folder that is missing.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

constexpr int kCsidlCommonAppData = 0x23;
constexpr uint32_t kShgfpTypeCurrent = 0;
constexpr uint32_t kShgfpTypeDefault = 1;

// HRESULT values that the call returns.
constexpr uint32_t kSOk = 0;
constexpr uint32_t kSFalse = 1;
constexpr uint32_t kEFail = 0x80004005;
constexpr uint32_t kEInvalidArg = 0x80070057;

// Sets `path` to the folder `csidl` (no trailing separator) and returns S_OK; S_FALSE when the
// path is valid but nothing exists there, E_FAIL when something that is not a folder stands there,
// E_INVALIDARG for any other `csidl`. `path` is set on S_FALSE and E_FAIL too. Any thread.
uint32_t SHGetFolderPathW(int csidl, uint32_t flags, std::u16string& path);

}  // namespace Osb
