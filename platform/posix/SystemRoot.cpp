#include "platform/SystemRoot.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"

namespace Osb {

namespace {

bool IsDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The name without a leading "\\.\pipe\", which Windows matches without regard to case.
std::u16string_view BarePipeName(std::u16string_view name) {
    constexpr std::u16string_view kPrefix = u"\\\\.\\pipe\\";
    if (name.size() < kPrefix.size()) return name;
    for (size_t i = 0; i < kPrefix.size(); ++i) {
        char16_t c = name[i];
        if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
        if (c != kPrefix[i]) return name;
    }
    return name.substr(kPrefix.size());
}

}  // namespace

std::string SystemRoot() {
    const char* root = std::getenv("VIGIL_SYSTEM_ROOT");
    std::string path = (root != nullptr && *root != '\0') ? root : "/";
    while (!path.empty() && path.back() == '/') path.pop_back();
    return path;
}

std::string CommonAppDataFolder() { return SystemRoot() + "/var/lib"; }

uint32_t PipeSocketPath(const std::u16string& name, std::string& path) {
    const std::u16string_view bare = BarePipeName(name);
    // "." and ".." would name the pipe folder or its parent, not a socket in it.
    if (bare.empty() || bare == u"." || bare == u".." ||
        bare.find_first_of(std::u16string_view(u"/\0", 2)) != std::u16string_view::npos) {
        return Err::kInvalidName;
    }
    std::string candidate = SystemRoot() + "/run/orvanta/pipe/" + Utf16ToUtf8(bare);
    // sun_path must hold the path and its terminating NUL.
    if (candidate.size() >= sizeof(sockaddr_un{}.sun_path)) return Err::kFilenameExcedRange;
    path = std::move(candidate);
    return Err::kSuccess;
}

uint32_t CreateDirectories(const std::string& path) {
    if (path.empty()) return Err::kSuccess;
    size_t at = 0;
    while (at <= path.size()) {
        size_t slash = path.find('/', at);
        if (slash == std::string::npos) slash = path.size();
        const std::string partial = path.substr(0, slash);
        at = slash + 1;
        if (partial.empty() || partial.back() == '/') continue;  // the leading or a doubled slash
        if (::mkdir(partial.c_str(), 0755) == 0) continue;
        const int err = errno;
        // A folder that exists is fine, even where creating it would have been refused (a
        // read-only mount, or a parent the caller may not write).
        if (IsDirectory(partial)) continue;
        if (err == EEXIST) {
            // Something that is not a folder stands in the way. Below it nothing can be made,
            // which Windows calls a missing path; when it is the path itself, the answer is 183.
            const bool last = path.find_first_not_of('/', slash) == std::string::npos;
            const uint32_t code = last ? Err::kAlreadyExists : Err::kPathNotFound;
            SetLastError(code);
            return code;
        }
        return SetLastErrorFromErrno(err, partial.c_str());
    }
    return Err::kSuccess;
}

}  // namespace Osb
