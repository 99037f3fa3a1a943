// Abstract element of a HashTable bucket chain.
//
// The first three operations write an item to a byte output stream, in binary (true) or text
// (false) mode; in binary mode they return the number of bytes written, in text mode the result
// has no use. `encoding` is null or points to an encoding number (1 UTF-8, anything else the ANSI
// code page) that binary values are converted to; `byteOrder` is one of kByteOrder* of
// DictionaryFormat.h. Here SerializeKey and SerializeValue only call Serialize with what they got.
#pragma once

#include <cstdint>
#include <ostream>

namespace lexkit_private {

class HashItem {
  public:
    HashItem() = default;
    HashItem(const HashItem&) = delete;
    HashItem& operator=(const HashItem&) = delete;

    virtual uint32_t Serialize(std::ostream& stream, bool binary, const uint32_t* encoding) = 0;
    virtual uint32_t SerializeKey(std::ostream& stream, bool binary) {
        return Serialize(stream, binary, nullptr);
    }
    virtual uint32_t SerializeValue(std::ostream& stream, bool binary, const uint32_t* encoding,
                                    int byteOrder) {
        (void)byteOrder;
        return Serialize(stream, binary, encoding);
    }
    virtual ~HashItem() = default;
    virtual uint32_t Hash(uint32_t modulus) const = 0;
    virtual bool Equals(const HashItem& other) const = 0;

    // The following item of the chain, null at its end. Owned by the HashTable that holds both.
    HashItem* next = nullptr;
};

}  // namespace lexkit_private
