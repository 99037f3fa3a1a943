#include "service/VigilClientTable.h"

#include "service/VigilClient.h"

namespace Vigil {

// Entries are not removed when the service stops; static destruction releases what is left, after
// the platform has closed every connection.
Osb::Mutex clientTableMutex;
ClientTable clientTable;

uint32_t ClientsOfUser(uint32_t uid) {
    Osb::MutexLock lock(clientTableMutex);
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < kMaxClients; ++slot) {
        const Osb::SmartPointer<Client>& client = clientTable.at(slot);
        if (client && client->peer.uid == uid) ++count;
    }
    return count;
}

}  // namespace Vigil

namespace Vigil {
void ResetClientTableForTesting() {
    Osb::MutexLock lock(clientTableMutex);
    clientTable = ClientTable();
}
}  // namespace Vigil
