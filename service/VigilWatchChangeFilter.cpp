#include "service/VigilWatchChangeFilter.h"

namespace Vigil::Watch {

namespace {
constexpr uint32_t kPlainDirectory = 0x10;
}  // namespace

const std::vector<std::u16string>& ExcludedNames() {
    // The separator inside the last two is this platform's.
    static const std::vector<std::u16string> kExcluded = {u"RECYCLER", u"Recycled",
                                                          u"System Volume Information",
                                                          u"Local Settings/Temp", u"LOCALS~1/Temp"};
    return kExcluded;
}

ChangeBatch FilterChanges(const std::u16string& folder, const FolderOptions& options,
                          const std::vector<NamedChange>& changes,
                          const AttributeQuery& attributes) {
    ChangeBatch batch;
    for (const NamedChange& change : changes) {
        bool excluded = false;
        for (const std::u16string& word : ExcludedNames()) {
            if (change.name.find(word) != std::u16string::npos) {
                excluded = true;
                break;
            }
        }
        if (excluded) continue;
        // Equality, not the directory bit: only a plain directory is skipped.
        if (attributes(folder + change.name) == kPlainDirectory) continue;
        switch (change.action) {
            case 1:  // added
            case 3:  // modified
            case 5:  // renamed, new name
                if (options.reportChanged) batch.added.push_back(change.name);
                break;
            case 2:  // removed
            case 4:  // renamed, old name
                (options.reportRemoved ? batch.added : batch.dropped).push_back(change.name);
                break;
            default:
                break;
        }
    }
    return batch;
}

}  // namespace Vigil::Watch
