// A key and its value, the item of a HashTable chain in a 1.x or text-loaded dictionary.
//
// Hash and Equals are the key's, so an entry is found by its key alone.
#pragma once

#include "dictionary/ByteRunKey.h"
#include "dictionary/ByteRunValueRef.h"

namespace lexkit_private {

class DictionaryEntry : public ByteRunKey {
  public:
    // The key bytes are copied; the value is shared.
    DictionaryEntry(const void* keyBytes, uint32_t keyLength, const ByteRunValueRef& value);
    ~DictionaryEntry() override;

    // The key, then the value.
    uint32_t Serialize(std::ostream& stream, bool binary, const uint32_t* encoding) override;
    // The key alone, as ByteRunKey::Serialize.
    uint32_t SerializeKey(std::ostream& stream, bool binary) override;
    // The value alone:
    //  binary, no encoding: its bytes as they are, each unit byte-swapped when `byteOrder` asks
    //    for the order opposite to the machine's;
    //  binary, with an encoding: converted to multibyte text in it, no terminator;
    //  text: the units with LF written as \n, CR as \r, a quote mark with a backslash in front,
    //    then a quote mark, CR, LF (machine order). A backslash, caret or '#' stays as it is.
    // May raise LxErrException when a conversion fails.
    uint32_t SerializeValue(std::ostream& stream, bool binary, const uint32_t* encoding,
                            int byteOrder) override;

    const ByteRunValueRef& Value() const { return value_; }

  private:
    ByteRunValueRef value_;
};

}  // namespace lexkit_private
