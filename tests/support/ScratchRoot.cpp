#include "tests/support/ScratchRoot.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>

namespace vigil_test {

ScratchRoot::ScratchRoot() {
    // Short paths: a socket address holds at most 107 bytes, and the pipe path adds ~25 to this.
    char pattern[] = "/tmp/vgl.XXXXXX";
    char* made = mkdtemp(pattern);
    if (made == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = made;
    std::filesystem::create_directories(path_ + "/var/lib");
    if (const char* old = std::getenv("VIGIL_SYSTEM_ROOT")) {
        previous_ = old;
        hadPrevious_ = true;
    }
    setenv("VIGIL_SYSTEM_ROOT", path_.c_str(), 1);
}

ScratchRoot::~ScratchRoot() {
    if (hadPrevious_) {
        setenv("VIGIL_SYSTEM_ROOT", previous_.c_str(), 1);
    } else {
        unsetenv("VIGIL_SYSTEM_ROOT");
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::u16string UniquePipeName() {
    static std::atomic<int> counter{0};
    std::string name = "vigil-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    return std::u16string(name.begin(), name.end());
}

}  // namespace vigil_test
