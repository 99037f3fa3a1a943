#include "platform/Registry.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "platform/Utf.h"

namespace Osb {

// A key is a directory; a handle remembers its path. The predefined root is a static handle whose
// path is computed at each use, so that it follows VIGIL_SYSTEM_ROOT.
struct RegKeyHandle {
    bool isRoot = false;
    std::string path;
};

namespace {

RegKeyHandle rootHandle{true, ""};

std::string KeyPath(HKey key) {
    if (key->isRoot) return SystemRoot() + "/etc/orvanta/registry/HKEY_LOCAL_MACHINE";
    return key->path;
}

// Joins `subKey` (backslash-separated) to the key's directory; 0 or 123.
int32_t Resolve(HKey root, const std::u16string& subKey, std::string& out) {
    if (root == nullptr) return static_cast<int32_t>(Err::kInvalidHandle);
    out = KeyPath(root);
    std::string utf8 = Utf16ToUtf8(subKey);
    std::stringstream parts(utf8);
    std::string part;
    while (std::getline(parts, part, '\\')) {
        if (part.empty()) continue;
        if (part == "." || part == ".." || part.find('/') != std::string::npos ||
            part.find('\0') != std::string::npos) {
            return static_cast<int32_t>(Err::kInvalidName);
        }
        out += "/" + part;
    }
    return 0;
}

bool IsDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int32_t ValuePath(HKey key, const std::u16string& valueName, std::string& out) {
    if (key == nullptr) return static_cast<int32_t>(Err::kInvalidHandle);
    std::string name = Utf16ToUtf8(valueName);
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        return static_cast<int32_t>(Err::kInvalidName);
    }
    out = KeyPath(key) + "/" + name;
    return 0;
}

}  // namespace

HKey HKeyLocalMachine() { return &rootHandle; }

int32_t RegOpenKeyExW(HKey root, const std::u16string& subKey, uint32_t, uint32_t, HKey* result) {
    std::string path;
    if (int32_t status = Resolve(root, subKey, path)) return status;
    if (!IsDirectory(path)) {
        struct stat st;
        if (::stat(path.c_str(), &st) == 0) return static_cast<int32_t>(Err::kFileNotFound);
        return static_cast<int32_t>(SetLastErrorFromErrno(errno == ENOTDIR ? ENOENT : errno));
    }
    *result = new RegKeyHandle{false, path};
    return 0;
}

int32_t RegCreateKeyExW(HKey root, const std::u16string& subKey, uint32_t, HKey* result,
                        uint32_t* disposition) {
    std::string path;
    if (int32_t status = Resolve(root, subKey, path)) return status;
    bool existed = IsDirectory(path);
    if (!existed) {
        if (uint32_t status = CreateDirectories(path)) return static_cast<int32_t>(status);
    }
    if (disposition) *disposition = existed ? Reg::kOpenedExistingKey : Reg::kCreatedNewKey;
    *result = new RegKeyHandle{false, path};
    return 0;
}

int32_t RegQueryValueExW(HKey key, const std::u16string& valueName, uint32_t* type, uint8_t* data,
                         uint32_t* dataBytes) {
    std::string path;
    if (int32_t status = ValuePath(key, valueName, path)) return status;
    std::ifstream in(path, std::ios::binary);
    if (!in || IsDirectory(path)) return static_cast<int32_t>(Err::kFileNotFound);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!text.empty() && text.back() == '\n') text.pop_back();
    std::u16string wide = Utf8ToUtf16(text);
    uint32_t needed = static_cast<uint32_t>((wide.size() + 1) * sizeof(char16_t));
    if (type) *type = Reg::kTypeSz;
    if (dataBytes == nullptr) return data ? static_cast<int32_t>(Err::kInvalidParameter) : 0;
    if (data == nullptr) {
        *dataBytes = needed;
        return 0;
    }
    if (*dataBytes < needed) {
        *dataBytes = needed;
        return Reg::kMoreData;
    }
    std::memcpy(data, wide.c_str(), needed);
    *dataBytes = needed;
    return 0;
}

int32_t RegSetValueExW(HKey key, const std::u16string& valueName, uint32_t, const uint8_t* data,
                       uint32_t bytes) {
    std::string path;
    if (int32_t status = ValuePath(key, valueName, path)) return status;
    std::u16string wide(bytes / 2, u'\0');
    if (bytes >= 2) std::memcpy(wide.data(), data, wide.size() * 2);
    if (auto nul = wide.find(u'\0'); nul != std::u16string::npos) wide.resize(nul);
    std::string text = Utf16ToUtf8(wide) + "\n";
    // Written whole to a temporary beside the value, then renamed over it, so a reader never sees
    // half a value.
    std::string temporary = path + ".tmp" + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return static_cast<int32_t>(SetLastErrorFromErrno(errno, temporary.c_str()));
    ssize_t written = ::write(fd, text.data(), text.size());
    int err = errno;
    ::close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        ::unlink(temporary.c_str());
        return static_cast<int32_t>(SetLastErrorFromErrno(written < 0 ? err : ENOSPC));
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        err = errno;
        ::unlink(temporary.c_str());
        return static_cast<int32_t>(SetLastErrorFromErrno(err));
    }
    return 0;
}

int32_t RegDeleteKeyW(HKey root, const std::u16string& subKey) {
    std::string path;
    if (int32_t status = Resolve(root, subKey, path)) return status;
    if (!IsDirectory(path)) return static_cast<int32_t>(Err::kFileNotFound);
    // Values are files and go with the key; a subkey (a directory) keeps it.
    std::vector<std::string> values;
    if (DIR* dir = ::opendir(path.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            if (IsDirectory(path + "/" + name)) {
                ::closedir(dir);
                return static_cast<int32_t>(Err::kAccessDenied);
            }
            values.push_back(path + "/" + name);
        }
        ::closedir(dir);
    }
    for (const std::string& value : values) ::unlink(value.c_str());
    if (::rmdir(path.c_str()) != 0) return static_cast<int32_t>(SetLastErrorFromErrno(errno));
    return 0;
}

int32_t RegCloseKey(HKey key) {
    if (key == nullptr) return static_cast<int32_t>(Err::kInvalidHandle);
    if (!key->isRoot) delete key;
    return 0;
}

}  // namespace Osb
