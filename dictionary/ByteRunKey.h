// A dictionary key: a run of bytes compared byte for byte, case-sensitively.
//
// Built from bytes, a key either copies them (owned) or borrows them (the caller keeps them alive
// for the key's life; lookups and text lines use a borrowing key to search). The copy constructor
// always copies. Two keys are equal when their lengths and all bytes are; two empty keys are equal.
#pragma once

#include <cstdint>
#include <string_view>

#include "dictionary/HashItem.h"

namespace lexkit_private {

class ByteRunKey : public HashItem {
  public:
    ByteRunKey(const void* bytes, uint32_t length, bool owned);
    ByteRunKey(const ByteRunKey& other);
    ~ByteRunKey() override;

    // Key, binary: the key bytes as they are. Key, text: a quote mark, each key byte as one UTF-16
    // unit, then '=', all in the machine's order; a key without bytes writes nothing.
    uint32_t Serialize(std::ostream& stream, bool binary, const uint32_t* encoding) override;
    uint32_t Hash(uint32_t modulus) const override;
    // False when `other` is not a key.
    bool Equals(const HashItem& other) const override;

    const unsigned char* KeyBytes() const { return bytes_; }
    uint32_t KeyLength() const { return length_; }
    std::string_view KeyView() const { return {reinterpret_cast<const char*>(bytes_), length_}; }

  protected:
    uint32_t SerializeKeyBytes(std::ostream& stream, bool binary) const;

  private:
    const unsigned char* bytes_;  // null when the length is 0; freed by the key only when owned_
    uint32_t length_;
    bool owned_;
};

}  // namespace lexkit_private
