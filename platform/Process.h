// The process as the program sees it: the pseudo-handle of the current process and the trimming of
// its working set. The executable's path is in ModulePath.h.
#pragma once

#include <cstddef>

namespace Osb {

struct ProcessTag;
using ProcessHandle = ProcessTag*;

// The pseudo-handle of the calling process; it needs no closing.
ProcessHandle GetCurrentProcess();

// With both sizes (size_t)-1 and the current process: gives free heap memory back to the system
// (malloc_trim) and succeeds. Any other handle fails with 6, any other pair of sizes is accepted
// and has no effect, as the system keeps no working-set limits here.
bool SetProcessWorkingSetSize(ProcessHandle process, size_t minimum, size_t maximum);

}  // namespace Osb
