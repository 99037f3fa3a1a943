// The whole content of a file as bytes, for tests that check what was written; empty when the file
// cannot be read.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace vigil_test {

inline std::string FileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace vigil_test
