// The command line's code, opened by `almanor` when it is given a command.

#include "cli/Cli.h"
#include "cli/Services.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/Paths.h"
#include "platform/UserDefaults.h"

extern "C" __attribute__((visibility("default"))) int almanor_cli_run(int argc, char** argv) {
    using namespace almanor;
    // The command line's services, built once here and handed to the command.
    UserDefaults defaults(paths::settingsFile());
    NotificationCenter center;
    SystemClock clock;
    cli::Services services(defaults, center, clock, paths::databaseDirectory());
    return cli::run(argc, argv, services);
}
