// Sets the process's umask while the object lives and puts the previous one back, for tests of the
// rights that files and folders are made with. The umask is the whole process's: only for tests
// that run no other thread that makes files meanwhile.
#pragma once

#include <sys/stat.h>

namespace vigil_test {

class ScopedUmask {
  public:
    explicit ScopedUmask(mode_t mask) : previous_(::umask(mask)) {}
    ~ScopedUmask() { ::umask(previous_); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

  private:
    mode_t previous_;
};

// The permission bits of `path` itself (a link is not followed), or -1 when it cannot be seen.
inline int ModeOf(const char* path) {
    struct stat st;
    if (::lstat(path, &st) != 0) return -1;
    return static_cast<int>(st.st_mode & 07777);
}

}  // namespace vigil_test
