#include "dictionary/DictionaryWriter.h"

#include <bit>
#include <cstdint>
#include <map>
#include <sstream>

#include "dictionary/DictionaryEntry.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/KeyHash.h"

namespace lexkit_private {

namespace {

class NumberWriter {
  public:
    NumberWriter(std::ostream& out, bool bigEndian) : out_(out), bigEndian_(bigEndian) {}

    void U16(uint32_t value) { Put(value, 2); }
    void U32(uint32_t value) { Put(value, 4); }

  private:
    void Put(uint32_t value, int width) {
        char bytes[4];
        for (int i = 0; i < width; ++i) {
            const int shift = 8 * (bigEndian_ ? width - 1 - i : i);
            bytes[i] = static_cast<char>((value >> shift) & 0xFF);
        }
        out_.write(bytes, width);
    }

    std::ostream& out_;
    bool bigEndian_;
};

}  // namespace

bool WriteBinaryDictionary(std::ostream& out, const std::vector<Dictionary::VisibleEntry>& entries,
                           int byteOrder, std::string_view headerText, std::string& error) {
    if (byteOrder == kByteOrderNative) {
        byteOrder = std::endian::native == std::endian::big ? kByteOrderBig : kByteOrderLittle;
    }
    const bool bigEndian = byteOrder == kByteOrderBig;
    std::ostringstream keyPool;
    std::ostringstream valuePool;
    std::vector<uint32_t> keyOffsets, valueOffsets, keyLengths, valueLengths;
    std::map<uint32_t, std::vector<uint32_t>> buckets;  // ascending bucket numbers
    uint64_t keyTotal = 0;
    uint64_t valueTotal = 0;
    for (const Dictionary::VisibleEntry& source : entries) {
        const uint64_t keyLength = source.key.size();
        const uint32_t valueLength = source.value.Length();
        if (keyLength == 0 || keyLength > kMaxRunLength || valueLength > kMaxRunLength) {
            error = "entry '" + source.key.substr(0, 64) +
                    "': the key must have 1 to 65535 bytes and the value at most 65535 bytes";
            return false;
        }
        DictionaryEntry entry(source.key.data(), static_cast<uint32_t>(keyLength), source.value);
        buckets[entry.Hash(kBucketCount)].push_back(static_cast<uint32_t>(keyOffsets.size()));
        keyOffsets.push_back(static_cast<uint32_t>(keyTotal));
        valueOffsets.push_back(static_cast<uint32_t>(valueTotal));
        keyTotal += entry.SerializeKey(keyPool, true);
        valueTotal += entry.SerializeValue(valuePool, true, nullptr, byteOrder);
        keyLengths.push_back(static_cast<uint32_t>(keyLength));
        valueLengths.push_back(valueLength);
        if (keyTotal > UINT32_MAX || valueTotal > UINT32_MAX) {
            error = "the key or value pool passes 4 GiB";
            return false;
        }
    }

    const auto n = static_cast<uint32_t>(entries.size());
    out.write(kBinaryMagic.data(), kBinaryMagicLength);
    // Major, minor, encoding (ignored in 2.x), byte-order byte: bit 0 set for big-endian.
    const char version[4] = {kCurrentMajor, kCurrentMinor, 0, bigEndian ? '\1' : '\0'};
    out.write(version, sizeof version);
    NumberWriter number(out, bigEndian);
    number.U32(static_cast<uint32_t>(headerText.size()));
    out.write(headerText.data(), static_cast<std::streamsize>(headerText.size()));
    number.U32(0);  // base index
    out.put(kKeysPresent);
    number.U32(n);
    number.U32(n);  // every entry is live
    number.U32(static_cast<uint32_t>(buckets.size()));
    number.U32(static_cast<uint32_t>(keyTotal));
    number.U32(static_cast<uint32_t>(valueTotal));
    for (uint32_t offset : keyOffsets) number.U32(offset);
    for (uint32_t length : keyLengths) number.U16(length);
    for (uint32_t offset : valueOffsets) number.U32(offset);
    for (uint32_t length : valueLengths) number.U16(length);
    out << keyPool.str() << valuePool.str();
    for (const auto& [bucket, list] : buckets) number.U16(bucket);
    for (const auto& [bucket, list] : buckets) number.U32(static_cast<uint32_t>(list.size()));
    for (const auto& [bucket, list] : buckets) {
        for (uint32_t entry : list) number.U32(entry);
    }
    number.U32(0);  // no extra strings
    return true;
}

size_t WriteTextDictionary(std::ostream& out,
                           const std::vector<Dictionary::VisibleEntry>& entries) {
    const char16_t mark = 0xFEFF;
    out.write(reinterpret_cast<const char*>(&mark), sizeof mark);
    size_t lines = 0;
    for (const Dictionary::VisibleEntry& source : entries) {
        if (source.key.empty()) continue;
        DictionaryEntry entry(source.key.data(), static_cast<uint32_t>(source.key.size()),
                              source.value);
        entry.Serialize(out, false, nullptr);
        ++lines;
    }
    return lines;
}

}  // namespace lexkit_private
