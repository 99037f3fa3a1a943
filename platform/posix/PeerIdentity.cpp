#include "platform/PeerIdentity.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/SocketPeer.h"

namespace Osb {

PeerIdentity ProcessIdentity() {
    PeerIdentity self;
    self.known = true;
    self.uid = ::geteuid();
    self.gid = ::getegid();
    // The list can grow between the two calls (another thread's setgroups): ask until it fits.
    for (;;) {
        const int count = ::getgroups(0, nullptr);
        if (count < 0) break;
        std::vector<gid_t> groups(static_cast<size_t>(count));
        const int got = ::getgroups(count, groups.data());
        if (got < 0 && errno == EINVAL) continue;
        if (got > 0) self.groups.assign(groups.begin(), groups.begin() + got);
        break;
    }
    return self;
}

uint32_t ProcessUserId() { return ::geteuid(); }

namespace posix {

PeerIdentity SocketPeerIdentity(int socket) {
    PeerIdentity peer;
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        length != sizeof(credentials)) {
        return peer;
    }
    // SO_PEERGROUPS says how much room it needs with ERANGE; start with room for the usual few.
    std::vector<gid_t> groups(32);
    for (int attempt = 0; attempt < 4; ++attempt) {
        length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) {
            groups.resize(length / sizeof(gid_t));
            peer.known = true;
            peer.uid = credentials.uid;
            peer.gid = credentials.gid;
            peer.groups.assign(groups.begin(), groups.end());
            return peer;
        }
        if (errno != ERANGE) return peer;
        groups.resize(length / sizeof(gid_t) + 1);
    }
    return peer;
}

}  // namespace posix
}  // namespace Osb
