#include "service/VigilServiceSeams.h"

#include "platform/ModulePath.h"

namespace Vigil {

std::u16string ReadModulePath() {
    // A buffer of 2048 units of which 2047 hold text: a longer path comes back cut to 2047 units.
    // This call keeps one unit of its size for the terminator, so it is given the whole buffer.
    std::u16string buffer(2048, u'\0');
    const uint32_t length = Osb::GetModuleFileNameW(buffer.data(), 2048);
    buffer.resize(length > 2047 ? 2047 : length);
    return buffer;
}

// WIRING: replace with the configuration of the service (registry locale, dictionary lookups).
// Until then the English texts.
void ConfigureService(std::u16string& displayName, std::u16string& description) {
    displayName = u"Orvanta Vigil Watch V14";
    description = u"Tracks files that are managed by Mirelle Catalog";
}

// WIRING: replace with Watch::Database::open(dataFolder).
void OpenWatchDatabase(const std::u16string& dataFolder) { (void)dataFolder; }

// WIRING: replace with Watch::Database::close().
void CloseWatchDatabase() {}

}  // namespace Vigil
