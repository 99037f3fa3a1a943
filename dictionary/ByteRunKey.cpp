#include "dictionary/ByteRunKey.h"

#include <cstring>

#include "dictionary/KeyHash.h"

namespace lexkit_private {

namespace {

const unsigned char* CopyBytes(const void* bytes, uint32_t length) {
    if (length == 0) return nullptr;
    auto* copy = new unsigned char[length];
    std::memcpy(copy, bytes, length);
    return copy;
}

}  // namespace

ByteRunKey::ByteRunKey(const void* bytes, uint32_t length, bool owned)
    : bytes_(owned ? CopyBytes(bytes, length) : static_cast<const unsigned char*>(bytes)),
      length_(length),
      owned_(owned) {}

ByteRunKey::ByteRunKey(const ByteRunKey& other)
    : HashItem(),
      bytes_(CopyBytes(other.bytes_, other.length_)),
      length_(other.length_),
      owned_(true) {}

ByteRunKey::~ByteRunKey() {
    if (owned_) delete[] bytes_;
}

uint32_t ByteRunKey::Hash(uint32_t modulus) const { return KeyHash(bytes_, length_, modulus); }

bool ByteRunKey::Equals(const HashItem& other) const {
    const auto* key = dynamic_cast<const ByteRunKey*>(&other);
    if (key == nullptr || key->length_ != length_) return false;
    return length_ == 0 || std::memcmp(key->bytes_, bytes_, length_) == 0;
}

uint32_t ByteRunKey::Serialize(std::ostream& stream, bool binary, const uint32_t* encoding) {
    (void)encoding;
    return SerializeKeyBytes(stream, binary);
}

uint32_t ByteRunKey::SerializeKeyBytes(std::ostream& stream, bool binary) const {
    if (length_ == 0) return 0;
    if (binary) {
        stream.write(reinterpret_cast<const char*>(bytes_), length_);
        return length_;
    }
    auto putUnit = [&stream](char16_t unit) {
        stream.write(reinterpret_cast<const char*>(&unit), sizeof unit);
    };
    putUnit(u'"');
    for (uint32_t i = 0; i < length_; ++i) putUnit(static_cast<char16_t>(bytes_[i]));
    putUnit(u'=');
    return 2 * (length_ + 2);
}

}  // namespace lexkit_private
