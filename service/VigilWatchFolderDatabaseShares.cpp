// Watch::Database: the shares of the owners of watched folders.
#include "platform/DirectoryChanges.h"
#include "service/VigilWatchFolderDatabase.h"

namespace Vigil::Watch {

bool Database::ownerShareReached(uint32_t owner) {
    if (!Osb::IsLimitedOwner(owner)) return false;
    {
        Osb::MutexLock lock(mutex_);
        if (shares_.reached(owner)) return true;
    }
    return Osb::WatchShareReached(owner);
}

void Database::recountLocked(PendingRecord& record, size_t bytes) {
    if (record.bytes == bytes) return;
    shares_.release(record.owner, record.folder, record.bytes - bytes);
    record.bytes = bytes;
}

void Database::setPendingBoundForTesting(size_t bytes) {
    Osb::MutexLock lock(mutex_);
    shares_.setBoundForTesting(bytes);
}

size_t Database::droppedNamesForTesting() {
    Osb::MutexLock lock(mutex_);
    return shares_.droppedForTesting();
}

size_t Database::pendingBytesForTesting(uint32_t owner) {
    Osb::MutexLock lock(mutex_);
    return shares_.bytesForTesting(owner);
}

}  // namespace Vigil::Watch
