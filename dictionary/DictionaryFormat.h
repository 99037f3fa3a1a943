// The dictionary file forms on disk, in one place: constants of the binary header and of the
// version 1.0, 1.5 and 2.x layouts. Readers are Dictionary::LoadBinary (1.x) and
// FastArray::ReadBlock (2.x); the writer is DictionaryWriter.
//
// Binary header, all numbers unsigned unless said otherwise:
//   0  21 bytes  magic "Lexicon Binary Format", no terminator
//   21 i8        major version
//   22 i8        minor version
//   23 u8        encoding byte (1.x: 0 UTF-16LE, 1 UTF-8, other ANSI code page; 2.x: ignored)
//   24 u8        byte-order byte, versions 2.1 and later only: bit 0 set = big-endian numbers and
//                UTF-16 units. Keys are bytes and never swapped.
//
// 1.0, little-endian: u16 record count N; N records (u16 bucket, u32 position), the last one only
//   an end mark; entries (u32 key length, key, u32 value length, value).
// 1.5, little-endian: u32 bucket count N; N u32 end marks; (last end mark) u32 lengths, in
//   key/value pairs; N u16 bucket numbers; entries (key bytes, value bytes).
// 2.x, one block behind the header (25 bytes, 24 in 2.0): u32 header text length, header text,
//   then the block laid out in FastArray.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace lexkit_private {

inline constexpr std::string_view kBinaryMagic = "Lexicon Binary Format";
inline constexpr size_t kBinaryMagicLength = 21;
static_assert(kBinaryMagic.size() == kBinaryMagicLength);

// Buckets of every hash in the library; a bucket number is a key's hash modulo this.
inline constexpr uint32_t kBucketCount = 1021;

// The version a loaded 2.x file is recorded as, and the one the writer produces.
inline constexpr int8_t kCurrentMajor = 2;
inline constexpr int8_t kCurrentMinor = 7;

// Keys flag of a 2.x block: 'N' means the block has no key tables; anything else means it has.
inline constexpr char kKeysAbsent = 'N';
inline constexpr char kKeysPresent = 'Y';

// The byte order numbers of the writing side: 0 big-endian output on a little-endian machine,
// 1 little-endian, 2 the machine's own. The byte-order byte of a file holds the inverse of bit 0.
inline constexpr int kByteOrderBig = 0;
inline constexpr int kByteOrderLittle = 1;
inline constexpr int kByteOrderNative = 2;

// An entry's key and value lengths in a 2.x block are u16.
inline constexpr uint32_t kMaxRunLength = 0xFFFF;

}  // namespace lexkit_private
