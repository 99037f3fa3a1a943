// mst_util::reg_key_t: one key below HKEY_LOCAL_MACHINE, opened on demand and closed with the
// object.
//
// A key opened with an access that may write (KEY_SET_VALUE or KEY_CREATE_SUB_KEY) is created,
// with its missing parents, when it does not exist; a key opened for reading alone never is.
// Values are read as text. The object owns the open key; it is neither copied nor moved. One
// thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Registry.h"

namespace mst_util {

class reg_key_t {
  public:
    // Copies `path` (a key path with backslashes, below HKEY_LOCAL_MACHINE). Opens the key at once
    // when `openNow` is set; the status of that opening is then lost, so a caller that needs it
    // passes false and calls open().
    reg_key_t(const std::u16string& path, uint32_t access, bool openNow);
    // Closes the key if it is open, and empties the path.
    virtual ~reg_key_t();
    reg_key_t(const reg_key_t&) = delete;
    reg_key_t& operator=(const reg_key_t&) = delete;

    // Opens the key: returns the registry's status, 0 on success. A missing key gives the status
    // of the failed opening when the access only reads, and is created otherwise. A key that is
    // already open is closed first, so that calling open() twice leaks nothing.
    int32_t open();

    // The text of value `name`, up to its first NUL. `defaultValue` when the key is not open, the
    // value is missing, or it changed size between the two queries; "" for a value of no bytes.
    // `status`, when not null, gets the registry's status of the last query.
    std::u16string read_string(const std::u16string& name, const std::u16string& defaultValue,
                               int32_t* status) const;

    bool is_open() const { return key != nullptr; }

  private:
    void close();

    Osb::HKey root;       // always HKEY_LOCAL_MACHINE
    Osb::HKey key;        // the open key, owned; null when none is open
    uint32_t access;      // the access mask for opening
    std::u16string path;  // the key's path below `root`
};

}  // namespace mst_util
