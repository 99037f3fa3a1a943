// MirelleStudioFileAgent: installs, removes, controls or runs the file-watching service, as its
// command line says. See service/VigilMain.h.
#include "service/VigilMain.h"

int main(int argc, char** argv) { return Vigil::RunMain(argc, argv); }
