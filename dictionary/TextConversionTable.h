// The library's one way to the system's text conversions: a table of four function pointers,
// constant from build time on, and the two conversions that the loader, the lookup and the writer
// build on it.
//
// The encoding number picks the code page: a pointer to 1 means UTF-8 (65001); a null pointer or
// any other number means the system's ANSI code page (0, Windows-1252 here).
//
// Every row returns 0 or one of the two codes of LxErrException: kLxErrBufferTooSmall when the
// target is too small, kLxErrConversion for any other failure (also a length beyond INT_MAX).
// The rows raise nothing themselves; MultiByteToUtf16 and Utf16ToMultiByte raise the code.
// All of it is stateless and safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace lexkit_private {

struct TextConversionTable {
    // `units` is set to the number of UTF-16 units that `length` bytes convert to (0 for no
    // bytes). Result 0 in all cases.
    uint32_t (*MultiByteLength)(const char* bytes, uint32_t length, uint32_t& units,
                                const uint32_t* encoding);
    // Converts `length` bytes into at most `capacity` units. Result 0 on success or when `length`
    // is 0.
    uint32_t (*MultiByteToWide)(const char* bytes, uint32_t length, char16_t* units,
                                uint32_t capacity, const uint32_t* encoding);
    // `bytes` is set to the number of bytes that `length` units convert to, plus 1 for a
    // terminator. Result 0 in all cases.
    uint32_t (*WideToMultiByteLength)(const char16_t* units, uint32_t length, uint32_t& bytes,
                                      const uint32_t* encoding);
    // Converts `length` units into at most `capacity` bytes and sets `written` to the bytes
    // written. Result 0 on success or when `length` is 0. When the target is too small, `written`
    // is the number of characters among the bytes that fit, and the result kLxErrBufferTooSmall.
    uint32_t (*WideToMultiByte)(const char16_t* units, uint32_t length, char* bytes,
                                uint32_t capacity, uint32_t& written, const uint32_t* encoding);
};

// The table, filled at build time.
extern const TextConversionTable kTextConversionTable;

// Multibyte text to UTF-16 by `encoding`: sized with MultiByteLength, converted with
// MultiByteToWide. Raises LxErrException when the conversion fails.
std::u16string MultiByteToUtf16(std::string_view bytes, const uint32_t* encoding);

// UTF-16 to multibyte text by `encoding`, without terminator: sized with WideToMultiByteLength,
// converted with WideToMultiByte into one byte less than that. Raises LxErrException when the
// conversion fails.
std::string Utf16ToMultiByte(std::u16string_view units, const uint32_t* encoding);

}  // namespace lexkit_private
