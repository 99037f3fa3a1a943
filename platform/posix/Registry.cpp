#include "platform/Registry.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "platform/Utf.h"
#include "platform/posix/FdIo.h"

namespace Osb {

// A key is a directory; a handle remembers its path and the access it was opened with, so that a
// write through a key opened for reading fails here as it does on Windows. The predefined root is
// one static handle whose path is computed at each use, so that it follows VIGIL_SYSTEM_ROOT.
struct RegKeyHandle {
    bool isRoot = false;
    std::string path;
    uint32_t access = 0;
};

namespace {

RegKeyHandle rootHandle{true, "", Reg::kKeyAllAccess};

int32_t Code(uint32_t code) { return static_cast<int32_t>(code); }

std::string RegistryRoot() { return SystemRoot() + "/etc/orvanta/registry/HKEY_LOCAL_MACHINE"; }

std::string KeyPath(HKey key) { return key->isRoot ? RegistryRoot() : key->path; }

// A name that cannot be one directory entry: empty, "." or "..", or holding '/' or NUL.
bool BadEntryName(const std::string& name) {
    return name.empty() || name == "." || name == ".." ||
           name.find_first_of(std::string_view("/\0", 2)) != std::string::npos;
}

// Joins `subKey` to the directory of `root`. Empty components are skipped, so "A\\B\\" and
// "A\\\\B" name the key A\B.
int32_t Resolve(HKey root, const std::u16string& subKey, std::string& out) {
    if (root == nullptr) return Code(Err::kInvalidHandle);
    out = KeyPath(root);
    const std::string utf8 = Utf16ToUtf8(subKey);
    size_t at = 0;
    while (at <= utf8.size()) {
        size_t end = utf8.find('\\', at);
        if (end == std::string::npos) end = utf8.size();
        const std::string part = utf8.substr(at, end - at);
        at = end + 1;
        if (part.empty()) continue;
        if (BadEntryName(part)) return Code(Err::kInvalidName);
        out += '/';
        out += part;
    }
    return 0;
}

int32_t ValuePath(HKey key, const std::u16string& valueName, std::string& out) {
    if (key == nullptr) return Code(Err::kInvalidHandle);
    const std::string name = Utf16ToUtf8(valueName);
    if (BadEntryName(name)) return Code(Err::kInvalidName);
    out = KeyPath(key) + "/" + name;
    return 0;
}

bool IsDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A key that is missing, wherever on its path, is 2 in the registry (never 3).
int32_t MissingAsNotFound(int err) {
    return Code(SetLastErrorFromErrno(err == ENOTDIR ? ENOENT : err));
}

std::string ParentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Reads the whole file at `path` into `text`; 0 or a Windows code.
int32_t ReadValueFile(const std::string& path, std::string& text) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return MissingAsNotFound(errno);
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {  // a subkey of that name, not a value
        ::close(fd);
        return Code(Err::kFileNotFound);
    }
    text.clear();
    const int err = posix::ReadAll(fd, text);
    ::close(fd);
    return err == 0 ? 0 : Code(SetLastErrorFromErrno(err));
}

// Writes `text` to `path` through a temporary file in the same folder and a rename, so that a
// reader sees the old value or the new one, never a part.
int32_t ReplaceFile(const std::string& path, const std::string& text) {
    std::string temporary = ParentOf(path) + "/.~value.XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return MissingAsNotFound(errno);
    bool ok = ::fchmod(fd, 0644) == 0 && posix::WriteAll(fd, text) && ::fsync(fd) == 0;
    int err = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (ok) return 0;
    ::unlink(temporary.c_str());
    return Code(SetLastErrorFromErrno(err));
}

}  // namespace

HKey HKeyLocalMachine() { return &rootHandle; }

int32_t RegOpenKeyExW(HKey root, const std::u16string& subKey, uint32_t, uint32_t access,
                      HKey* result) {
    if (result == nullptr) return Code(Err::kInvalidParameter);
    std::string path;
    if (const int32_t status = Resolve(root, subKey, path)) return status;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return MissingAsNotFound(errno);
    if (!S_ISDIR(st.st_mode)) return Code(Err::kFileNotFound);  // a value, not a key
    *result = new RegKeyHandle{false, path, access};
    return 0;
}

int32_t RegCreateKeyExW(HKey root, const std::u16string& subKey, uint32_t access, HKey* result,
                        uint32_t* disposition) {
    if (result == nullptr) return Code(Err::kInvalidParameter);
    std::string path;
    if (const int32_t status = Resolve(root, subKey, path)) return status;
    // The parents first, then the key itself: whether this mkdir made it tells the disposition,
    // even when another process creates the same key at the same time.
    if (const uint32_t status = CreateDirectories(ParentOf(path))) return Code(status);
    bool created = ::mkdir(path.c_str(), 0755) == 0;
    if (!created) {
        const int err = errno;
        if (!IsDirectory(path)) return Code(SetLastErrorFromErrno(err, path.c_str()));
    }
    if (disposition != nullptr) {
        *disposition = created ? Reg::kCreatedNewKey : Reg::kOpenedExistingKey;
    }
    *result = new RegKeyHandle{false, path, access};
    return 0;
}

int32_t RegQueryValueExW(HKey key, const std::u16string& valueName, uint32_t* type, uint8_t* data,
                         uint32_t* dataBytes) {
    std::string path;
    if (const int32_t status = ValuePath(key, valueName, path)) return status;
    if ((key->access & Reg::kQueryValue) == 0) return Code(Err::kAccessDenied);
    if (data != nullptr && dataBytes == nullptr) return Code(Err::kInvalidParameter);
    std::string text;
    if (const int32_t status = ReadValueFile(path, text)) return status;
    // The file's one final newline is the file's, not the value's.
    if (!text.empty() && text.back() == '\n') text.pop_back();
    const std::u16string wide = Utf8ToUtf16(text);
    const uint32_t needed = static_cast<uint32_t>((wide.size() + 1) * sizeof(char16_t));
    if (type != nullptr) *type = Reg::kTypeSz;
    if (dataBytes == nullptr) return 0;
    const uint32_t room = *dataBytes;
    *dataBytes = needed;
    if (data == nullptr) return 0;
    if (room < needed) return Reg::kMoreData;
    std::memcpy(data, wide.c_str(), needed);
    return 0;
}

int32_t RegSetValueExW(HKey key, const std::u16string& valueName, uint32_t type,
                       const uint8_t* data, uint32_t bytes) {
    std::string path;
    if (const int32_t status = ValuePath(key, valueName, path)) return status;
    if ((key->access & Reg::kSetValue) == 0) return Code(Err::kAccessDenied);
    // Only text can be stored as a text file; any other type would come back as a different one.
    if (type != Reg::kTypeSz || (data == nullptr && bytes != 0)) {
        return Code(Err::kInvalidParameter);
    }
    std::u16string wide(bytes / sizeof(char16_t), u'\0');
    if (!wide.empty()) std::memcpy(wide.data(), data, wide.size() * sizeof(char16_t));
    // A string value ends at its first zero unit, which is how every reader of it sees it.
    if (const size_t nul = wide.find(u'\0'); nul != std::u16string::npos) wide.resize(nul);
    if (IsDirectory(path)) return Code(Err::kAccessDenied);  // a subkey holds that name
    return ReplaceFile(path, Utf16ToUtf8(wide) + "\n");
}

int32_t RegDeleteKeyW(HKey root, const std::u16string& subKey) {
    std::string path;
    if (const int32_t status = Resolve(root, subKey, path)) return status;
    if (path == RegistryRoot()) return Code(Err::kAccessDenied);  // the predefined key stays
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) return MissingAsNotFound(errno);
    // Values are files and go with the key; a subkey (a directory) keeps it, as on Windows.
    std::vector<std::string> values;
    bool hasSubkey = false;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string child = path + "/" + name;
        if (IsDirectory(child)) {
            hasSubkey = true;
            break;
        }
        values.push_back(child);
    }
    ::closedir(dir);
    if (hasSubkey) return Code(Err::kAccessDenied);
    for (const std::string& value : values) {
        if (::unlink(value.c_str()) != 0 && errno != ENOENT) {
            return Code(SetLastErrorFromErrno(errno));
        }
    }
    if (::rmdir(path.c_str()) != 0) return MissingAsNotFound(errno);
    return 0;
}

int32_t RegCloseKey(HKey key) {
    if (key == nullptr) return Code(Err::kInvalidHandle);
    if (!key->isRoot) delete key;
    return 0;
}

}  // namespace Osb
