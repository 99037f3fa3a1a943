// The command-line scanner on arguments cut from arbitrary bytes at each NUL.
#include <cstdint>
#include <string>
#include <vector>

#include "service/VigilCommandLine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Each argument in its own allocation, so a read past one argument's end is caught.
    std::vector<std::string> args{"MirelleStudioFileAgent"};
    std::string current;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current.push_back(static_cast<char>(data[i]));
        }
    }
    if (!current.empty()) args.push_back(current);
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    Vigil::CommandLine line;
    Vigil::scanCommandLine(line, static_cast<int>(argv.size() - 1), argv.data());
    return 0;
}
