#include "dictionary/LookupString.h"

#include <vector>

#include "dictionary/MemoryStream.h"
#include "platform/FileSystem.h"
#include "platform/Mutex.h"
#include "platform/Utf.h"

namespace lexkit_private {

namespace {

// Guards every lookup; constant-initialised, so it is usable at any time of the process's life.
Osb::Mutex lookupMutex;

}  // namespace

Dictionary& GetDictionary() {
    static Dictionary dictionary;
    return dictionary;
}

bool LoadDictionary(const std::u16string& path, uint32_t localeIndex, bool force) {
    if (!force && localeIndex == kDefaultLocaleIndex) return true;
    // The whole file is read at once and parsed from memory: the same bytes as a stream over the
    // open file, with one read.
    std::vector<uint8_t> bytes;
    if (Osb::ReadFileBytes(path, bytes) != 0) return false;
    MemoryStream stream(bytes.data(), bytes.size());
    GetDictionary().Load(stream);
    return true;
}

std::u16string LookupString(std::string_view text) {
    Osb::MutexLock lock(lookupMutex);
    if (text.find('=') == std::string_view::npos) return Osb::Utf8ToUtf16(text);
    // Find takes a NUL-terminated text; a NUL inside `text` ends it there, as it would in C.
    const std::string terminated(text);
    const ByteRunValueRef value = GetDictionary().Find(terminated.c_str(), nullptr);
    std::vector<char16_t> buffer(uint64_t{value.UnitLength()} + 1);
    value.CopyOut(buffer.data(), static_cast<uint32_t>(buffer.size()), false);
    return std::u16string(buffer.data());
}

}  // namespace lexkit_private
