// A scratch system root for one test: a fresh directory that VIGIL_SYSTEM_ROOT points at while the
// object lives, with ROOT/var/lib made as a real machine has it. Removed with everything below it.
#pragma once

#include <string>

namespace vigil_test {

class ScratchRoot {
  public:
    ScratchRoot();
    ~ScratchRoot();
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + relative
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

  private:
    std::string path_;
    std::string previous_;
    bool hadPrevious_ = false;
};

// A pipe name that no other test of this process or any other process uses.
std::u16string UniquePipeName();

}  // namespace vigil_test
