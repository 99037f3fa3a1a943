#include "util/RegKey.h"

#include <vector>

namespace mst_util {

reg_key_t::reg_key_t(const std::u16string& keyPath, uint32_t accessMask, bool openNow)
    : root(Osb::HKeyLocalMachine()), key(nullptr), access(accessMask), path(keyPath) {
    if (openNow) open();
}

reg_key_t::~reg_key_t() {
    close();
    path.clear();
}

void reg_key_t::close() {
    if (key != nullptr) {
        Osb::RegCloseKey(key);
        key = nullptr;
    }
}

int32_t reg_key_t::open() {
    close();
    int32_t status = Osb::RegOpenKeyExW(root, path, 0, access, &key);
    if (status == 0) return 0;
    key = nullptr;
    if ((access & (Osb::Reg::kSetValue | Osb::Reg::kCreateSubKey)) == 0) return status;
    status = Osb::RegCreateKeyExW(root, path, access, &key, nullptr);
    if (status != 0) key = nullptr;
    return status;
}

std::u16string reg_key_t::read_string(const std::u16string& name,
                                      const std::u16string& defaultValue, int32_t* status) const {
    uint32_t bytes = 0;
    int32_t result = Osb::RegQueryValueExW(key, name, nullptr, nullptr, &bytes);
    if (status != nullptr) *status = result;
    if (result != 0) return defaultValue;
    if (bytes == 0) return {};
    // One unit more than the value needs, zeroed, so that the text ends in a NUL even when the
    // stored data has none. The type is not checked: any value is taken as text.
    std::vector<char16_t> buffer(bytes / 2 + 1, u'\0');
    uint32_t room = static_cast<uint32_t>(buffer.size() * sizeof(char16_t));
    result =
        Osb::RegQueryValueExW(key, name, nullptr, reinterpret_cast<uint8_t*>(buffer.data()), &room);
    if (status != nullptr) *status = result;
    // A value that grew since the first query does not fit (234): the default, not a cut text.
    if (result != 0) return defaultValue;
    return std::u16string(buffer.data());
}

}  // namespace mst_util
