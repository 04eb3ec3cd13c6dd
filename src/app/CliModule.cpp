// The command line's code, opened by `almanor` when it is given a command.

#include "cli/Cli.h"

extern "C" __attribute__((visibility("default"))) int almanor_cli_run(int argc, char** argv) {
    return almanor::cli::run(argc, argv);
}
