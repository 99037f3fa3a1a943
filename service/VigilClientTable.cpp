#include "service/VigilClientTable.h"

#include <atomic>

#include "service/VigilClient.h"

namespace Vigil {

// Entries are not removed when the service stops; static destruction releases what is left, after
// the platform has closed every connection.
Osb::Mutex clientTableMutex;
ClientTable clientTable;

namespace {
// Only ever compared with an earlier reading of itself: no order with other memory is needed.
std::atomic<uint64_t> clientsLeft{0};
}  // namespace

uint64_t ClientsLeftSoFar() { return clientsLeft.load(std::memory_order_relaxed); }

void CountClientLeft() { clientsLeft.fetch_add(1, std::memory_order_relaxed); }

uint32_t ConnectedClients() {
    Osb::MutexLock lock(clientTableMutex);
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < kMaxClients; ++slot) {
        if (clientTable.at(slot)) ++count;
    }
    return count;
}

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
