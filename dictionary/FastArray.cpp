#include "dictionary/FastArray.h"

#include <algorithm>
#include <cstring>

#include "dictionary/FastArrayBlock.h"
#include "dictionary/KeyHash.h"

namespace lexkit_private {

FastArray::FastArray() = default;
FastArray::~FastArray() = default;

uint32_t FastArray::BlockEntryCountForTesting(uint32_t index) const {
    return blocks_[index]->count;
}
uint32_t FastArray::BlockBaseForTesting(uint32_t index) const { return blocks_[index]->base; }

FastArray::Block* FastArray::BlockOf(uint32_t number, uint32_t& local) const {
    if (number >= entryCount_) return nullptr;
    // Bases rise without gaps, so the holder is the last block whose base is not above `number`.
    auto it =
        std::upper_bound(blocks_.begin(), blocks_.end(), number,
                         [](uint32_t n, const std::unique_ptr<Block>& b) { return n < b->base; });
    if (it == blocks_.begin()) return nullptr;
    Block* block = std::prev(it)->get();
    local = number - block->base;
    return local < block->count ? block : nullptr;
}

const unsigned char* FastArray::KeyBytesOf(const Block& block, uint32_t local) const {
    if (block.keyPointers && block.keyPointers[local] && block.keyLengths[local] != 0) {
        return block.keyPointers[local].get();
    }
    if (!block.keyOffsets || !block.keyPool) return nullptr;
    return block.keyPool.get() + block.keyOffsets[local];
}

uint32_t FastArray::Find(const unsigned char* key, uint32_t keyLength) const {
    const std::vector<uint32_t>& bucket = buckets_[KeyHash(key, keyLength, kBucketCount)];
    for (uint32_t number : bucket) {
        uint32_t local = 0;
        const Block* block = BlockOf(number, local);
        if (block == nullptr || !block->keyLengths) continue;
        // A dead entry has key length 0 and would otherwise answer a search for the empty key;
        // no lookup may reach it.
        if (block->keyLengths[local] != keyLength || keyLength == 0) continue;
        const unsigned char* bytes = KeyBytesOf(*block, local);
        if (bytes != nullptr && std::memcmp(bytes, key, keyLength) == 0) return number;
    }
    return kNotFound;
}

bool FastArray::IsLive(uint32_t number) const {
    uint32_t local = 0;
    const Block* block = BlockOf(number, local);
    return block != nullptr && !block->IsDead(local);
}

ByteRunValueRef FastArray::GetValue(uint32_t number) const {
    uint32_t local = 0;
    const Block* block = BlockOf(number, local);
    if (block == nullptr || block->IsDead(local) || !block->valueLengths) return ByteRunValueRef();
    const uint32_t length = block->valueLengths[local];
    if (block->valuePointers && block->valuePointers[local]) {
        return ByteRunValueRef(block->valuePointers[local].get(), length);
    }
    if (!block->valueOffsets) return ByteRunValueRef();
    return ByteRunValueRef(block->valuePool.get() + block->valueOffsets[local], length);
}

bool FastArray::GetKey(uint32_t number, unsigned char* buffer, uint32_t capacity,
                       uint32_t& length) const {
    uint32_t local = 0;
    const Block* block = BlockOf(number, local);
    if (block == nullptr || !block->hasKeys || !block->keyLengths || block->IsDead(local)) {
        return false;
    }
    const uint32_t keyLength = block->keyLengths[local];
    const unsigned char* bytes = KeyBytesOf(*block, local);
    if (bytes == nullptr || capacity < keyLength + 1) return false;
    std::memcpy(buffer, bytes, keyLength);
    buffer[keyLength] = 0;
    length = keyLength;
    return true;
}

bool FastArray::ReplaceValue(uint32_t number, const void* value, uint32_t valueLength) {
    uint32_t local = 0;
    Block* block = BlockOf(number, local);
    if (block == nullptr || block->IsDead(local) || !block->valueLengths) return false;
    if (valueLength > kMaxRunLength) return false;
    const bool ownBuffer = block->valuePointers && block->valuePointers[local];
    if (!ownBuffer && !block->valueOffsets && !block->valuePointers) return false;
    const uint32_t present = block->valueLengths[local];
    unsigned char* where = nullptr;
    if (ownBuffer) {
        where = block->valuePointers[local].get();
    } else if (block->valueOffsets) {
        where = block->valuePool.get() + block->valueOffsets[local];
    }
    if (valueLength <= present && (where != nullptr || valueLength == 0)) {
        // Equal or shorter: in place. Equal bytes need no write at all.
        if (valueLength != 0 && std::memcmp(where, value, valueLength) != 0) {
            std::memmove(where, value, valueLength);
        }
        block->valueLengths[local] = static_cast<uint16_t>(valueLength);
        return true;
    }
    if (!block->valuePointers) {
        block->valuePointers = std::make_unique<std::unique_ptr<unsigned char[]>[]>(block->count);
    }
    auto buffer = std::make_unique<unsigned char[]>(valueLength);
    std::memcpy(buffer.get(), value, valueLength);
    block->valuePointers[local] = std::move(buffer);
    block->valueLengths[local] = static_cast<uint16_t>(valueLength);
    if (block->valueOffsets) block->valueOffsets[local] = 0;
    return true;
}

uint32_t FastArray::Add(const unsigned char* key, uint32_t keyLength, const void* value,
                        uint32_t valueLength) {
    if (keyLength > kMaxRunLength || valueLength > kMaxRunLength) return kNotFound;
    const uint32_t existing = Find(key, keyLength);
    if (existing != kNotFound) {
        ReplaceValue(existing, value, valueLength);
        return existing;
    }
    if (entryCount_ >= kNotFound - 1) return kNotFound;
    if (openBlock_ < 0) {
        auto block = std::make_unique<Block>();
        block->base = entryCount_;
        block->keyLengths = std::make_unique<uint16_t[]>(kAddBlockCapacity);
        block->valueLengths = std::make_unique<uint16_t[]>(kAddBlockCapacity);
        block->keyPointers =
            std::make_unique<std::unique_ptr<unsigned char[]>[]>(kAddBlockCapacity);
        block->valuePointers =
            std::make_unique<std::unique_ptr<unsigned char[]>[]>(kAddBlockCapacity);
        blocks_.push_back(std::move(block));
        openBlock_ = static_cast<int32_t>(blocks_.size() - 1);
    }
    Block& block = *blocks_[static_cast<size_t>(openBlock_)];
    const uint32_t local = block.count;
    if (keyLength != 0) {
        block.keyPointers[local] = std::make_unique<unsigned char[]>(keyLength);
        std::memcpy(block.keyPointers[local].get(), key, keyLength);
    }
    if (valueLength != 0) {
        block.valuePointers[local] = std::make_unique<unsigned char[]>(valueLength);
        std::memcpy(block.valuePointers[local].get(), value, valueLength);
    }
    block.keyLengths[local] = static_cast<uint16_t>(keyLength);
    block.valueLengths[local] = static_cast<uint16_t>(valueLength);
    ++block.count;
    ++block.live;
    const uint32_t number = entryCount_;
    buckets_[KeyHash(key, keyLength, kBucketCount)].push_back(number);
    if (block.count == kAddBlockCapacity) openBlock_ = -1;
    ++entryCount_;
    ++liveCount_;
    return number;
}

}  // namespace lexkit_private
