#pragma once

namespace almanor::app {

// Runs the command line's command in argv[1...], with the command line's services built here;
// returns the exit status.
int runCommands(int argc, char** argv);

// runCommands for the commands that run on one thread (all but cloud and sync): the store takes no
// locks.
int runLocalCommands(int argc, char** argv);

} // namespace almanor::app
