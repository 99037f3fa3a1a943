// The store behind version 2.x dictionary files: blocks of pooled keys and values with parallel
// offset and length tables, and a global index of kBucketCount buckets of entry numbers.
//
// Entry numbers are global: a block owns the numbers from its base up to base plus count, and
// blocks follow each other without gaps. A block read from a file keeps the file's tables and
// pools as they came (swapped in place where the file's byte order asks); a block made by Add has
// no pools and gives each of its at most kAddBlockCapacity entries buffers of its own. Only what
// changes later (a grown value) gets a buffer of its own in a file block.
//
// Block on disk (numbers u32 unless said, in the file's byte order; keys never swapped):
//   base index; keys flag (1 byte, 'N' = no keys, anything else = keys); entry count n;
//   live entry count; bucket count b; [key pool size]; value pool size;
//   [n key offsets]; [n u16 key lengths]; n value offsets; n u16 value lengths;
//   [key pool]; value pool (UTF-16 units); [b u16 bucket numbers]; [b bucket sizes];
//   [for each bucket, its size in entry numbers]; extra string count m;
//   {m != 0: extra pool size; m extra entry numbers; m extra offsets; m u16 extra lengths; pool}
// Fields in [] are present only when the block has keys.
//
// Not thread-safe: the owner serialises every call (lookups run under the lookup lock, loads
// before any lookup). Failures never raise: ReadBlock refuses bad data, the others return their
// "not found" result.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <vector>

#include "dictionary/ByteRunValueRef.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/RefCountObj.h"

namespace lexkit_private {

class FastArray : public RefCountObj {
  public:
    static constexpr uint32_t kNotFound = 0xFFFFFFFF;
    static constexpr uint32_t kAddBlockCapacity = 100;

    FastArray();
    ~FastArray() override;

    // The entry number of `key`, or kNotFound. Dead entries and blocks without keys are never
    // reached. Among entries with the same key, the first of the bucket's list wins.
    uint32_t Find(const unsigned char* key, uint32_t keyLength) const;
    // A new value copying the entry's bytes, or the shared empty value when the number is out of
    // range, the entry is dead, or its block has neither an own buffer nor an offset table for it.
    ByteRunValueRef GetValue(uint32_t number) const;
    // Copies the key bytes and a terminating NUL into `buffer` and sets `length`; false when the
    // number is out of range, the entry is dead, its block has no keys, or capacity < length + 1.
    bool GetKey(uint32_t number, unsigned char* buffer, uint32_t capacity, uint32_t& length) const;
    // In a block with keys, true when the key length is not 0; in a block without keys, true.
    // False for a number out of range.
    bool IsLive(uint32_t number) const;

    // Reads one block from the stream's present position. `byteOrder` is kByteOrderBig,
    // kByteOrderLittle or kByteOrderNative and tells the order of the file's numbers and units.
    // Result 0, or kNotFound when the block is refused. A refused block changes nothing in the
    // array. It is refused when:
    //  - its base index and the present entry count are both non-zero and differ;
    //  - a table or pool would run past the end of the stream (tested before anything is
    //    allocated, so a huge count costs no memory);
    //  - an offset plus its length leaves its pool, an entry number in a bucket list or among the
    //    extra strings reaches the entry count, or a bucket number reaches kBucketCount;
    //  - the entry count would make the global numbers reach kNotFound.
    // A block whose live count is 0 is read and then dropped; that is no refusal. A block with
    // base index 0 read onto a non-empty array gives the values of keys it shares with the array
    // to the existing entries (keys under 1024 bytes) and keeps its own entries for them dead.
    uint32_t ReadBlock(std::istream& stream, int byteOrder);

    // Adds a copy of the key and the value (length in bytes), or replaces the value of the entry
    // that has the key. Result the entry's number, or kNotFound when the key or the value is
    // longer than kMaxRunLength bytes (nothing changes then).
    uint32_t Add(const unsigned char* key, uint32_t keyLength, const void* value,
                 uint32_t valueLength);
    // Gives entry `number` a new value; false when the number is out of range, the entry is dead,
    // it has no value store, or the value is longer than kMaxRunLength. A value in a pool can
    // shrink in its place; a longer one gets a buffer of its own.
    bool ReplaceValue(uint32_t number, const void* value, uint32_t valueLength);

    uint32_t EntryCount() const { return entryCount_; }
    uint32_t LiveCount() const { return liveCount_; }
    uint32_t BlockCount() const { return static_cast<uint32_t>(blocks_.size()); }
    // The entry count and base of block `index`. REQUIRES: index < BlockCount().
    uint32_t BlockEntryCountForTesting(uint32_t index) const;
    uint32_t BlockBaseForTesting(uint32_t index) const;
    // The number of entry numbers in bucket `bucket`. REQUIRES: bucket < kBucketCount.
    uint32_t BucketSizeForTesting(uint32_t bucket) const {
        return static_cast<uint32_t>(buckets_[bucket].size());
    }

  private:
    struct Block;
    // The block that holds global entry `number` and the entry's local number in it, or null.
    Block* BlockOf(uint32_t number, uint32_t& local) const;
    const unsigned char* KeyBytesOf(const Block& block, uint32_t local) const;
    // Moves a block that passed every test into the array (step "count it in").
    void CommitBlock(std::unique_ptr<Block> block, const std::vector<uint16_t>& bucketNumbers,
                     const std::vector<uint32_t>& bucketSizes,
                     const std::vector<uint32_t>& bucketLists, bool replaceShared);

    int32_t openBlock_ = -1;   // index of the block that takes new entries, -1 if none
    uint32_t entryCount_ = 0;  // sum of the blocks' counts: the next free entry number
    uint32_t liveCount_ = 0;
    std::vector<uint32_t> buckets_[kBucketCount];  // global entry numbers, in order of search
    std::vector<std::unique_ptr<Block>> blocks_;   // in order of their bases
};

}  // namespace lexkit_private
