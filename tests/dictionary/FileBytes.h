// Builds dictionary files byte by byte for tests, in either byte order, so that each test states
// the layout it feeds the loader.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dictionary/KeyHash.h"

namespace lexkit_test {

class FileBytes {
  public:
    explicit FileBytes(bool bigEndian = false) : bigEndian_(bigEndian) {}

    FileBytes& U8(uint8_t v) {
        bytes.push_back(v);
        return *this;
    }
    FileBytes& U16(uint32_t v) { return Put(v, 2); }
    FileBytes& U32(uint32_t v) { return Put(v, 4); }
    FileBytes& Raw(std::string_view s) {
        bytes.insert(bytes.end(), s.begin(), s.end());
        return *this;
    }
    // UTF-16 units in the builder's byte order.
    FileBytes& Units(std::u16string_view s) {
        for (char16_t u : s) Put(u, 2);
        return *this;
    }
    // The magic and the version bytes; the byte-order byte only when `withOrderByte`.
    FileBytes& Header(int8_t major, int8_t minor, uint8_t encoding, bool withOrderByte) {
        Raw("Lexicon Binary Format");
        U8(static_cast<uint8_t>(major)).U8(static_cast<uint8_t>(minor)).U8(encoding);
        if (withOrderByte) U8(bigEndian_ ? 1 : 0);
        return *this;
    }
    std::string Str() const { return std::string(bytes.begin(), bytes.end()); }

    std::vector<uint8_t> bytes;

  private:
    FileBytes& Put(uint32_t v, int width) {
        for (int i = 0; i < width; ++i) {
            bytes.push_back(static_cast<uint8_t>(v >> (8 * (bigEndian_ ? width - 1 - i : i))));
        }
        return *this;
    }
    bool bigEndian_;
};

inline uint32_t Bucket(std::string_view key) {
    return lexkit_private::KeyHash(reinterpret_cast<const unsigned char*>(key.data()),
                                   static_cast<uint32_t>(key.size()), 1021);
}

struct BlockEntry {
    std::string key;  // empty: a dead entry
    std::u16string value;
};

struct BlockOptions {
    uint32_t baseIndex = 0;
    char keysFlag = 'Y';
    int64_t liveCount = -1;  // -1: the number of entries with a key
    std::vector<std::pair<uint32_t, std::u16string>> extras;  // entry number, text
};

// Appends one 2.x block (from the base index on) with buckets by the key hash, each bucket's list
// in entry order.
inline void AppendBlock(FileBytes& f, const std::vector<BlockEntry>& entries,
                        const BlockOptions& options = {}) {
    const bool keys = options.keysFlag != 'N';
    std::string keyPool;
    std::u16string valuePool;
    std::vector<std::pair<uint32_t, std::vector<uint32_t>>> buckets;
    uint32_t live = 0;
    for (uint32_t i = 0; i < entries.size(); ++i) {
        if (!entries[i].key.empty()) ++live;
        const uint32_t b = Bucket(entries[i].key);
        auto it =
            std::find_if(buckets.begin(), buckets.end(), [b](auto& p) { return p.first == b; });
        if (it == buckets.end()) {
            buckets.push_back({b, {i}});
        } else {
            it->second.push_back(i);
        }
    }
    const auto n = static_cast<uint32_t>(entries.size());
    f.U32(options.baseIndex).U8(static_cast<uint8_t>(options.keysFlag)).U32(n);
    f.U32(options.liveCount < 0 ? live : static_cast<uint32_t>(options.liveCount));
    f.U32(static_cast<uint32_t>(buckets.size()));
    uint32_t keySize = 0, valueSize = 0;
    for (auto& e : entries)
        keySize += static_cast<uint32_t>(e.key.size()),
            valueSize += 2 * static_cast<uint32_t>(e.value.size());
    if (keys) f.U32(keySize);
    f.U32(valueSize);
    if (keys) {
        uint32_t at = 0;
        for (auto& e : entries) f.U32(at), at += static_cast<uint32_t>(e.key.size());
        for (auto& e : entries) f.U16(static_cast<uint32_t>(e.key.size()));
    }
    uint32_t at = 0;
    for (auto& e : entries) f.U32(at), at += 2 * static_cast<uint32_t>(e.value.size());
    for (auto& e : entries) f.U16(2 * static_cast<uint32_t>(e.value.size()));
    if (keys) {
        for (auto& e : entries) f.Raw(e.key);
    }
    for (auto& e : entries) f.Units(e.value);
    if (keys) {
        for (auto& b : buckets) f.U16(b.first);
        for (auto& b : buckets) f.U32(static_cast<uint32_t>(b.second.size()));
        for (auto& b : buckets) {
            for (uint32_t e : b.second) f.U32(e);
        }
    }
    f.U32(static_cast<uint32_t>(options.extras.size()));
    if (!options.extras.empty()) {
        uint32_t pool = 0;
        for (auto& x : options.extras) pool += 2 * static_cast<uint32_t>(x.second.size());
        f.U32(pool);
        for (auto& x : options.extras) f.U32(x.first);
        uint32_t off = 0;
        for (auto& x : options.extras)
            f.U32(off), off += 2 * static_cast<uint32_t>(x.second.size());
        for (auto& x : options.extras) f.U16(2 * static_cast<uint32_t>(x.second.size()));
        for (auto& x : options.extras) f.Units(x.second);
    }
}

// A whole 2.x file: header (with the byte-order byte from 2.1 on), empty header text, one block.
inline FileBytes Version2File(int8_t minor, bool bigEndian, const std::vector<BlockEntry>& entries,
                              const BlockOptions& options = {}) {
    FileBytes f(bigEndian);
    f.Header(2, minor, 0, minor >= 1);
    f.U32(0);
    AppendBlock(f, entries, options);
    return f;
}

}  // namespace lexkit_test
