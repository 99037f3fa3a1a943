// What counts as a change: the decisions taken on one batch of a folder's directory changes,
// as a function of the batch, so that tests drive it without a folder or a thread.
//
// For each (action, name) in order: a name holding one of the excluded strings anywhere (a plain,
// case-sensitive substring test on the relative name only) is skipped; a name whose full path
// (the folder's path, which ends with '/', directly followed by the name) has exactly the
// attributes of a plain directory (0x10) is skipped, so a hidden or read-only directory, or a name
// that no longer exists, counts as a file; the rest goes by the action table:
//
//   action                     reportChanged 1   reportRemoved 1   reportRemoved 0
//   added (1), modified (3),   into added
//   renamed new name (5)
//   removed (2),                                 into added        into dropped
//   renamed old name (4)
//   anything else              ignored
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "service/VigilWatchTypes.h"

namespace Vigil::Watch {

struct NamedChange {
    uint32_t action;
    std::u16string name;  // relative to the watched folder
};

struct ChangeBatch {
    std::vector<std::u16string> added;    // to go on the pending list
    std::vector<std::u16string> dropped;  // to come off it
};

// The attribute query, given a full path (Osb::GetFileAttributes in the service).
using AttributeQuery = std::function<uint32_t(const std::u16string& fullPath)>;

// The excluded strings, in the order they are tested.
const std::vector<std::u16string>& ExcludedNames();

ChangeBatch FilterChanges(const std::u16string& folder, const FolderOptions& options,
                          const std::vector<NamedChange>& changes,
                          const AttributeQuery& attributes);

}  // namespace Vigil::Watch
