#include "dictionary/HashTable.h"

namespace lexkit_private {

HashTable::~HashTable() {
    for (HashItem*& head : heads_) {
        while (head != nullptr) {
            HashItem* next = head->next;
            delete head;
            head = next;
        }
    }
}

HashItem* HashTable::Search(const HashItem& key) {
    lastBucket_ = key.Hash(kBucketCount);
    lastBefore_ = nullptr;
    for (HashItem* item = heads_[lastBucket_]; item != nullptr; item = item->next) {
        if (item->Equals(key)) return item;
        lastBefore_ = item;
    }
    return nullptr;
}

HashItem* HashTable::Remove(const HashItem& key) {
    HashItem* hit = Search(key);
    if (hit == nullptr) return nullptr;
    if (lastBefore_ != nullptr) {
        lastBefore_->next = hit->next;
    } else {
        heads_[lastBucket_] = hit->next;
    }
    hit->next = nullptr;
    return hit;
}

void HashTable::Insert(HashItem* item) {
    const uint32_t bucket = item->Hash(kBucketCount);
    item->next = heads_[bucket];
    heads_[bucket] = item;
}

}  // namespace lexkit_private
