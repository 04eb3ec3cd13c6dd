// almanor: the tray when started with no command, else the command line. The tray (almanor-tray)
// is exec'd before anything else runs, so that the command line maps no GUI library; the cloud
// commands load the CalDAV adapter's module when they need it.

#include "Commands.h"
#include "platform/Translation.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

#ifndef ALMANOR_TRAY_RELATIVE
#define ALMANOR_TRAY_RELATIVE "../libexec/almanor/almanor-tray"
#endif
#ifndef ALMANOR_LOCALE_RELATIVE
#define ALMANOR_LOCALE_RELATIVE "../share/locale"
#endif

namespace {

// This program's folder, with a trailing slash; argv[0]'s when /proc is not there.
struct Self {
    char path[PATH_MAX] = {};
    char folder[PATH_MAX] = {};
};

bool findSelf(const char* argv0, Self& self) {
    ssize_t n = ::readlink("/proc/self/exe", self.path, sizeof self.path - 1);
    if (n > 0) {
        self.path[n] = '\0';
    } else if (std::snprintf(self.path, sizeof self.path, "%s", argv0) >= int(sizeof self.path)) {
        return false;
    }
    std::memcpy(self.folder, self.path, sizeof self.folder);
    char* slash = std::strrchr(self.folder, '/');
    if (slash == nullptr) {
        std::snprintf(self.folder, sizeof self.folder, "./");
    } else {
        slash[1] = '\0';
    }
    return true;
}

// `name` beside this program, else at `installed` (relative to this program's folder); the first
// that exists goes in `out`.
bool locate(const Self& self, const char* name, const char* installed, char (&out)[PATH_MAX]) {
    const char* candidates[] = {name, installed};
    for (const char* candidate : candidates) {
        if (std::snprintf(out, PATH_MAX, "%s%s", self.folder, candidate) < PATH_MAX &&
            ::access(out, F_OK) == 0) {
            return true;
        }
    }
    return false;
}

// A line on standard error, in the user's language (the command line and the tray set it up
// themselves; this program's own failures come before either).
void tell(const char* message, std::initializer_list<std::string_view> values = {}) {
    almanor::useTheUsersLanguage(ALMANOR_LOCALE_RELATIVE);
    std::fprintf(stderr, "almanor: %s\n", almanor::formatText(almanor::_(message), values).c_str());
}

// The tray is a program of its own, so that the command line loads no GUI library.
int startTray(const Self& self) {
    char tray[PATH_MAX];
    if (!locate(self, "almanor-tray", ALMANOR_TRAY_RELATIVE, tray)) {
        tell(almanor::N_("the tray (almanor-tray) is not installed beside %s"), {self.path});
        return 3;
    }
    // Login items start the almanor that enabled them: the tray needs to know which one that is.
    ::setenv("ALMANOR_LAUNCHER", self.path, 1);
    char* args[] = {tray, nullptr};
    ::execv(tray, args);
    int error = errno;
    almanor::useTheUsersLanguage(ALMANOR_LOCALE_RELATIVE); // before strerror, which it translates
    tell(almanor::N_("cannot start the tray %s: %s"), {tray, std::strerror(error)});
    return 3;
}

// The commands that reach the server run the sync on a thread of their own; the others use the
// store from one thread, which spares its locks.
bool isCloudCommand(std::string_view command) {
    return command == "cloud" || command == "sync";
}

} // namespace

int main(int argc, char** argv) {
    Self self;
    if (!findSelf(argv[0], self)) {
        tell(almanor::N_("cannot tell where this program is"));
        return 3;
    }
    if (argc == 1) {
        return startTray(self);
    }
    if (isCloudCommand(argv[1])) {
        return almanor::app::runCommands(argc, argv);
    }
    return almanor::app::runLocalCommands(argc, argv);
}
