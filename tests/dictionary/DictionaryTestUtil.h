// Loading bytes into a fresh Dictionary and looking texts up, for the dictionary tests.
#pragma once

#include <string>
#include <vector>

#include "dictionary/Dictionary.h"
#include "dictionary/MemoryStream.h"

namespace lexkit_test {

inline void LoadBytes(lexkit_private::Dictionary& d, const std::vector<uint8_t>& bytes) {
    lexkit_private::MemoryStream stream(bytes.data(), bytes.size());
    d.Load(stream);
}

inline void LoadBytes(lexkit_private::Dictionary& d, const std::string& bytes) {
    lexkit_private::MemoryStream stream(bytes.data(), bytes.size());
    d.Load(stream);
}

// The text that Find yields for `text`, with no encoding.
inline std::u16string Look(lexkit_private::Dictionary& d, const std::string& text) {
    return d.Find(text.c_str(), nullptr).Text();
}

}  // namespace lexkit_test
