// Whole reads and writes on a file descriptor, retried across EINTR and short transfers. Internal
// to the POSIX backend.
#pragma once

#include <string>
#include <string_view>

namespace Osb::posix {

// Appends everything up to the end of `fd` to `text`. Returns 0, or the errno of the failure.
int ReadAll(int fd, std::string& text);

// Writes all of `text`. Returns false with errno set on failure (ENOSPC for a write that moves
// nothing, so a full device cannot loop forever).
bool WriteAll(int fd, std::string_view text);

}  // namespace Osb::posix
