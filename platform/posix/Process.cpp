#include "platform/Process.h"

#include <malloc.h>

#include "platform/ErrorCode.h"

namespace Osb {

// Windows' pseudo-handle of the current process is (HANDLE)-1; the same value keeps the handle
// recognisable in a debugger.
ProcessHandle GetCurrentProcess() { return reinterpret_cast<ProcessHandle>(-1); }

bool SetProcessWorkingSetSize(ProcessHandle process, size_t minimum, size_t maximum) {
    if (process != GetCurrentProcess()) {
        SetLastError(Err::kInvalidHandle);
        return false;
    }
    constexpr size_t kTrim = static_cast<size_t>(-1);
    if (minimum == kTrim && maximum == kTrim) ::malloc_trim(0);
    return true;
}

}  // namespace Osb
