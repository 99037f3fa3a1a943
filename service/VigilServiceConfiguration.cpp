#include "service/VigilServiceConfiguration.h"

#include "dictionary/LookupString.h"
#include "locale/LocaleUtil.h"
#include "platform/Registry.h"
#include "util/ModuleFolder.h"
#include "util/ProductKey.h"
#include "util/RegKey.h"
#include "util/UtfConvert.h"

namespace Vigil {

namespace {

constexpr const char* kProductName = "Mirelle Studio";
constexpr const char* kProductVersion = "14.0";
constexpr const char16_t* kLocaleValue = u"Locale";
constexpr const char16_t* kDefaultLocale = u"en_US";
constexpr const char* kDisplayNameKey =
    "$$$/private/Vigil/Vigil_Display_Name=Orvanta Vigil Watch V";
constexpr const char16_t* kDisplayNameSuffix = u"14";
constexpr const char* kDescriptionKey =
    "$$$/Vigil/Description=Tracks files that are managed by Mirelle Catalog";

}  // namespace

ServiceTexts ReadServiceTexts(const DictionaryCalls& dictionary) {
    // Read access only: the service must never create the product's key, in any role.
    mst_util::reg_key_t productKey(mst_util::product_key(kProductName, kProductVersion),
                                   Osb::Reg::kKeyRead, false);
    if (productKey.open() == 0) {
        const std::string locale =
            mst_util::to_utf8(productKey.read_string(kLocaleValue, kDefaultLocale, nullptr));
        // The locale keeps the case the registry gave it: the table search ignores case, the
        // file system does not, and the installer names the folder as it writes the value.
        std::string path = mst_util::module_folder();
        path += "/";
        path += "Assets";
        path += "/locale/";
        path += locale;
        path += "/lexicon.dct";
        const uint32_t row = lexkit_private::LocaleIndexFromName(locale);
        // A file that cannot be opened leaves the dictionary empty, which the lookups handle.
        dictionary.load(mst_util::to_utf16(path), row, false);
    }
    ServiceTexts texts;
    texts.displayName = dictionary.lookup(kDisplayNameKey) + kDisplayNameSuffix;
    texts.description = dictionary.lookup(kDescriptionKey);
    return texts;
}

ServiceTexts ReadServiceTexts() {
    return ReadServiceTexts({&lexkit_private::LoadDictionary, [](const std::string& text) {
                                 return lexkit_private::LookupString(text);
                             }});
}

}  // namespace Vigil
