// A value of the dictionary: a counted run of bytes, here UTF-16 code units in the machine's order.
//
// It owns a copy of its bytes (none when the length is 0) and never changes after construction.
// Values are shared through ByteRunValueRef; nothing else should hold one.
#pragma once

#include <cstdint>
#include <memory>

#include "dictionary/RefCountObj.h"

namespace lexkit_private {

class ByteRunValue : public RefCountObj {
  public:
    ByteRunValue() = default;
    // Copies `length` bytes from `bytes`; `bytes` may be null only when `length` is 0.
    ByteRunValue(const void* bytes, uint32_t length);

    uint32_t Length() const { return length_; }
    // Null when the length is 0.
    const unsigned char* Bytes() const { return bytes_.get(); }

  private:
    uint32_t length_ = 0;
    std::unique_ptr<unsigned char[]> bytes_;
};

}  // namespace lexkit_private
