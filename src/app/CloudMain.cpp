// almanor-cloud: the command line as a program linked against the shared libraries, run by
// `almanor` for the commands that load the CalDAV adapter's module (cloud and sync). The module
// links the same C++ library and ICU as shared libraries; loaded into this program it shares one
// copy of each with the code that calls it, which it could not with almanor, where they are built
// in.

#include "Commands.h"

int main(int argc, char** argv) {
    return almanor::app::runCommands(argc, argv);
}
