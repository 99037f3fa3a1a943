#include "service/VigilServiceSeams.h"

#include "platform/ModulePath.h"
#include "platform/Utf.h"
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

// WIRING: the dictionary operations are replaced by the dictionary library's LoadDictionary and
// LookupString. Until then no file is read and every lookup gives the text behind its '='.
void ConfigureService(std::u16string& displayName, std::u16string& description) {
    DictionaryCalls dictionary;
    dictionary.load = [](const std::u16string&, uint32_t, bool) { return false; };
    dictionary.lookup = [](const std::string& text) {
        const size_t equals = text.find('=');
        return Osb::Utf8ToUtf16(equals == std::string::npos ? text : text.substr(equals + 1));
    };
    ServiceTexts texts = ReadServiceTexts(dictionary);
    displayName = std::move(texts.displayName);
    description = std::move(texts.description);
}

void OpenWatchDatabase(const std::u16string& dataFolder) {
    Watch::ProcessDatabase().open(dataFolder);
}

void CloseWatchDatabase() { Watch::ProcessDatabase().close(); }

}  // namespace Vigil
