#include "platform/Paths.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace almanor::paths {

namespace {

std::filesystem::path home() {
    if (const char* h = std::getenv("HOME"); h != nullptr && h[0] == '/') {
        return h;
    }
    if (const passwd* pw = getpwuid(getuid()); pw != nullptr && pw->pw_dir != nullptr) {
        return pw->pw_dir;
    }
    return "/";
}

// The base-directory rules: only an absolute path in the variable counts.
std::filesystem::path xdg(const char* variable, const char* fallback) {
    if (const char* v = std::getenv(variable); v != nullptr && v[0] == '/') {
        return v;
    }
    return home() / fallback;
}

} // namespace

std::filesystem::path configHome() {
    return xdg("XDG_CONFIG_HOME", ".config");
}
std::filesystem::path dataHome() {
    return xdg("XDG_DATA_HOME", ".local/share");
}
std::filesystem::path databaseDirectory() {
    return dataHome() / "Almanor";
}
std::filesystem::path settingsFile() {
    return configHome() / "Almanor" / "settings.ini";
}

} // namespace almanor::paths
