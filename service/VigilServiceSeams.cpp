#include "service/VigilServiceSeams.h"

namespace Vigil {

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
