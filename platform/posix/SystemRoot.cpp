#include "platform/SystemRoot.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {

std::string SystemRoot() {
    const char* root = std::getenv("VIGIL_SYSTEM_ROOT");
    std::string path = (root != nullptr && *root != '\0') ? root : "/";
    while (!path.empty() && path.back() == '/') path.pop_back();
    return path;
}

std::string CommonAppDataFolder() { return SystemRoot() + "/var/lib"; }

uint32_t PipeSocketPath(const std::u16string& name, std::string& path) {
    static const std::u16string kPrefix = u"\\\\.\\pipe\\";
    std::u16string bare = name;
    if (bare.size() >= kPrefix.size()) {
        bool prefixed = true;
        for (size_t i = 0; i < kPrefix.size() && prefixed; ++i) {
            char16_t c = bare[i];
            if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
            prefixed = c == kPrefix[i];
        }
        if (prefixed) bare.erase(0, kPrefix.size());
    }
    if (bare.empty() || bare.find(u'/') != std::u16string::npos ||
        bare.find(u'\0') != std::u16string::npos || bare == u"." || bare == u"..") {
        return Err::kInvalidName;
    }
    std::string candidate = SystemRoot() + "/run/orvanta/pipe/" + Utf16ToUtf8(bare);
    if (candidate.size() >= sizeof(sockaddr_un{}.sun_path)) return Err::kFilenameExcedRange;
    path = std::move(candidate);
    return Err::kSuccess;
}

uint32_t CreateDirectories(const std::string& path) {
    if (path.empty()) return Err::kSuccess;
    std::string partial;
    size_t at = 0;
    while (at <= path.size()) {
        size_t slash = path.find('/', at);
        if (slash == std::string::npos) slash = path.size();
        partial = path.substr(0, slash);
        at = slash + 1;
        if (partial.empty()) continue;
        if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
            return SetLastErrorFromErrno(errno, partial.c_str());
        }
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return SetLastErrorFromErrno(errno, path.c_str());
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(Err::kAlreadyExists);
        return Err::kAlreadyExists;
    }
    return Err::kSuccess;
}

}  // namespace Osb
