// The process-wide dictionary and the two operations the service configuration calls, in order:
// LoadDictionary once, then LookupString for each display text.
//
// Thread rules: LookupString holds one process-wide lock from start to end, since a lookup writes
// shared state (search memory, reference counts). LoadDictionary takes no lock: it must not run
// beside any other call of this header; the service calls both from its constructor on the main
// thread, before any other thread of the service exists. Neither raises for bad data.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "dictionary/Dictionary.h"

namespace lexkit_private {

// The row of en_us in the locale table; its texts are the defaults and need no file.
inline constexpr uint32_t kDefaultLocaleIndex = 58;

// The one process-wide Dictionary, made on first call and destroyed at process exit.
Dictionary& GetDictionary();

// Loads the dictionary file at `path` into GetDictionary(). With `force` false and `localeIndex`
// kDefaultLocaleIndex, nothing is read and the result is true. Otherwise the result is false when
// the file cannot be read (missing, not readable, a folder), and true when it was read, whatever
// its content (a flawed load only clears Dictionary::Valid()).
bool LoadDictionary(const std::u16string& path, uint32_t localeIndex, bool force);

// The localised text of `text`, "$$$key=default" (the dollars optional): the dictionary's value
// for the key, else the default with its escapes and entities applied. A text without any '=' is
// returned whole (converted from UTF-8), '$$$' included; a text with a bad '$' start yields "".
// The result ends at the first NUL of the value.
std::u16string LookupString(std::string_view text);

}  // namespace lexkit_private
