// The folder of the running executable as UTF-8, with forward slashes and no slash at its end.
//
// The path is read into a buffer of 260 units, so a longer one arrives cut and its folder is that
// of the cut text. Every backslash becomes a forward slash; the folder is the text before the last
// slash, empty when there is none (also when the path cannot be read). Any thread.
#pragma once

#include <string>

namespace mst_util {

std::string module_folder();

// The folder of `modulePath`, by the rule above; module_folder() applies it to the executable.
std::string folder_of(const std::u16string& modulePath);

}  // namespace mst_util
