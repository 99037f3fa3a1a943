#include "service/VigilServiceSeams.h"

#include "platform/ModulePath.h"
#include "service/VigilServiceConfiguration.h"
#include "service/VigilWatchFolderDatabase.h"

namespace Vigil {

std::u16string ReadModulePath() {
    // A buffer of 2048 units of which 2047 hold text: a longer path comes back cut to 2047 units.
    // This call keeps one unit of its size for the terminator, so it is given the whole buffer.
    std::u16string buffer(2048, u'\0');
    const uint32_t length = Osb::GetModuleFileNameW(buffer.data(), 2048);
    buffer.resize(length > 2047 ? 2047 : length);
    return buffer;
}

void ConfigureService(std::u16string& displayName, std::u16string& description) {
    ServiceTexts texts = ReadServiceTexts();
    displayName = std::move(texts.displayName);
    description = std::move(texts.description);
}

void OpenWatchDatabase(const std::u16string& dataFolder) {
    Watch::ProcessDatabase().open(dataFolder);
}

void CloseWatchDatabase() { Watch::ProcessDatabase().close(); }

}  // namespace Vigil
