// almanor: the tray when started with no command, else the command line. Status bars run
// `almanor status` every few seconds, so the local commands run here, in a program with the
// libraries they use (SQLite, GLib, the C++ library) built in: starting it maps and relocates
// next to nothing. The tray (almanor-tray) is exec'd before anything else runs; the cloud commands,
// which load the CalDAV adapter, are exec'd as almanor-cloud.

#include "Commands.h"

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
#ifndef ALMANOR_CLOUD_RELATIVE
#define ALMANOR_CLOUD_RELATIVE "../libexec/almanor/almanor-cloud"
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

// The tray is a program of its own, so that the command line loads no GUI library.
int startTray(const Self& self) {
    char tray[PATH_MAX];
    if (!locate(self, "almanor-tray", ALMANOR_TRAY_RELATIVE, tray)) {
        std::fprintf(stderr, "almanor: the tray (almanor-tray) is not installed beside %s\n",
                     self.path);
        return 3;
    }
    // Login items start the almanor that enabled them: the tray needs to know which one that is.
    ::setenv("ALMANOR_LAUNCHER", self.path, 1);
    char* args[] = {tray, nullptr};
    ::execv(tray, args);
    std::fprintf(stderr, "almanor: cannot start the tray %s: %s\n", tray, std::strerror(errno));
    return 3;
}

// The commands that load the CalDAV adapter: its module shares the C++ library and ICU with its
// caller, which needs them as shared libraries.
bool isCloudCommand(std::string_view command) {
    return command == "cloud" || command == "sync";
}

int startCloudCommand(const Self& self, char** argv) {
    char cloud[PATH_MAX];
    if (!locate(self, "almanor-cloud", ALMANOR_CLOUD_RELATIVE, cloud)) {
        std::fprintf(stderr,
                     "almanor: the cloud commands (almanor-cloud) are not installed beside %s\n",
                     self.path);
        return 3;
    }
    ::execv(cloud, argv);
    std::fprintf(stderr, "almanor: cannot start %s: %s\n", cloud, std::strerror(errno));
    return 3;
}

} // namespace

int main(int argc, char** argv) {
    Self self;
    if (!findSelf(argv[0], self)) {
        std::fprintf(stderr, "almanor: cannot tell where this program is\n");
        return 3;
    }
    if (argc == 1) {
        return startTray(self);
    }
    if (isCloudCommand(argv[1])) {
        return startCloudCommand(self, argv);
    }
    return almanor::app::runLocalCommands(argc, argv);
}
