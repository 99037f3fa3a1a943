// Bounded reads of little- or big-endian numbers and arrays from a seekable byte stream, for the
// binary dictionary readers.
//
// The reader learns the stream's remaining length once, and refuses any read that would pass it
// before allocating anything, so a corrupt count can neither over-read nor ask for a huge buffer.
// After a refused or failed read the reader stays failed and every further read fails.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>

namespace lexkit_private {

class StreamBytes {
  public:
    // `bigEndian` tells the order of the stream's numbers and UTF-16 units; numbers come out in the
    // machine's order, and units are swapped when the stream's order is not the machine's.
    StreamBytes(std::istream& stream, bool bigEndian);

    bool Failed() const { return failed_; }
    uint64_t Remaining() const { return remaining_; }

    bool ReadU8(uint8_t& value);
    bool ReadU16(uint16_t& value);
    bool ReadU32(uint32_t& value);
    // Reads `count` bytes into `out` (null when count is 0).
    bool ReadBytes(std::unique_ptr<unsigned char[]>& out, uint64_t count);
    // Reads `count` numbers in the stream's order.
    bool ReadU16Array(std::unique_ptr<uint16_t[]>& out, uint64_t count);
    bool ReadU32Array(std::unique_ptr<uint32_t[]>& out, uint64_t count);
    // Reads `count` bytes of UTF-16 text; when the orders differ, count/2 units are swapped and a
    // last odd byte is left as it is.
    bool ReadUnits(std::unique_ptr<unsigned char[]>& out, uint64_t count);
    // Reads exactly `count` bytes into `buffer`.
    bool ReadRaw(void* buffer, uint64_t count);

  private:
    bool Take(uint64_t count);

    std::istream& stream_;
    bool bigEndian_;
    bool failed_ = false;
    uint64_t remaining_ = 0;
};

}  // namespace lexkit_private
