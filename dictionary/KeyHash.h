// The key hash of the dictionary library.
//
// Over a key of n bytes: 0 when n is 0; otherwise with step = max(1, n / 5), h starts at 0 and for
// i = 0, step, 2*step, ... below n, h = (byte[i] + 32*h) mod modulus, bytes unsigned. Keys of up
// to 9 bytes are hashed whole, longer ones by 5 to 7 sampled bytes. The key "abc" hashes to 463
// modulo 1021.
#pragma once

#include <cstdint>

namespace lexkit_private {

// REQUIRES: modulus != 0; bytes may be null only when length is 0.
inline uint32_t KeyHash(const unsigned char* bytes, uint32_t length, uint32_t modulus) {
    if (length == 0) return 0;
    uint32_t step = length / 5;
    if (step == 0) step = 1;
    uint32_t h = 0;
    for (uint32_t i = 0; i < length; i += step) {
        // h < modulus, so 32*h stays far below overflow for any bucket count the library uses.
        h = (bytes[i] + h * 32) % modulus;
        if (length - i <= step) break;  // keeps i from wrapping on keys near 4 GiB
    }
    return h;
}

}  // namespace lexkit_private
