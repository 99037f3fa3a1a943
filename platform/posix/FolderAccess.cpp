#include "platform/FolderAccess.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/ErrorCode.h"
#include "platform/Utf.h"
#include "platform/posix/FolderAccessByHand.h"

#ifndef SYS_faccessat2
#define SYS_faccessat2 439  // the same number on every architecture
#endif

namespace Osb {

namespace {

// The calling thread's file system user, group and supplementary groups, switched to those of
// `user` for the life of the object. Raw system calls, because the kernel keeps credentials per
// thread and glibc's setgroups would change every thread of the process; the other threads, and
// with them the watch thread and the other connections, never see the switch.
//
// active() is true only when every switch took and the thread holds no capability that overrides
// file permissions under the new file system user (leaving user 0 drops them; a service of a
// plain user given CAP_DAC_READ_SEARCH would keep it, and would judge wrongly).
class ThreadFsCredentials {
  public:
    explicit ThreadFsCredentials(const PeerIdentity& user) {
        const int count = ::getgroups(0, nullptr);
        if (count < 0) return;
        savedGroups_.resize(static_cast<size_t>(count));
        if (::getgroups(count, savedGroups_.data()) != count) return;
        std::vector<gid_t> groups(user.groups.begin(), user.groups.end());
        if (::syscall(SYS_setgroups, groups.size(), groups.data()) != 0) return;
        groupsSet_ = true;
        savedGid_ = static_cast<gid_t>(::syscall(SYS_setfsgid, user.gid));
        gidSet_ = true;
        if (static_cast<uint32_t>(::syscall(SYS_setfsgid, -1)) != user.gid) return;
        savedUid_ = static_cast<uid_t>(::syscall(SYS_setfsuid, user.uid));
        uidSet_ = true;
        if (static_cast<uint32_t>(::syscall(SYS_setfsuid, -1)) != user.uid) return;
        active_ = !OverridesPermissions();
    }
    ~ThreadFsCredentials() {
        // A thread left acting as another user would serve the next request with the wrong
        // rights; better to stop the process than to go on.
        if (uidSet_) {
            ::syscall(SYS_setfsuid, savedUid_);
            if (static_cast<uid_t>(::syscall(SYS_setfsuid, -1)) != savedUid_) std::abort();
        }
        if (gidSet_) {
            ::syscall(SYS_setfsgid, savedGid_);
            if (static_cast<gid_t>(::syscall(SYS_setfsgid, -1)) != savedGid_) std::abort();
        }
        if (groupsSet_ && ::syscall(SYS_setgroups, savedGroups_.size(), savedGroups_.data()) != 0) {
            std::abort();
        }
    }
    ThreadFsCredentials(const ThreadFsCredentials&) = delete;
    ThreadFsCredentials& operator=(const ThreadFsCredentials&) = delete;

    bool active() const { return active_; }

  private:
    static bool OverridesPermissions() {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
        if (::syscall(SYS_capget, &header, data) != 0) return true;
        const uint32_t overriding = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
        return (data[0].effective & overriding) != 0;
    }

    std::vector<gid_t> savedGroups_;
    gid_t savedGid_ = 0;
    uid_t savedUid_ = 0;
    bool groupsSet_ = false;
    bool gidSet_ = false;
    bool uidSet_ = false;
    bool active_ = false;
};

// The kernel's answer for the thread's current file system credentials. `unsupported` is set when
// the kernel has no faccessat2 (before Linux 5.8): faccessat without AT_EACCESS would judge by the
// real user, which is not the switched one.
uint32_t KernelCheck(const std::string& path, bool& unsupported) {
    if (::syscall(SYS_faccessat2, AT_FDCWD, path.c_str(), R_OK | X_OK, AT_EACCESS) == 0) {
        return Err::kSuccess;
    }
    const int error = errno;
    if (error == ENOSYS) {
        unsupported = true;
        return Err::kAccessDenied;
    }
    if (error != ENOENT) return Err::kAccessDenied;
    // The walk reached the missing name, so the user may search its parent; still acting as the
    // user, tell a missing name from a missing folder on the way.
    std::string parent = path;
    while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
    const size_t slash = parent.rfind('/');
    if (slash == std::string::npos) return Err::kFileNotFound;
    parent.resize(slash == 0 ? 1 : slash);
    struct stat st;
    return ::stat(parent.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? Err::kFileNotFound
                                                                   : Err::kPathNotFound;
}

// The folder path of `directory` below `folder`, with the closing separator.
std::u16string Joined(const std::u16string& folder, const std::u16string& directory) {
    std::u16string path = folder;
    if (path.empty() || path.back() != u'/') path += u'/';
    if (!directory.empty()) {
        path += directory;
        path += u'/';
    }
    return path;
}

}  // namespace

FolderAccess::FolderAccess(PeerIdentity user, Method method)
    : user_(std::move(user)), method_(method) {}

uint32_t FolderAccess::check(const std::u16string& folder) {
    std::vector<uint32_t> results;
    checkAll({folder}, results);
    SetLastError(results.front());
    return results.front();
}

void FolderAccess::checkAll(const std::vector<std::u16string>& folders,
                            std::vector<uint32_t>& results) {
    results.assign(folders.size(), Err::kSuccess);
    std::vector<std::string> native(folders.size());
    for (size_t i = 0; i < folders.size(); ++i) {
        if (folders[i].find(u'\0') != std::u16string::npos) {
            results[i] = Err::kInvalidName;
        } else {
            native[i] = Utf16ToUtf8(folders[i]);
        }
    }
    usedKernel_ = false;
    if (method_ == Method::kAuto && user_.known) {
        ThreadFsCredentials acting(user_);
        if (acting.active()) {
            bool unsupported = false;
            for (size_t i = 0; i < folders.size() && !unsupported; ++i) {
                if (results[i] != Err::kInvalidName)
                    results[i] = KernelCheck(native[i], unsupported);
            }
            usedKernel_ = !unsupported;
        }
    }
    if (!usedKernel_) {
        for (size_t i = 0; i < folders.size(); ++i) {
            if (results[i] != Err::kInvalidName)
                results[i] = posix::CheckFolderByHand(native[i], user_);
        }
    }
    for (uint32_t code : results) {
        if (code != Err::kSuccess) SetLastError(code);
    }
}

void FolderAccess::checkBelow(const std::u16string& folder,
                              const std::vector<std::u16string>& directories,
                              std::vector<uint32_t>& results) {
    const bool plain =
        folder.find(u'\0') == std::u16string::npos &&
        std::none_of(directories.begin(), directories.end(),
                     [](const std::u16string& d) { return d.find(u'\0') != std::u16string::npos; });
    if (method_ == Method::kAuto && user_.known && plain) {
        results.assign(directories.size(), Err::kSuccess);
        ThreadFsCredentials acting(user_);
        if (acting.active()) {
            const std::string base = Utf16ToUtf8(folder);
            // Opened as the user: only search on the way is needed for a path handle, and each
            // lookup below it asks for search on the folder again, as a walk of the whole path
            // would.
            const int fd = ::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            bool unsupported = false;
            for (size_t i = 0; i < directories.size() && !unsupported; ++i) {
                if (fd >= 0 && !directories[i].empty() && directories[i].front() != u'/') {
                    const std::string relative = Utf16ToUtf8(directories[i]) + "/";
                    if (::syscall(SYS_faccessat2, fd, relative.c_str(), R_OK | X_OK, AT_EACCESS) ==
                        0) {
                        continue;
                    }
                }
                // The folder itself, a refusal (for its exact code) or no handle: the whole path.
                results[i] = KernelCheck(Utf16ToUtf8(Joined(folder, directories[i])), unsupported);
            }
            if (fd >= 0) ::close(fd);
            if (!unsupported) {
                usedKernel_ = true;
                for (uint32_t code : results) {
                    if (code != Err::kSuccess) SetLastError(code);
                }
                return;
            }
        }
    }
    std::vector<std::u16string> paths;
    paths.reserve(directories.size());
    for (const std::u16string& directory : directories) paths.push_back(Joined(folder, directory));
    checkAll(paths, results);
}

}  // namespace Osb
