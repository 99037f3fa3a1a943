#include "dictionary/DictionaryEntry.h"

#include <bit>
#include <string>

#include "dictionary/DictionaryFormat.h"
#include "dictionary/TextConversionTable.h"

namespace lexkit_private {

DictionaryEntry::DictionaryEntry(const void* keyBytes, uint32_t keyLength,
                                 const ByteRunValueRef& value)
    : ByteRunKey(keyBytes, keyLength, true), value_(value) {}

DictionaryEntry::~DictionaryEntry() = default;

uint32_t DictionaryEntry::Serialize(std::ostream& stream, bool binary, const uint32_t* encoding) {
    const uint32_t keyBytes = SerializeKeyBytes(stream, binary);
    return keyBytes + SerializeValue(stream, binary, encoding, kByteOrderNative);
}

uint32_t DictionaryEntry::SerializeKey(std::ostream& stream, bool binary) {
    return SerializeKeyBytes(stream, binary);
}

uint32_t DictionaryEntry::SerializeValue(std::ostream& stream, bool binary,
                                         const uint32_t* encoding, int byteOrder) {
    const std::u16string units = value_.Text();
    if (binary && encoding != nullptr) {
        const std::string bytes = Utf16ToMultiByte(units, encoding);
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return static_cast<uint32_t>(bytes.size());
    }
    if (binary) {
        constexpr bool kLittleHost = std::endian::native == std::endian::little;
        const bool swap = (byteOrder == kByteOrderBig && kLittleHost) ||
                          (byteOrder == kByteOrderLittle && !kLittleHost);
        if (!swap) {
            stream.write(reinterpret_cast<const char*>(value_.Bytes()), value_.Length());
            return value_.Length();
        }
        for (char16_t unit : units) {
            // Swapping writes the order opposite to the machine's.
            const char high = static_cast<char>(unit >> 8);
            const char low = static_cast<char>(unit & 0xFF);
            const char pair[2] = {kLittleHost ? high : low, kLittleHost ? low : high};
            stream.write(pair, 2);
        }
        // A last odd byte has no partner to swap with and goes out as it is.
        if (value_.Length() & 1) {
            stream.write(reinterpret_cast<const char*>(value_.Bytes()) + value_.Length() - 1, 1);
        }
        return value_.Length();
    }
    std::u16string text;
    text.reserve(units.size() + 3);
    for (char16_t unit : units) {
        switch (unit) {
            case u'\n':
                text += u"\\n";
                break;
            case u'\r':
                text += u"\\r";
                break;
            case u'"':
                text += u"\\\"";
                break;
            default:
                text += unit;
                break;
        }
    }
    text += u"\"\r\n";
    stream.write(reinterpret_cast<const char*>(text.data()),
                 static_cast<std::streamsize>(text.size() * sizeof(char16_t)));
    return static_cast<uint32_t>(text.size() * sizeof(char16_t));
}

}  // namespace lexkit_private
