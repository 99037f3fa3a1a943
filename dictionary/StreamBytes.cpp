#include "dictionary/StreamBytes.h"

#include <bit>
#include <utility>

namespace lexkit_private {

StreamBytes::StreamBytes(std::istream& stream, bool bigEndian)
    : stream_(stream), bigEndian_(bigEndian) {
    const std::streampos here = stream_.tellg();
    if (here == std::streampos(-1) || !stream_.seekg(0, std::ios::end)) {
        failed_ = true;
        stream_.clear();
        return;
    }
    const std::streampos end = stream_.tellg();
    stream_.seekg(here);
    if (end == std::streampos(-1) || !stream_ || end < here) {
        failed_ = true;
        return;
    }
    remaining_ = static_cast<uint64_t>(end - here);
}

bool StreamBytes::Take(uint64_t count) {
    if (failed_ || count > remaining_) {
        failed_ = true;
        return false;
    }
    remaining_ -= count;
    return true;
}

bool StreamBytes::ReadRaw(void* buffer, uint64_t count) {
    if (!Take(count)) return false;
    if (count == 0) return true;
    stream_.read(static_cast<char*>(buffer), static_cast<std::streamsize>(count));
    if (stream_.gcount() != static_cast<std::streamsize>(count)) failed_ = true;
    return !failed_;
}

bool StreamBytes::ReadU8(uint8_t& value) { return ReadRaw(&value, 1); }

bool StreamBytes::ReadU16(uint16_t& value) {
    unsigned char b[2];
    if (!ReadRaw(b, 2)) return false;
    value = bigEndian_ ? static_cast<uint16_t>(b[0] << 8 | b[1])
                       : static_cast<uint16_t>(b[1] << 8 | b[0]);
    return true;
}

bool StreamBytes::ReadU32(uint32_t& value) {
    unsigned char b[4];
    if (!ReadRaw(b, 4)) return false;
    if (bigEndian_) std::swap(b[0], b[3]), std::swap(b[1], b[2]);
    value = uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
    return true;
}

bool StreamBytes::ReadBytes(std::unique_ptr<unsigned char[]>& out, uint64_t count) {
    out.reset();
    if (failed_ || count > remaining_) return Take(count);
    if (count == 0) return true;
    out = std::make_unique<unsigned char[]>(count);
    return ReadRaw(out.get(), count);
}

bool StreamBytes::ReadUnits(std::unique_ptr<unsigned char[]>& out, uint64_t count) {
    if (!ReadBytes(out, count)) return false;
    if (bigEndian_ != (std::endian::native == std::endian::big)) {
        for (uint64_t i = 0; i + 1 < count; i += 2) std::swap(out[i], out[i + 1]);
    }
    return true;
}

// Arrays of numbers are decoded from their little-endian or big-endian bytes one by one, so the
// result is right on a machine of either order.
bool StreamBytes::ReadU16Array(std::unique_ptr<uint16_t[]>& out, uint64_t count) {
    out.reset();
    std::unique_ptr<unsigned char[]> raw;
    if (!ReadBytes(raw, count * 2)) return false;
    if (count == 0) return true;
    out = std::make_unique<uint16_t[]>(count);
    for (uint64_t i = 0; i < count; ++i) {
        const unsigned char* b = &raw[2 * i];
        out[i] = bigEndian_ ? static_cast<uint16_t>(b[0] << 8 | b[1])
                            : static_cast<uint16_t>(b[1] << 8 | b[0]);
    }
    return true;
}

bool StreamBytes::ReadU32Array(std::unique_ptr<uint32_t[]>& out, uint64_t count) {
    out.reset();
    std::unique_ptr<unsigned char[]> raw;
    if (!ReadBytes(raw, count * 4)) return false;
    if (count == 0) return true;
    out = std::make_unique<uint32_t[]>(count);
    for (uint64_t i = 0; i < count; ++i) {
        const unsigned char* b = &raw[4 * i];
        out[i] = bigEndian_
                     ? (uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3])
                     : (uint32_t{b[3]} << 24 | uint32_t{b[2]} << 16 | uint32_t{b[1]} << 8 | b[0]);
    }
    return true;
}

}  // namespace lexkit_private
