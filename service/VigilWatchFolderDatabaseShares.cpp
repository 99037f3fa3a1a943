// Watch::Database: the shares of the owners of watched folders.
#include <algorithm>
#include <iterator>

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
    if (bytes == 0) {
        for (const auto& [key, charged] : record.charged)
            shares_.release(key, record.folder, charged);
        record.charged.clear();
        record.directoryKeys.clear();
    }
    if (record.bytes == bytes) return;
    shares_.release(record.owner, record.folder, record.bytes - bytes);
    record.bytes = bytes;
}

void Database::recountDirectoriesLocked(PendingRecord& record) {
    if (record.charged.empty()) return;
    std::unordered_map<uint32_t, size_t> now;
    for (const std::u16string& name : record.names) {
        auto key = record.directoryKeys.find(DirectoryOf(name));
        if (key != record.directoryKeys.end()) now[key->second] += PendingShare::cost(name);
    }
    for (auto it = record.charged.begin(); it != record.charged.end();) {
        // Never more than was counted: a directory that changed owner meanwhile has names
        // counted against its former owner's bound, which the first line gives back.
        const size_t left = std::min(now[it->first], it->second);
        shares_.release(it->first, record.folder, it->second - left);
        it->second = left;
        it = left == 0 ? record.charged.erase(it) : std::next(it);
    }
    if (record.charged.empty()) record.directoryKeys.clear();
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
