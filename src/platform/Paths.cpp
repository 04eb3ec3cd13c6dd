#include "platform/Paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
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

namespace {

// Creates the missing levels 0700; existing ones (the home folder among them) stay as they are.
std::string createFolders(const std::filesystem::path& folder) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode) ? std::string() : folder.string() + " is not a folder";
    }
    if (errno != ENOENT) {
        return std::strerror(errno);
    }
    if (folder.has_parent_path() && folder.parent_path() != folder) {
        if (auto why = createFolders(folder.parent_path()); !why.empty()) {
            return why;
        }
    }
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return std::strerror(errno);
    }
    return {};
}

} // namespace

std::string makePrivateFolder(const std::filesystem::path& folder) {
    if (auto why = createFolders(folder); !why.empty()) {
        return why;
    }
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0) {
        return std::strerror(errno);
    }
    if ((st.st_mode & 077) != 0 && st.st_uid == ::geteuid() &&
        ::chmod(folder.c_str(), st.st_mode & 07700) != 0) {
        return std::strerror(errno);
    }
    return {};
}

std::string makePrivateFile(const std::filesystem::path& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0) {
        return std::strerror(errno);
    }
    struct stat st {};
    std::string why;
    if (::fstat(fd, &st) != 0) {
        why = std::strerror(errno);
    } else if ((st.st_mode & 077) != 0 && ::fchmod(fd, st.st_mode & 07700) != 0) {
        why = std::strerror(errno);
    }
    ::close(fd);
    return why;
}

} // namespace almanor::paths
