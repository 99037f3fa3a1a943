// Conversions between multibyte text and UTF-16, in the manner of the Windows functions of the
// same names, for the dictionary library.
//
// Code pages: 65001 is UTF-8; 0 (the system's ANSI code page) and 1252 are Windows-1252. Any other
// code page fails with Err::kInvalidParameter. Flags must be 0.
//
// Failures return 0 and set the calling thread's last error (Osb::ErrorCode()):
//   Err::kInvalidParameter   a null or negative argument, a length of 0, a flag, a code page
//                            that is not supported, or a null target with a capacity above 0;
//   Err::kInsufficientBuffer the target is too small: as many whole characters as fit have been
//                            written, the rest has not.
// A length of -1 means that the source is NUL-terminated; the NUL is converted and counted too.
// A capacity of 0 asks for the size the conversion needs, and the target is not touched.
//
// Text that does not convert is not an error (flags are 0):
//   - UTF-8 to UTF-16: each maximal ill-formed subpart becomes U+FFFD, as Windows does;
//   - UTF-16 to UTF-8: a lone surrogate becomes U+FFFD;
//   - Windows-1252 to UTF-16: every byte has a unit; the five bytes that 1252 leaves undefined
//     (0x81, 0x8D, 0x8F, 0x90, 0x9D) become the C1 controls of the same value, as Windows maps
//     them;
//   - UTF-16 to Windows-1252: a unit without a byte in 1252 becomes '?' (0x3F). Windows would try
//     a best-fit letter first (U+0100 to 'A'); we keep no best-fit table, and the dictionary uses
//     this direction only for writing files that it can read back.
// Each call is independent and safe from any thread.
#pragma once

#include <cstdint>

namespace Osb {

inline constexpr uint32_t kCodePageAnsi = 0;
inline constexpr uint32_t kCodePageWindows1252 = 1252;
inline constexpr uint32_t kCodePageUtf8 = 65001;

// Converts `length` bytes at `bytes` to UTF-16 at `wide`, at most `capacity` units. Returns the
// number of units written (or needed, when `capacity` is 0), or 0 on failure.
int MultiByteToWideChar(uint32_t codePage, uint32_t flags, const char* bytes, int length,
                        char16_t* wide, int capacity);

// Converts `length` UTF-16 units at `wide` to multibyte text at `bytes`, at most `capacity` bytes.
// `defaultChar` and `usedDefault` must be null (no default character is supported). Returns the
// number of bytes written (or needed, when `capacity` is 0), or 0 on failure.
int WideCharToMultiByte(uint32_t codePage, uint32_t flags, const char16_t* wide, int length,
                        char* bytes, int capacity, const char* defaultChar, bool* usedDefault);

// True when `byte` opens a two-byte character of `codePage`. Both code pages offered here have no
// such bytes, so the result is false; an unsupported code page also gives false.
bool IsDBCSLeadByteEx(uint32_t codePage, unsigned char byte);

}  // namespace Osb
