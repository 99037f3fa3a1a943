// The dictionary library's one exception: a 32-bit code that spells four letters.
//
// It is raised only by a failed text conversion (a sized buffer that turns out too small, or a
// conversion the system refuses) and by ByteRunValueRef::CopyOut when asked to. It has no base
// class and stands outside the library's namespace. Nothing in the program catches it.
#pragma once

#include <cstdint>

struct LxErrException {
    uint32_t code;
};

namespace lexkit_private {

inline constexpr uint32_t kLxErrBufferTooSmall = 0x42554646;  // "BUFF"
inline constexpr uint32_t kLxErrConversion = 0x6875683F;      // "huh?"

}  // namespace lexkit_private
