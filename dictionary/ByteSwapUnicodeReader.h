// The reader of UTF-16 text files whose units are in the other order than the machine's. Its one
// difference from UnicodeReader is ReadUnit, which swaps each unit's two bytes; the inherited
// ReadLine calls it as a virtual operation. A lone last byte gives U+FFFD, unswapped.
#pragma once

#include "dictionary/UnicodeReader.h"

namespace lexkit_private {

class ByteSwapUnicodeReader : public UnicodeReader {
  public:
    explicit ByteSwapUnicodeReader(std::istream& source) : UnicodeReader(source) {}

    bool ReadUnit(char16_t& unit) override;
};

}  // namespace lexkit_private
