// Watch::PendingShare: the bound on the memory that the pending names of one owner's folders
// take. The service keeps names until their client collects them; without a bound a user could
// make the service hold any amount of memory with a storm of files in a folder of their own
// watched by many GUIDs. The owner of the watched folder is the key (a cache loaded at start does
// not say which user added a folder); root's folders and the service user's own are not counted,
// except those that other users may write to (/tmp, /var/tmp, /dev/shm): anybody's files land
// there, so their names share one bound of their own (kOpenFolders).
//
// Not thread-safe: the database keeps it under its own lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Vigil::Watch {

class PendingShare {
  public:
    // The pending names one limited owner may have the service hold, over every client and folder:
    // enough for about half a million names of usual length waiting at once, while a handful of
    // users at their bound cannot take a small server's memory.
    static constexpr size_t kBytesPerOwner = size_t{64} << 20;
    // Bytes of a list entry beyond the name's own units: the string object and the heap block's
    // bookkeeping.
    static constexpr size_t kEntryOverhead = sizeof(std::u16string) + 16;

    // The key of the folders of root or of the service's user that others may write to: no real
    // user has it ((uid_t)-1 names none), and it is limited like a user.
    static constexpr uint32_t kOpenFolders = 0xFFFFFFFF;
    // The key the names of `folder` count against: kOpenFolders, or its owner (0, root's, when it
    // cannot be looked at: its watch is about to end anyway).
    static uint32_t keyOf(const std::u16string& folder);
    // The same, false when `folder` cannot be looked at (gone already, say).
    static bool keyOf(const std::u16string& folder, uint32_t& key);

    static size_t cost(const std::u16string& name) {
        return kEntryOverhead + name.size() * sizeof(char16_t);
    }
    static size_t cost(const std::vector<std::u16string>& names);

    // Keeps in `names` those that fit in `owner`'s bound, in their order, and counts the others
    // as dropped; returns the bytes kept. Logs once when the owner reaches the bound.
    size_t admit(uint32_t owner, const std::u16string& folder, std::vector<std::u16string>& names);
    // Counts one name of `bytes` against `owner`'s bound: false, the name dropped and counted,
    // when it does not fit. Logs like admit.
    bool admitOne(uint32_t owner, const std::u16string& folder, size_t bytes);
    // Gives back `bytes` of `owner`'s; logs once when an owner at the bound is under it again.
    void release(uint32_t owner, const std::u16string& folder, size_t bytes);
    // Whether `owner` has reached the bound and is not yet back under it.
    bool reached(uint32_t owner) const;

    void setBoundForTesting(size_t bytes) { bound_ = bytes; }
    size_t droppedForTesting() const { return dropped_; }
    size_t bytesForTesting(uint32_t owner) const;

  private:
    struct Usage {
        size_t bytes = 0;
        bool full = false;  // names were dropped; cleared once under three quarters of the bound
    };
    bool admit(Usage& usage, uint32_t owner, const std::u16string& folder, size_t bytes);

    size_t bound_ = kBytesPerOwner;
    size_t dropped_ = 0;
    std::unordered_map<uint32_t, Usage> owners_;
};

}  // namespace Vigil::Watch
