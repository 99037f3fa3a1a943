// PROVISIONAL until the platform's process support lands.
#pragma once

#include <cstddef>

namespace Osb {

struct ProcessTag;
using ProcessHandle = ProcessTag*;

ProcessHandle GetCurrentProcess();
// With both sizes (size_t)-1: gives free heap memory back to the system. False on failure.
bool SetProcessWorkingSetSize(ProcessHandle process, size_t minimum, size_t maximum);

}  // namespace Osb
