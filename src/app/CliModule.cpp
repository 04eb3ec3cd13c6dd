// The command line's code, opened by `almanor` when it is given a command.

#include "cli/Cli.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/Paths.h"
#include "platform/UserDefaults.h"
#include "storage/LocalRepository.h"
#include "storage/Repository.h"

#include <memory>
#include <optional>

extern "C" __attribute__((visibility("default"))) int almanor_cli_run(int argc, char** argv) {
    using namespace almanor;
    // The command's services, built once here.
    UserDefaults defaults(paths::settingsFile());
    NotificationCenter center;
    SystemClock clock;
    std::optional<Repository> repository;
    cli::Services services{
        defaults, clock, [&]() -> Repository& {
            if (!repository) {
                repository.emplace(std::make_unique<LocalRepository>(
                    paths::databaseDirectory(), paths::databaseFileName, center, clock));
            }
            return *repository;
        }};
    return cli::run(argc, argv, services);
}
