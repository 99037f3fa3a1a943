// A counted handle of a ByteRunValue, one pointer wide.
//
// Copying adds a reference, destruction releases one, assignment releases the old value and adds a
// reference to the new one. A default handle refers to the one process-wide empty value, which is
// made on first need and lives to the end of the process. The counts are plain integers: handles
// that share a value must stay on one thread at a time (see RefCountObj.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "dictionary/ByteRunValue.h"

namespace lexkit_private {

class ByteRunValueRef {
  public:
    // The shared empty value.
    ByteRunValueRef();
    // A new value holding a copy of `length` bytes at `bytes`.
    ByteRunValueRef(const void* bytes, uint32_t length);
    // A new value holding a copy of `count` UTF-16 code units. REQUIRES: 2 * count fits a u32.
    static ByteRunValueRef FromUnits(const char16_t* units, size_t count);

    ByteRunValueRef(const ByteRunValueRef& other);
    ByteRunValueRef& operator=(const ByteRunValueRef& other);
    ~ByteRunValueRef();

    // Length in bytes, and in code units (the byte length shifted right by one).
    uint32_t Length() const { return value_->Length(); }
    uint32_t UnitLength() const { return value_->Length() >> 1; }
    // The value's bytes; null when the length is 0.
    const unsigned char* Bytes() const { return value_->Bytes(); }
    // The value as a string of its UnitLength() code units (a last odd byte is left out).
    std::u16string Text() const;

    // Copies at most capacity-1 code units into `buffer` and terminates them with a NUL. With a
    // capacity of 0 nothing is written. When `raiseIfShort` is set and the capacity is less than
    // UnitLength()+1, it raises LxErrException{kLxErrBufferTooSmall} after the copy.
    void CopyOut(char16_t* buffer, uint32_t capacity, bool raiseIfShort) const;

    // True when both handles refer to the same value object.
    bool SharesValueWith(const ByteRunValueRef& other) const { return value_ == other.value_; }
    bool IsSharedEmptyValue() const;

  private:
    explicit ByteRunValueRef(ByteRunValue* value);  // adopts one new reference

    ByteRunValue* value_;  // never null
};

}  // namespace lexkit_private
