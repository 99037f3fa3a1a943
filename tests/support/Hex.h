#pragma once

#include <cstdio>
#include <string>

namespace vigil_test {

// The UTF-16 units of `units` as upper-case hex words ("0041 00E9 "), so that a failed
// comparison of wide text shows which unit differs.
inline std::string Hex(const std::u16string& units) {
    std::string out;
    char buffer[8];
    for (char16_t u : units) {
        std::snprintf(buffer, sizeof buffer, "%04X ", static_cast<unsigned>(u));
        out += buffer;
    }
    return out;
}

}  // namespace vigil_test
