// The decision of FolderAccess made by hand, for a process that may not take on the user's
// credentials: the path is walked component by component as the kernel walks it (symbolic links
// spliced in, at most 40 of them), each directory judged from its owner, group, mode and POSIX ACL
// in the kernel's order of evaluation. What this process may not look at itself is refused.
#pragma once

#include <cstdint>
#include <string>

#include "platform/PeerIdentity.h"

namespace Osb::posix {

// The code FolderAccess::check documents for `path` (native, UTF-8), without recording it.
uint32_t CheckFolderByHand(const std::string& path, const PeerIdentity& user);

// Whether `user` has every permission of `want` (4 read, 2 write, 1 search) on the object at
// `path`, whose lstat is `mode`, `owner` and `group`.
bool PermissionGranted(const std::string& path, uint32_t mode, uint32_t owner, uint32_t group,
                       const PeerIdentity& user, unsigned want);

}  // namespace Osb::posix
