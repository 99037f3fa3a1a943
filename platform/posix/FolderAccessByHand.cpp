#include "platform/posix/FolderAccessByHand.h"

#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/ErrorCode.h"

namespace Osb::posix {

namespace {

constexpr unsigned kRead = 4;
constexpr unsigned kSearch = 1;
constexpr int kMaxLinks = 40;  // the kernel's limit of links followed in one walk

struct AclEntry {
    acl_tag_t tag;
    uint32_t id;  // the qualifier of ACL_USER and ACL_GROUP entries
    unsigned perm;
};

// The ACL of `path` (the minimal one made from the mode when it has none), or false when it cannot
// be read (a file system without ACLs: the mode alone then counts).
bool ReadAcl(const std::string& path, std::vector<AclEntry>& entries) {
    acl_t acl = ::acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
    if (acl == nullptr) return false;
    acl_entry_t entry;
    for (int got = ::acl_get_entry(acl, ACL_FIRST_ENTRY, &entry); got == 1;
         got = ::acl_get_entry(acl, ACL_NEXT_ENTRY, &entry)) {
        AclEntry e{ACL_UNDEFINED_TAG, PeerIdentity::kNoId, 0};
        acl_permset_t permset;
        if (::acl_get_tag_type(entry, &e.tag) != 0 || ::acl_get_permset(entry, &permset) != 0) {
            continue;
        }
        if (::acl_get_perm(permset, ACL_READ) == 1) e.perm |= 4;
        if (::acl_get_perm(permset, ACL_WRITE) == 1) e.perm |= 2;
        if (::acl_get_perm(permset, ACL_EXECUTE) == 1) e.perm |= 1;
        if (e.tag == ACL_USER || e.tag == ACL_GROUP) {
            void* qualifier = ::acl_get_qualifier(entry);
            if (qualifier == nullptr) continue;
            e.id = *static_cast<const uint32_t*>(qualifier);
            ::acl_free(qualifier);
        }
        entries.push_back(e);
    }
    ::acl_free(acl);
    return true;
}

bool InGroup(const PeerIdentity& user, uint32_t group) {
    return user.gid == group ||
           std::find(user.groups.begin(), user.groups.end(), group) != user.groups.end();
}

bool Has(unsigned granted, unsigned want) { return (granted & want) == want; }

}  // namespace

bool PermissionGranted(const std::string& path, uint32_t mode, uint32_t owner, uint32_t group,
                       const PeerIdentity& user, unsigned want) {
    // Unknown users are "others" everywhere; the ACL's other entry is the mode's other bits.
    if (!user.known) return Has(mode & 7, want);
    if (user.uid == owner) return Has((mode >> 6) & 7, want);

    std::vector<AclEntry> acl;
    if (!ReadAcl(path, acl) || acl.size() <= 3) {
        if (InGroup(user, group)) return Has((mode >> 3) & 7, want);
        return Has(mode & 7, want);
    }
    // The kernel's order: a named user entry, else the group class (the owning group and named
    // groups: the first that the user belongs to and that holds `want` decides, through the mask;
    // belonging to some but none holding it denies), else others.
    unsigned mask = 7;
    for (const AclEntry& e : acl) {
        if (e.tag == ACL_MASK) mask = e.perm;
    }
    for (const AclEntry& e : acl) {
        if (e.tag == ACL_USER && e.id == user.uid) return Has(e.perm & mask, want);
    }
    bool member = false;
    for (const AclEntry& e : acl) {
        const bool groupClass = (e.tag == ACL_GROUP_OBJ && InGroup(user, group)) ||
                                (e.tag == ACL_GROUP && InGroup(user, e.id));
        if (!groupClass) continue;
        member = true;
        if (Has(e.perm, want)) return Has(e.perm & mask, want);
    }
    if (member) return false;
    for (const AclEntry& e : acl) {
        if (e.tag == ACL_OTHER) return Has(e.perm, want);
    }
    return Has(mode & 7, want);
}

uint32_t CheckFolderByHand(const std::string& path, const PeerIdentity& user) {
    // Components still to walk, the next one at the back.
    std::vector<std::string> todo;
    auto push = [&todo](const std::string& text) {
        std::vector<std::string> parts;
        size_t at = 0;
        while (at <= text.size()) {
            size_t end = text.find('/', at);
            if (end == std::string::npos) end = text.size();
            if (end > at) parts.push_back(text.substr(at, end - at));
            at = end + 1;
        }
        todo.insert(todo.end(), parts.rbegin(), parts.rend());
    };

    std::string dir = "/";
    if (path.empty() || path[0] != '/') {
        char cwd[4096];
        if (::getcwd(cwd, sizeof(cwd)) == nullptr) return Err::kAccessDenied;
        push(path);
        push(cwd);
    } else {
        push(path);
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) return Err::kAccessDenied;

    int links = 0;
    while (!todo.empty()) {
        const std::string name = todo.back();
        todo.pop_back();
        // Every lookup, "." and ".." too, needs search permission on the directory it is made in.
        if (!PermissionGranted(dir, st.st_mode, st.st_uid, st.st_gid, user, kSearch)) {
            return Err::kAccessDenied;
        }
        if (name == ".") continue;
        if (name == "..") {
            // `dir` never holds a link or a dot, so its textual parent is its real one.
            const size_t slash = dir.rfind('/');
            dir = slash == 0 ? "/" : dir.substr(0, slash);
            if (::stat(dir.c_str(), &st) != 0) return Err::kAccessDenied;
            continue;
        }
        std::string next = dir;
        if (next.back() != '/') next += '/';
        next += name;
        struct stat child;
        if (::lstat(next.c_str(), &child) != 0) {
            if (errno == ENOENT) return todo.empty() ? Err::kFileNotFound : Err::kPathNotFound;
            return Err::kAccessDenied;
        }
        if (S_ISLNK(child.st_mode)) {
            if (++links > kMaxLinks) return Err::kAccessDenied;
            std::string target(4096, '\0');
            const ssize_t length = ::readlink(next.c_str(), target.data(), target.size());
            if (length <= 0 || static_cast<size_t>(length) >= target.size()) {
                return Err::kAccessDenied;
            }
            target.resize(static_cast<size_t>(length));
            push(target);
            if (target[0] == '/') {
                dir.assign(1, '/');
                if (::stat(dir.c_str(), &st) != 0) return Err::kAccessDenied;
            }
            continue;
        }
        // A folder path ends with the separator, so its last name must be a directory too.
        if (!S_ISDIR(child.st_mode)) return Err::kAccessDenied;
        dir = next;
        st = child;
    }
    return PermissionGranted(dir, st.st_mode, st.st_uid, st.st_gid, user, kRead | kSearch)
               ? Err::kSuccess
               : Err::kAccessDenied;
}

}  // namespace Osb::posix
