// The credentials of the peer of a connected Unix domain socket (IoDevicePipeServer.cpp, at
// accept).
#pragma once

#include "platform/PeerIdentity.h"

namespace Osb::posix {

// The peer's user and group (SO_PEERCRED) and supplementary groups (SO_PEERGROUPS), as the kernel
// recorded them when the peer connected. Unknown (least privileged) when either cannot be read:
// with the groups missing the user could be judged outside a group that denies it.
PeerIdentity SocketPeerIdentity(int socket);

}  // namespace Osb::posix
