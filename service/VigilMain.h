// The entry point's logic: scan the command line, build the one Service, and branch into a setup
// command, a control command or the run. Returns the process's exit code.
//
// A bad command line ends in the usage text and exit code 0 before the Service exists. An
// Osb::Exception from a branch is dumped to standard error and its code becomes the exit code. A
// failure of the Service's constructor, or any other exception, is written to standard error as
// well and gives a non-zero exit code; nothing ends in an abort.
#pragma once

namespace Vigil {

int RunMain(int argc, char** argv);

}  // namespace Vigil
