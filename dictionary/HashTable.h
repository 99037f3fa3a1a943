// The chained hash table of 1.x and text-loaded dictionaries: kBucketCount chain heads, no
// rehashing and no growth.
//
// It owns the items of its chains and deletes each through its virtual destructor when it is
// destroyed. A search remembers its bucket and the item before the hit, for Remove. Not safe for
// concurrent use: even Search writes the search memory (callers hold the lookup lock).
#pragma once

#include <cstdint>

#include "dictionary/DictionaryFormat.h"
#include "dictionary/HashItem.h"

namespace lexkit_private {

class HashTable {
  public:
    HashTable() = default;
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;
    ~HashTable();

    // The first item of the key's bucket chain that Equals `key`, or null.
    HashItem* Search(const HashItem& key);
    // Unlinks the item that Search(key) finds and hands it to the caller (its next is null), or
    // returns null when there is none.
    HashItem* Remove(const HashItem& key);
    // Links `item` (taken over) in front of its bucket's chain.
    void Insert(HashItem* item);

    // The head of chain `bucket`. REQUIRES: bucket < kBucketCount.
    HashItem* Head(uint32_t bucket) const { return heads_[bucket]; }
    // Replaces the head of chain `bucket`; used by the 1.x loader, which links whole runs of
    // entries in file order. REQUIRES: bucket < kBucketCount.
    void SetHead(uint32_t bucket, HashItem* item) { heads_[bucket] = item; }

  private:
    HashItem* heads_[kBucketCount] = {};
    uint32_t lastBucket_ = 0;
    HashItem* lastBefore_ = nullptr;  // the item before the last hit, null when it was the head
};

}  // namespace lexkit_private
