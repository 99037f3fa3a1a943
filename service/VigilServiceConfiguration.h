// The configuration step of the service object's constructor: how the service presents itself.
//
// It opens the product's registry key (HKEY_LOCAL_MACHINE\Software\Orvanta\Mirelle Studio\14.0\)
// for reading and, only when that succeeds, reads its value "Locale" (default "en_US"), loads the
// dictionary file EXE_FOLDER/Assets/locale/LOCALE/lexicon.dct with the locale's table row, and
// then, in every case, looks up the display name (with "14" appended) and the description. A
// missing key, value or file costs nothing but the translation: the lookups fall back on their
// English texts. A locale that stands in no row of the locale table raises std::runtime_error
// ("Invalid locale string in locale/LocaleUtil") before any file is read; nothing here catches it.
//
// Called once, by the constructor, on the main thread, before any other thread of the service runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Vigil {

struct ServiceTexts {
    std::u16string displayName;
    std::u16string description;
};

// The two dictionary operations the step calls, in this order: `load` once (path, locale row,
// force), whose result is not read, then `lookup` twice with a "key=default" text. `lookup` gives
// the dictionary's value for the key or, without one, the text behind the '='.
struct DictionaryCalls {
    std::function<bool(const std::u16string& path, uint32_t localeIndex, bool force)> load;
    std::function<std::u16string(const std::string& text)> lookup;
};

// The step with the given dictionary operations; tests pass fakes.
ServiceTexts ReadServiceTexts(const DictionaryCalls& dictionary);

// The step with the program's dictionary (lexkit_private::LoadDictionary and LookupString), which
// keeps what it loads for the rest of the process. This is what the constructor calls.
ServiceTexts ReadServiceTexts();

}  // namespace Vigil
