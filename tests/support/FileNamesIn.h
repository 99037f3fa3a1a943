// The names of the entries of one folder, sorted, for tests that check which files are left.
#pragma once

#include <filesystem>
#include <set>
#include <string>

namespace vigil_test {

inline std::set<std::string> FileNamesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename());
    return names;
}

}  // namespace vigil_test
