#include "cli/Cli.h"
#include "cli/Services.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/Paths.h"
#include "platform/UserDefaults.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

#ifndef ALMANOR_TRAY_RELATIVE
#define ALMANOR_TRAY_RELATIVE "../libexec/almanor/almanor-tray"
#endif

namespace {

// The tray is a program of its own, so that the command line loads no GUI library. It lives
// beside this binary in a build tree, else where the install put it.
int startTray(const char* argv0) {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) {
        self = argv0;
    }
    std::string beside = (self.parent_path() / "almanor-tray").string();
    // Login items start the almanor that enabled them: the tray needs to know which one that is.
    ::setenv("ALMANOR_LAUNCHER", self.c_str(), 1);
    std::string installed =
        (self.parent_path() / ALMANOR_TRAY_RELATIVE).lexically_normal().string();
    for (const std::string& tray : {beside, installed}) {
        if (!tray.empty() && ::access(tray.c_str(), X_OK) == 0) {
            char* args[] = {const_cast<char*>(tray.c_str()), nullptr};
            ::execv(tray.c_str(), args);
            std::fprintf(stderr, "almanor: cannot start the tray %s: %s\n", tray.c_str(),
                         std::strerror(errno));
            return 3;
        }
    }
    std::fprintf(stderr, "almanor: the tray (almanor-tray) is not installed beside %s\n",
                 self.c_str());
    return 3;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 1) {
        return startTray(argv[0]);
    }
    // The command line's services, built once here and handed to the command.
    using namespace almanor;
    UserDefaults defaults(paths::settingsFile());
    NotificationCenter center;
    SystemClock clock;
    cli::Services services(defaults, center, clock, paths::databaseDirectory());
    return cli::run(argc, argv, services);
}
