// The process-wide client table: it gives each Client its id and holds the one long-lived strong
// reference to it. Both the table and its mutex are built before main.
//
// clientTableMutex guards clientTable. It is held only to insert and to remove, and never taken
// with a Client's mutex held.
#pragma once

#include "common/OsbLookup.h"
#include "platform/Mutex.h"
#include "platform/SmartPointer.h"

namespace Vigil {

class Client;

constexpr uint32_t kMaxClients = 1024;
using ClientTable = LookupTable<Osb::SmartPointer<Client>, kMaxClients>;

extern Osb::Mutex clientTableMutex;
extern ClientTable clientTable OSB_GUARDED_BY(clientTableMutex);

// How many connections one user other than user 0 and the service's own may hold at a time: the
// pipe is open to every local user, and without a bound one of them could take every slot of the
// table and lock everyone else out. Clients whose credentials could not be read count as one user.
constexpr uint32_t kMaxClientsPerUser = 256;

// The connections in the table whose peer is `uid`. Takes clientTableMutex.
uint32_t ClientsOfUser(uint32_t uid);

// The connections in the table. Takes clientTableMutex.
uint32_t ConnectedClients();

// How many clients have left the table since the process began. Client::onClosed counts them;
// the service's wait loop reads the count to learn whether connections came and went.
uint64_t ClientsLeftSoFar();
void CountClientLeft();

}  // namespace Vigil

namespace Vigil {
// Empties the table and resets its cursor and generations, so that a test sees the ids of a fresh
// process. Only for tests that run no pipe server.
void ResetClientTableForTesting();
}  // namespace Vigil
