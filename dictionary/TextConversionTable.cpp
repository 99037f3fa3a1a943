#include "dictionary/TextConversionTable.h"

#include <climits>
#include <memory>

#include "dictionary/LxErrException.h"
#include "platform/CodePage.h"
#include "platform/ErrorCode.h"

namespace lexkit_private {
namespace {

uint32_t CodePageOf(const uint32_t* encoding) {
    return encoding != nullptr && *encoding == 1 ? Osb::kCodePageUtf8 : Osb::kCodePageAnsi;
}

// The system calls take int lengths; a longer run is refused rather than cut.
bool FitsInt(uint32_t n) { return n <= static_cast<uint32_t>(INT_MAX); }

uint32_t FailureCode() {
    return Osb::ErrorCode() == Osb::Err::kInsufficientBuffer ? kLxErrBufferTooSmall
                                                             : kLxErrConversion;
}

uint32_t MultiByteLength(const char* bytes, uint32_t length, uint32_t& units,
                         const uint32_t* encoding) {
    units = 0;
    if (length == 0 || !FitsInt(length)) return 0;
    const int n = Osb::MultiByteToWideChar(CodePageOf(encoding), 0, bytes, static_cast<int>(length),
                                           nullptr, 0);
    units = static_cast<uint32_t>(n);
    return 0;
}

uint32_t MultiByteToWide(const char* bytes, uint32_t length, char16_t* units, uint32_t capacity,
                         const uint32_t* encoding) {
    if (length == 0) return 0;
    if (!FitsInt(length) || !FitsInt(capacity)) return kLxErrConversion;
    // A capacity of 0 would make the system call count instead of convert: nothing fits.
    if (capacity == 0) return kLxErrBufferTooSmall;
    const int n = Osb::MultiByteToWideChar(CodePageOf(encoding), 0, bytes, static_cast<int>(length),
                                           units, static_cast<int>(capacity));
    return n != 0 ? 0 : FailureCode();
}

uint32_t WideToMultiByteLength(const char16_t* units, uint32_t length, uint32_t& bytes,
                               const uint32_t* encoding) {
    bytes = 1;
    if (length == 0 || !FitsInt(length)) return 0;
    const int n = Osb::WideCharToMultiByte(CodePageOf(encoding), 0, units, static_cast<int>(length),
                                           nullptr, 0, nullptr, nullptr);
    bytes = static_cast<uint32_t>(n) + 1;
    return 0;
}

uint32_t WideToMultiByte(const char16_t* units, uint32_t length, char* bytes, uint32_t capacity,
                         uint32_t& written, const uint32_t* encoding) {
    written = 0;
    if (length == 0) return 0;
    if (!FitsInt(length) || !FitsInt(capacity)) return kLxErrConversion;
    if (capacity == 0) return kLxErrBufferTooSmall;
    const int n = Osb::WideCharToMultiByte(CodePageOf(encoding), 0, units, static_cast<int>(length),
                                           bytes, static_cast<int>(capacity), nullptr, nullptr);
    if (n != 0) {
        written = static_cast<uint32_t>(n);
        return 0;
    }
    if (Osb::ErrorCode() != Osb::Err::kInsufficientBuffer) return kLxErrConversion;
    // Count the characters among the bytes that fit. The lead-byte test asks the ANSI code page
    // whatever the encoding was, as the library always has.
    uint32_t characters = 0;
    for (uint32_t at = 0; at < capacity; ++characters) {
        const bool lead =
            Osb::IsDBCSLeadByteEx(Osb::kCodePageAnsi, static_cast<unsigned char>(bytes[at]));
        at += lead ? 2 : 1;
    }
    written = characters;
    return kLxErrBufferTooSmall;
}

}  // namespace

const TextConversionTable kTextConversionTable = {
    MultiByteLength,
    MultiByteToWide,
    WideToMultiByteLength,
    WideToMultiByte,
};

std::u16string MultiByteToUtf16(std::string_view bytes, const uint32_t* encoding) {
    if (bytes.size() > INT_MAX) throw LxErrException{kLxErrConversion};
    const auto length = static_cast<uint32_t>(bytes.size());
    uint32_t units = 0;
    uint32_t result = kTextConversionTable.MultiByteLength(bytes.data(), length, units, encoding);
    std::u16string text(units, u'\0');
    if (result == 0) {
        result = kTextConversionTable.MultiByteToWide(bytes.data(), length, text.data(), units,
                                                      encoding);
    }
    if (result != 0) throw LxErrException{result};
    return text;
}

std::string Utf16ToMultiByte(std::u16string_view units, const uint32_t* encoding) {
    if (units.size() > INT_MAX) throw LxErrException{kLxErrConversion};
    const auto length = static_cast<uint32_t>(units.size());
    uint32_t capacity = 1;
    uint32_t result =
        kTextConversionTable.WideToMultiByteLength(units.data(), length, capacity, encoding);
    if (result != 0) throw LxErrException{result};
    auto bytes = std::make_unique<char[]>(capacity);
    uint32_t written = 0;
    result = kTextConversionTable.WideToMultiByte(units.data(), length, bytes.get(), capacity - 1,
                                                  written, encoding);
    if (result != 0) throw LxErrException{result};
    bytes[written] = '\0';
    return std::string(bytes.get(), written);
}

}  // namespace lexkit_private
