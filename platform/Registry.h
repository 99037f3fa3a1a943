// The registry, as files: key HKEY_LOCAL_MACHINE\A\B is the directory
// ROOT/etc/orvanta/registry/HKEY_LOCAL_MACHINE/A/B, and its string value V the file .../A/B/V holding
// the value as UTF-8 (one final newline is not part of the value). ROOT is SystemRoot().
//
// The calls carry the names and the return convention of their Windows originals: the result is a
// Windows error code, 0 on success. Key paths use backslashes; empty components (a trailing
// backslash) are ignored. "." and ".." are refused as key names with 123.
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

struct RegKeyHandle;
using HKey = RegKeyHandle*;

// The predefined root key.
HKey HKeyLocalMachine();

namespace Reg {
constexpr uint32_t kQueryValue = 0x0001;
constexpr uint32_t kSetValue = 0x0002;
constexpr uint32_t kCreateSubKey = 0x0004;
constexpr uint32_t kKeyRead = 0x20019;
constexpr uint32_t kKeyWrite = 0x20006;
constexpr uint32_t kKeyAllAccess = 0xF003F;
constexpr uint32_t kTypeSz = 1;               // REG_SZ
constexpr uint32_t kCreatedNewKey = 1;        // REG_CREATED_NEW_KEY
constexpr uint32_t kOpenedExistingKey = 2;    // REG_OPENED_EXISTING_KEY
constexpr int32_t kMoreData = 234;            // ERROR_MORE_DATA
}  // namespace Reg

// Opens an existing key. A missing key gives 2.
int32_t RegOpenKeyExW(HKey root, const std::u16string& subKey, uint32_t options, uint32_t access,
                      HKey* result);
// Opens a key, creating it and every missing parent. `disposition` may be null.
int32_t RegCreateKeyExW(HKey root, const std::u16string& subKey, uint32_t access, HKey* result,
                        uint32_t* disposition);
// Reads a value as REG_SZ: UTF-16 with a terminating zero unit. With `data` null, or `dataBytes`
// too small (then 234), only the needed size in bytes is stored in `dataBytes`. A missing value
// gives 2. `type` may be null.
int32_t RegQueryValueExW(HKey key, const std::u16string& valueName, uint32_t* type, uint8_t* data,
                         uint32_t* dataBytes);
// Writes a REG_SZ value from UTF-16 text; a terminating zero unit in `data` is not stored.
int32_t RegSetValueExW(HKey key, const std::u16string& valueName, uint32_t type,
                       const uint8_t* data, uint32_t bytes);
// Deletes a key with its values; a key that has subkeys gives 5.
int32_t RegDeleteKeyW(HKey root, const std::u16string& subKey);
int32_t RegCloseKey(HKey key);

}  // namespace Osb
