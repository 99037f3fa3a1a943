// The dictionary loader on arbitrary bytes, in whichever form their content selects (UTF-16 text
// of either order, multibyte text, binary of any version), then every visible entry looked at.
#include <cstdint>
#include <sstream>
#include <string>

#include "dictionary/Dictionary.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
    lexkit_private::Dictionary dictionary;
    dictionary.Load(stream);
    size_t bytes = 0;
    for (const auto& entry : dictionary.VisibleEntries()) bytes += entry.key.size();
    return bytes == static_cast<size_t>(-1) ? 1 : 0;
}
