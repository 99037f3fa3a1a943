// Lowers the kernel's inotify watch limit for the calling process alone: it moves into a user
// namespace of its own, whose limit leaves every other program's untouched. For a forked child
// only (the move cannot be undone); false when this kernel or sandbox does not allow it.
#pragma once

#include <sched.h>

#include <fstream>

namespace vigil_test {

inline bool LowerWatchLimitInOwnNamespace(int watches) {
    if (::unshare(CLONE_NEWUSER) != 0) return false;
    std::ofstream limit("/proc/sys/user/max_inotify_watches");
    limit << watches;
    limit.close();
    return static_cast<bool>(limit);
}

}  // namespace vigil_test
