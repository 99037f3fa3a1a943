#include "dictionary/Dictionary.h"

#include <bit>
#include <cstring>
#include <string_view>

#include "dictionary/ByteRunKey.h"
#include "dictionary/DictionaryEntry.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/StreamBytes.h"
#include "dictionary/TextConversionTable.h"
#include "dictionary/Unescape.h"

namespace lexkit_private {

Dictionary::Dictionary() : fastArray_(new FastArray()) { fastArray_->AddRef(); }

Dictionary::~Dictionary() { fastArray_->Release(); }

void Dictionary::LoadBinary(std::istream& stream) {
    char magic[kBinaryMagicLength];
    if (!stream.read(magic, sizeof magic)) {
        valid_ = false;
        return;
    }
    char version[3];
    if (!stream.read(version, sizeof version)) {
        valid_ = false;
        return;
    }
    const auto major = static_cast<int8_t>(version[0]);
    const auto minor = static_cast<int8_t>(version[1]);
    const auto encoding = static_cast<uint8_t>(version[2]);
    int byteOrder = kByteOrderNative;
    if (major >= 2 && minor >= 1) {
        char orderByte = 0;
        if (!stream.read(&orderByte, 1)) {
            valid_ = false;
            return;
        }
        // Bit 0 set means big-endian; the byte order number holds its inverse.
        byteOrder = (~orderByte) & 1;
    }

    if (major == 2 && minor >= 0) {
        StreamBytes in(
            stream, byteOrder == kByteOrderBig ||
                        (byteOrder == kByteOrderNative && std::endian::native == std::endian::big));
        uint32_t length = 0;
        std::unique_ptr<unsigned char[]> text;
        // The length is tested against the stream before anything is allocated.
        if (!in.ReadU32(length) || !in.ReadBytes(text, length)) {
            valid_ = false;
            return;
        }
        headerText_ = std::make_unique<char[]>(uint64_t{length} + 1);
        if (length != 0) std::memcpy(headerText_.get(), text.get(), length);
        headerText_[length] = '\0';
        if (fastArray_->ReadBlock(stream, byteOrder) != 0) {
            valid_ = false;
        } else {
            major_ = kCurrentMajor;
            minor_ = kCurrentMinor;
        }
        return;
    }
    if (major == 1 && (minor == 5 || minor == 0)) LoadVersion1(stream, minor, encoding);
}

ByteRunValueRef Dictionary::Find(const char* text, const uint32_t* encoding) {
    if (text == nullptr || *text == '\0') return ByteRunValueRef();
    std::string_view rest(text);
    if (rest[0] == '$') {
        if (!rest.starts_with("$$$")) return ByteRunValueRef();
        rest.remove_prefix(3);
    }
    const size_t equals = rest.find('=');
    const std::string_view key = rest.substr(0, equals);
    const std::string_view fallback =
        equals == std::string_view::npos ? std::string_view() : rest.substr(equals + 1);
    const auto* keyBytes = reinterpret_cast<const unsigned char*>(key.data());
    const auto keyLength = static_cast<uint32_t>(key.size());

    if (major_ >= 2) {
        const uint32_t number = fastArray_->Find(keyBytes, keyLength);
        if (number != FastArray::kNotFound) return fastArray_->GetValue(number);
    } else {
        const ByteRunKey probe(keyBytes, keyLength, false);
        if (auto* hit = dynamic_cast<DictionaryEntry*>(Search(probe))) return hit->Value();
    }
    if (fallback.empty()) return ByteRunValueRef();

    std::u16string units;
    if (encoding == nullptr || *encoding == 0) {
        // The service passes 7-bit defaults only; a byte of 0x80 and above is widened as it is,
        // which reads it as Latin-1.
        units.reserve(fallback.size());
        for (char c : fallback)
            units.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
    } else {
        units = MultiByteToUtf16(fallback, encoding);
    }
    return Unescape(units.data(), static_cast<uint32_t>(units.size()));
}

std::vector<Dictionary::VisibleEntry> Dictionary::VisibleEntries() {
    std::vector<VisibleEntry> entries;
    if (major_ >= 2) {
        unsigned char buffer[kMaxRunLength + 1];
        for (uint32_t number = 0; number < fastArray_->EntryCount(); ++number) {
            uint32_t length = 0;
            if (!fastArray_->GetKey(number, buffer, sizeof buffer, length)) continue;
            // A key that stands twice is reached at its first entry only.
            if (fastArray_->Find(buffer, length) != number) continue;
            entries.push_back({std::string(reinterpret_cast<char*>(buffer), length),
                               fastArray_->GetValue(number)});
        }
        return entries;
    }
    for (uint32_t bucket = 0; bucket < kBucketCount; ++bucket) {
        for (HashItem* item = Head(bucket); item != nullptr; item = item->next) {
            auto* entry = dynamic_cast<DictionaryEntry*>(item);
            if (entry == nullptr || Search(*entry) != entry) continue;
            entries.push_back({std::string(entry->KeyView()), entry->Value()});
        }
    }
    return entries;
}

}  // namespace lexkit_private
