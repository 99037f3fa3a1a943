// Appending writes shared by the encoders of VigilCodec. Internal to the codec's sources.
//
// An encoder appends its body to a buffer that may already hold other bytes (a reserved header);
// `base` is where its body begins, and every offset it writes counts from there.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "service/VigilProtocol.h"

namespace Vigil::Codec::Writer {

inline void Put32(std::vector<uint8_t>& out, uint32_t value) {
    const size_t at = out.size();
    out.resize(at + 4);
    Protocol::Store32(out.data() + at, value);
}

inline void Set32(std::vector<uint8_t>& out, size_t at, uint32_t value) {
    Protocol::Store32(out.data() + at, value);
}

// Bytes of a string on the wire: its units and the terminator.
inline uint64_t WireBytes(const std::u16string& text) { return 2 * uint64_t{text.size()} + 2; }

// Writes `text` with its terminator at body offset `at` and fills the StringRef at body offset
// `entry` to point at it; returns the offset behind the string. The bytes must be there.
inline uint32_t PutString(uint8_t* body, size_t entry, uint32_t at, const std::u16string& text) {
    const uint32_t bytes = static_cast<uint32_t>(WireBytes(text));
    Protocol::Store32(body + entry + 0, at);
    Protocol::Store32(body + entry + 4, bytes);
    Protocol::Store32(body + entry + 8, Protocol::kStringType);
    if (bytes > 2) std::memcpy(body + at, text.data(), bytes - 2);
    body[at + bytes - 2] = 0;
    body[at + bytes - 1] = 0;
    return at + bytes;
}

// Appends an ArrayHeader of StringRef, the table right behind it and the strings behind that.
inline void PutStringTable(std::vector<uint8_t>& out, size_t base,
                           const std::vector<std::u16string>& strings) {
    const size_t header = out.size();
    const size_t table = header + Protocol::kArrayHeaderBytes;
    size_t total = table + size_t{Protocol::kStringRefBytes} * strings.size();
    for (const std::u16string& s : strings) total += static_cast<size_t>(WireBytes(s));
    out.resize(total);
    uint8_t* body = out.data() + base;
    Set32(out, header + 0, static_cast<uint32_t>(strings.size()));
    Set32(out, header + 4, Protocol::kStringRefBytes);
    Set32(out, header + 8, static_cast<uint32_t>(table - base));
    size_t entry = table - base;
    auto at = static_cast<uint32_t>(entry + size_t{Protocol::kStringRefBytes} * strings.size());
    for (const std::u16string& s : strings) {
        at = PutString(body, entry, at, s);
        entry += Protocol::kStringRefBytes;
    }
}

}  // namespace Vigil::Codec::Writer
