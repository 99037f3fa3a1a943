#include "service/VigilClientAccept.h"

#include <cstdio>

#include "service/VigilClient.h"
#include "service/VigilClientTable.h"
#include "service/VigilVisibility.h"

namespace Vigil {

void ClientAccept::accepted(const Osb::SmartPointer<Osb::IoDevice>& device) {
    // Accepts run one at a time on the accept thread, so no other connection can be entered
    // between the count and the insertion; closes meanwhile only lower the count.
    const Osb::PeerIdentity& peer = device->peer();
    if (!SeesEverything(peer) && ClientsOfUser(peer.uid) >= kMaxClientsPerUser) {
        std::printf("- Client Refused : user %u already has %u connections\n", peer.uid,
                    kMaxClientsPerUser);
        std::fflush(stdout);
        device->close();
        return;
    }
    Osb::SmartPointer<Client> client = Client::create(device);
    // Traced before the first read opens: its end may come at once, and its disconnect trace
    // must follow this one.
    std::printf("- Client Connect : %d\n", static_cast<int>(client->id));
    std::fflush(stdout);
    client->startRead();
}

}  // namespace Vigil
