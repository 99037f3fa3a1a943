// The writing side of the dictionary file forms: a binary 2.7 file of one block, or a UTF-16 text
// file. The loader (Dictionary::Load) reads both back to the same entries.
//
// Keys and values pass through DictionaryEntry's Serialize operations. Entries are written in the
// order given; each key should stand once (Dictionary::VisibleEntries gives such a list).
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "dictionary/Dictionary.h"

namespace lexkit_private {

// Writes a binary 2.7 file: header, `headerText`, one block with keys, every entry live, bucket
// lists by the key hash, no extra strings. `byteOrder` is kByteOrderBig or kByteOrderLittle (or
// kByteOrderNative, taken as the machine's order). Returns false and writes nothing when an entry
// cannot be stored: an empty key (it would be dead), a key or value longer than kMaxRunLength
// bytes, or pools past 4 GiB; `error` then names the entry.
bool WriteBinaryDictionary(std::ostream& out, const std::vector<Dictionary::VisibleEntry>& entries,
                           int byteOrder, std::string_view headerText, std::string& error);

// Writes a UTF-16 text file in the machine's order: a byte-order mark, then one line per entry,
// "key=value" between quote marks, with LF, CR and quote marks in the value escaped. Entries with
// an empty key are left out, as no line can define them. Returns the number of lines written.
size_t WriteTextDictionary(std::ostream& out, const std::vector<Dictionary::VisibleEntry>& entries);

}  // namespace lexkit_private
