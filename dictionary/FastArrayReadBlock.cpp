// FastArray::ReadBlock: one 2.x block from a file, tested in full before the array changes.

#include <bit>
#include <cstring>

#include "dictionary/FastArray.h"
#include "dictionary/FastArrayBlock.h"
#include "dictionary/KeyHash.h"
#include "dictionary/StreamBytes.h"

namespace lexkit_private {

namespace {

bool IsBigEndian(int byteOrder) {
    if (byteOrder == kByteOrderBig) return true;
    if (byteOrder == kByteOrderLittle) return false;
    return std::endian::native == std::endian::big;
}

// Every run of `count` entries (offset, length) lies inside a pool of `poolSize` bytes. Dead
// entries (length 0) are tested too: an offset is never trusted.
template <typename Length>
bool RunsInsidePool(const uint32_t* offsets, const Length* lengths, uint32_t count,
                    uint32_t poolSize) {
    for (uint32_t i = 0; i < count; ++i) {
        if (uint64_t{offsets[i]} + lengths[i] > poolSize) return false;
    }
    return true;
}

}  // namespace

uint32_t FastArray::ReadBlock(std::istream& stream, int byteOrder) {
    StreamBytes in(stream, IsBigEndian(byteOrder));
    auto block = std::make_unique<Block>();
    uint32_t baseIndex = 0;
    if (!in.ReadU32(baseIndex)) return kNotFound;
    const uint32_t existing = entryCount_;
    if (baseIndex != 0 && existing != 0 && baseIndex != existing) return kNotFound;
    block->base = existing;

    uint8_t keysFlag = 0;
    uint32_t declaredLive = 0;
    in.ReadU8(keysFlag);
    block->hasKeys = keysFlag != static_cast<uint8_t>(kKeysAbsent);
    in.ReadU32(block->count);
    in.ReadU32(declaredLive);
    in.ReadU32(block->bucketCount);
    if (block->hasKeys) in.ReadU32(block->keyPoolSize);
    in.ReadU32(block->valuePoolSize);
    if (in.Failed()) return kNotFound;
    const uint32_t n = block->count;
    // Entry numbers must stay below kNotFound, which means "absent" to every caller.
    if (uint64_t{existing} + n >= kNotFound) return kNotFound;

    if (block->hasKeys) {
        in.ReadU32Array(block->keyOffsets, n);
        in.ReadU16Array(block->keyLengths, n);
    }
    in.ReadU32Array(block->valueOffsets, n);
    in.ReadU16Array(block->valueLengths, n);
    if (block->hasKeys) in.ReadBytes(block->keyPool, block->keyPoolSize);
    in.ReadUnits(block->valuePool, block->valuePoolSize);
    if (in.Failed()) return kNotFound;
    if (block->hasKeys &&
        !RunsInsidePool(block->keyOffsets.get(), block->keyLengths.get(), n, block->keyPoolSize)) {
        return kNotFound;
    }
    if (!RunsInsidePool(block->valueOffsets.get(), block->valueLengths.get(), n,
                        block->valuePoolSize)) {
        return kNotFound;
    }

    std::vector<uint16_t> bucketNumbers;
    std::vector<uint32_t> bucketSizes;
    std::vector<uint32_t> bucketLists;
    if (block->hasKeys) {
        const uint32_t b = block->bucketCount;
        in.ReadU16Array(block->bucketNumbers, b);
        std::unique_ptr<uint32_t[]> sizes;
        in.ReadU32Array(sizes, b);
        if (in.Failed()) return kNotFound;
        uint64_t total = 0;
        for (uint32_t i = 0; i < b; ++i) {
            if (block->bucketNumbers[i] >= kBucketCount) return kNotFound;
            total += sizes[i];
        }
        std::unique_ptr<uint32_t[]> lists;
        if (!in.ReadU32Array(lists, total)) return kNotFound;
        for (uint64_t i = 0; i < total; ++i) {
            if (lists[i] >= n) return kNotFound;
        }
        bucketNumbers.assign(block->bucketNumbers.get(), block->bucketNumbers.get() + b);
        bucketSizes.assign(sizes.get(), sizes.get() + b);
        bucketLists.assign(lists.get(), lists.get() + total);
    }

    in.ReadU32(block->extraCount);
    const uint32_t m = block->extraCount;
    if (m != 0) {
        in.ReadU32(block->extraPoolSize);
        in.ReadU32Array(block->extraEntryNumbers, m);
        in.ReadU32Array(block->extraOffsets, m);
        in.ReadU16Array(block->extraLengths, m);
        in.ReadUnits(block->extraPool, block->extraPoolSize);
        if (in.Failed()) return kNotFound;
        if (!RunsInsidePool(block->extraOffsets.get(), block->extraLengths.get(), m,
                            block->extraPoolSize)) {
            return kNotFound;
        }
        for (uint32_t i = 0; i < m; ++i) {
            if (block->extraEntryNumbers[i] >= n) return kNotFound;
        }
    }
    if (in.Failed()) return kNotFound;

    block->live = declaredLive;
    CommitBlock(std::move(block), bucketNumbers, bucketSizes, bucketLists,
                baseIndex == 0 && existing != 0);
    return 0;
}

void FastArray::CommitBlock(std::unique_ptr<Block> block,
                            const std::vector<uint16_t>& bucketNumbers,
                            const std::vector<uint32_t>& bucketSizes,
                            const std::vector<uint32_t>& bucketLists, bool replaceShared) {
    // Blocks are counted in before their bucket lists are applied, so that the old entries that a
    // shared key replaces are reachable by number; a block that turns out to have no live entry is
    // taken out again below, and its numbers are then in no bucket list.
    Block& fresh = *block;
    blocks_.push_back(std::move(block));
    // An Add block left open would take numbers behind this block's; new Adds open a fresh one.
    openBlock_ = -1;
    const uint32_t savedEntryCount = entryCount_;
    entryCount_ += fresh.count;

    size_t next = 0;
    std::vector<uint32_t> added;  // bucket index per stored number, to undo a dropped block
    for (size_t i = 0; i < bucketNumbers.size(); ++i) {
        std::vector<uint32_t>& bucket = buckets_[bucketNumbers[i]];
        const size_t old = bucket.size();
        bucket.reserve(old + bucketSizes[i]);
        for (uint32_t k = 0; k < bucketSizes[i]; ++k) {
            const uint32_t local = bucketLists[next++];
            if (replaceShared && fresh.keyLengths[local] != 0) {
                const uint16_t keyLength = fresh.keyLengths[local];
                const unsigned char* key = fresh.keyPool.get() + fresh.keyOffsets[local];
                bool replaced = false;
                unsigned char buffer[1024];
                for (size_t j = 0; j < old && !replaced; ++j) {
                    uint32_t length = 0;
                    if (GetKey(bucket[j], buffer, sizeof buffer, length) && length == keyLength &&
                        std::memcmp(buffer, key, keyLength) == 0) {
                        ReplaceValue(bucket[j], fresh.valuePool.get() + fresh.valueOffsets[local],
                                     fresh.valueLengths[local]);
                        replaced = true;
                    }
                }
                if (replaced) {
                    fresh.keyLengths[local] = 0;
                    fresh.valueLengths[local] = 0;
                    if (fresh.live != 0) --fresh.live;
                    continue;
                }
            }
            bucket.push_back(fresh.base + local);
            added.push_back(bucketNumbers[i]);
        }
    }

    if (fresh.live != 0) {
        liveCount_ += fresh.live;
        return;
    }
    // A block without live entries is left out: its numbers leave the bucket lists (they were
    // pushed last, so they are the tails) and the entry count goes back.
    for (auto it = added.rbegin(); it != added.rend(); ++it) buckets_[*it].pop_back();
    entryCount_ = savedEntryCount;
    blocks_.pop_back();
}

}  // namespace lexkit_private
