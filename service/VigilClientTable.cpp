#include "service/VigilClientTable.h"

#include "service/VigilClient.h"

namespace Vigil {

// Entries are not removed when the service stops; static destruction releases what is left, after
// the platform has closed every connection.
Osb::Mutex clientTableMutex;
ClientTable clientTable;

}  // namespace Vigil

namespace Vigil {
void ResetClientTableForTesting() {
    Osb::MutexLock lock(clientTableMutex);
    clientTable = ClientTable();
}
}  // namespace Vigil
