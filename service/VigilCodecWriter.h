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

// Appends `text` with its terminator and fills the StringRef at `entry` to point at it.
inline void PutString(std::vector<uint8_t>& out, size_t base, size_t entry,
                      const std::u16string& text) {
    const size_t at = out.size();
    const uint32_t bytes = static_cast<uint32_t>(WireBytes(text));
    Set32(out, entry + 0, static_cast<uint32_t>(at - base));
    Set32(out, entry + 4, bytes);
    Set32(out, entry + 8, Protocol::kStringType);
    out.resize(at + bytes);
    std::memcpy(out.data() + at, text.data(), bytes - 2);
    out[at + bytes - 2] = 0;
    out[at + bytes - 1] = 0;
}

// Appends an ArrayHeader of StringRef, the table right behind it and the strings behind that.
inline void PutStringTable(std::vector<uint8_t>& out, size_t base,
                           const std::vector<std::u16string>& strings) {
    uint64_t total = out.size() + Protocol::kArrayHeaderBytes +
                     uint64_t{Protocol::kStringRefBytes} * strings.size();
    for (const std::u16string& s : strings) total += WireBytes(s);
    out.reserve(static_cast<size_t>(total));
    Put32(out, static_cast<uint32_t>(strings.size()));
    Put32(out, Protocol::kStringRefBytes);
    Put32(out, static_cast<uint32_t>(out.size() + 4 - base));
    size_t entry = out.size();
    out.resize(entry + size_t{Protocol::kStringRefBytes} * strings.size());
    for (const std::u16string& s : strings) {
        PutString(out, base, entry, s);
        entry += Protocol::kStringRefBytes;
    }
}

}  // namespace Vigil::Codec::Writer
