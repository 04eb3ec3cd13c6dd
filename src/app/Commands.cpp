#include "Commands.h"

#include "cli/Cli.h"
#include "cli/Services.h"
#include "platform/Clock.h"
#include "platform/Paths.h"
#include "platform/SettingsFile.h"
#include "platform/Signals.h"
#include "platform/Translation.h"
#include "storage/LocalRepository.h"

#ifndef ALMANOR_LOCALE_RELATIVE
#define ALMANOR_LOCALE_RELATIVE "../share/locale"
#endif

namespace almanor::app {

int runCommands(int argc, char** argv) {
    useTheUsersLanguage(ALMANOR_LOCALE_RELATIVE);
    // The command line's services, built once here and handed to the command.
    SettingsFile defaults(paths::settingsFile());
    Signals center;
    SystemClock clock;
    cli::Services services(defaults, center, clock, paths::databaseDirectory());
    return cli::run(argc, argv, services);
}

int runLocalCommands(int argc, char** argv) {
    LocalRepository::useFromOneThreadOnly();
    return runCommands(argc, argv);
}

} // namespace almanor::app
