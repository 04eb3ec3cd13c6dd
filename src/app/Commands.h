#pragma once

namespace almanor::app {

// Runs the command line's command in argv[1...], with the command line's services built here;
// returns the exit status.
int runCommands(int argc, char** argv);

} // namespace almanor::app
