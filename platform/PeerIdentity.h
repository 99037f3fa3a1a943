// Osb::PeerIdentity: the user and groups a process acts as, for the peer of a connection (read
// from the connection when it is accepted) or for this process itself.
//
// A peer whose credentials could not be read is `known` false. Such a peer is the least privileged
// user there is: it is no user at all (kNoId never matches an owner or a group, so it is neither
// user 0 nor any real user), it is in no group, and a folder is judged for it by the permissions
// that the mode bits or the ACL give to "others" alone.
#pragma once

#include <cstdint>
#include <vector>

namespace Osb {

struct PeerIdentity {
    // An id that no user or group has (the kernel refuses it as an id).
    static constexpr uint32_t kNoId = 0xFFFFFFFF;

    bool known = false;
    uint32_t uid = kNoId;
    uint32_t gid = kNoId;
    std::vector<uint32_t> groups;  // supplementary groups, in the kernel's order
};

// The effective user, group and supplementary groups of this process, read at each call.
PeerIdentity ProcessIdentity();
// The effective user of this process alone, read at each call.
uint32_t ProcessUserId();

}  // namespace Osb
