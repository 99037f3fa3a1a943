// The last-resort report of a failure that reaches main: the reasons of the exception on a stream.
#pragma once

#include <cstdio>

#include "platform/Exception.h"

namespace Vigil {

// Writes "Dump Exception Stack -- Unexpected Error. Depth of N", then for each reason, from the
// first, the system error line (ExSystem only) and the "What:" line; flushes `out`. Returns the
// exit code that goes with it: the system code for an ExSystem, -1 for any other exception with
// at least one reason, and `exitCode` unchanged when there is no reason.
int DumpException(const Osb::Exception& failure, std::FILE* out, int exitCode);

}  // namespace Vigil
