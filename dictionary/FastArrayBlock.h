// The block of FastArray, shared by the files that implement it. Not for use elsewhere.
//
// A block read from a file owns the file's tables and pools; a block made by Add has no pools and
// no offset tables, and its entries live in the key and value pointer arrays. An entry's bytes
// stand in its pointer slot when the slot exists and is not null, else at its offset in the pool.
#pragma once

#include <cstdint>
#include <memory>

#include "dictionary/FastArray.h"

namespace lexkit_private {

struct FastArray::Block {
    uint32_t count = 0;
    uint32_t live = 0;
    uint32_t bucketCount = 0;
    uint32_t extraCount = 0;
    uint32_t base = 0;
    uint32_t keyPoolSize = 0;
    uint32_t valuePoolSize = 0;
    uint32_t extraPoolSize = 0;
    bool hasKeys = true;
    std::unique_ptr<uint32_t[]> keyOffsets;
    std::unique_ptr<uint16_t[]> keyLengths;
    std::unique_ptr<uint32_t[]> valueOffsets;
    std::unique_ptr<uint16_t[]> valueLengths;
    std::unique_ptr<uint32_t[]> extraOffsets;
    std::unique_ptr<uint16_t[]> extraLengths;
    std::unique_ptr<unsigned char[]> keyPool;
    std::unique_ptr<unsigned char[]> valuePool;
    std::unique_ptr<unsigned char[]> extraPool;
    std::unique_ptr<std::unique_ptr<unsigned char[]>[]> valuePointers;
    std::unique_ptr<std::unique_ptr<unsigned char[]>[]> keyPointers;
    std::unique_ptr<uint16_t[]> bucketNumbers;
    std::unique_ptr<uint32_t[]> extraEntryNumbers;

    bool IsDead(uint32_t local) const { return hasKeys && keyLengths && keyLengths[local] == 0; }
};

}  // namespace lexkit_private
