// The two 1.x layouts: entries go into the hash table in the file's order, bucket by bucket.

#include <vector>

#include "dictionary/Dictionary.h"
#include "dictionary/DictionaryEntry.h"
#include "dictionary/StreamBytes.h"
#include "dictionary/TextConversionTable.h"

namespace lexkit_private {

namespace {

// The entries of one bucket as they are read, linked in file order. Complete entries are kept
// even when a later read of the bucket fails.
struct Run {
    HashItem* first = nullptr;
    HashItem* last = nullptr;

    void Append(HashItem* item) {
        if (last == nullptr) {
            first = item;
        } else {
            last->next = item;
        }
        last = item;
    }
};

}  // namespace

void Dictionary::LinkRun(uint32_t bucket, HashItem* first, HashItem* last) {
    if (first == nullptr) return;
    last->next = Head(bucket);
    SetHead(bucket, first);
}

ByteRunValueRef Dictionary::MakeValue1x(std::unique_ptr<unsigned char[]> bytes, uint32_t length,
                                        uint8_t encoding) const {
    if (encoding == 0) return ByteRunValueRef(bytes.get(), length);
    // The encoding byte counts as a signed number: 1 is UTF-8, anything else the ANSI code page.
    const auto number = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(encoding)));
    const std::u16string units = MultiByteToUtf16(
        std::string_view(reinterpret_cast<const char*>(bytes.get()), length), &number);
    return ByteRunValueRef::FromUnits(units.data(), units.size());
}

void Dictionary::LoadVersion1(std::istream& stream, int8_t minor, uint8_t encoding) {
    StreamBytes in(stream, false);
    // Reads one key and value of `keyLength` and `valueLength` bytes into a new entry, or returns
    // null (the load is then flawed).
    auto readEntry = [&](uint32_t keyLength, uint32_t valueLength) -> HashItem* {
        std::unique_ptr<unsigned char[]> key;
        std::unique_ptr<unsigned char[]> value;
        if (!in.ReadBytes(key, keyLength) || !in.ReadBytes(value, valueLength)) return nullptr;
        return new DictionaryEntry(key.get(), keyLength,
                                   MakeValue1x(std::move(value), valueLength, encoding));
    };

    if (minor == 0) {
        uint16_t records = 0;
        if (!in.ReadU16(records)) {
            valid_ = false;
            return;
        }
        std::vector<uint16_t> buckets(records);
        std::vector<uint32_t> positions(records);
        for (uint16_t i = 0; i < records; ++i) {
            if (!in.ReadU16(buckets[i]) || !in.ReadU32(positions[i])) {
                valid_ = false;
                return;
            }
        }
        if (records < 2) return;
        // Positions matter only by their differences; 64 bits keep a corrupt one from wrapping.
        uint64_t running = positions[0];
        for (uint16_t i = 0; i + 1 < records; ++i) {
            if (buckets[i] >= kBucketCount) {
                valid_ = false;
                return;
            }
            Run run;
            while (running < positions[i + 1]) {
                uint32_t keyLength = 0;
                uint32_t valueLength = 0;
                HashItem* entry = nullptr;
                if (in.ReadU32(keyLength)) {
                    std::unique_ptr<unsigned char[]> key;
                    if (in.ReadBytes(key, keyLength) && in.ReadU32(valueLength)) {
                        std::unique_ptr<unsigned char[]> value;
                        if (in.ReadBytes(value, valueLength)) {
                            entry = new DictionaryEntry(
                                key.get(), keyLength,
                                MakeValue1x(std::move(value), valueLength, encoding));
                        }
                    }
                }
                if (entry == nullptr) {
                    LinkRun(buckets[i], run.first, run.last);
                    valid_ = false;
                    return;
                }
                run.Append(entry);
                running += 8 + uint64_t{keyLength} + valueLength;
            }
            LinkRun(buckets[i], run.first, run.last);
        }
        return;
    }

    uint32_t count = 0;
    std::unique_ptr<uint32_t[]> endMarks;
    std::unique_ptr<uint32_t[]> lengths;
    std::unique_ptr<uint16_t[]> buckets;
    // A file without buckets has no last end mark to size the lengths by: flawed.
    if (!in.ReadU32(count) || count == 0 || !in.ReadU32Array(endMarks, count) ||
        !in.ReadU32Array(lengths, endMarks[count - 1]) || !in.ReadU16Array(buckets, count)) {
        valid_ = false;
        return;
    }
    const uint64_t lengthCount = endMarks[count - 1];
    uint64_t index = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (buckets[i] >= kBucketCount) {
            valid_ = false;
            return;
        }
        Run run;
        while (index < endMarks[i]) {
            HashItem* entry =
                index + 1 < lengthCount ? readEntry(lengths[index], lengths[index + 1]) : nullptr;
            if (entry == nullptr) {
                LinkRun(buckets[i], run.first, run.last);
                valid_ = false;
                return;
            }
            run.Append(entry);
            index += 2;
        }
        LinkRun(buckets[i], run.first, run.last);
    }
}

}  // namespace lexkit_private
