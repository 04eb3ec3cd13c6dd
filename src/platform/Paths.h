#pragma once

#include "platform/Export.h"

#include <filesystem>
#include <string>

namespace almanor::paths {

// $XDG_CONFIG_HOME, or ~/.config when it is unset, empty or relative.
ALMANOR_EXPORT std::filesystem::path configHome();
// $XDG_DATA_HOME, or ~/.local/share.
ALMANOR_EXPORT std::filesystem::path dataHome();

// Folder of the events database: <data home>/Almanor.
ALMANOR_EXPORT std::filesystem::path databaseDirectory();
inline constexpr const char* databaseFileName = "EventsV1.db";
// <config home>/Almanor/settings.ini.
ALMANOR_EXPORT std::filesystem::path settingsFile();

// Event names, the account and its password command are nobody else's business: our folders are
// 0700 whatever the umask, missing parents are made 0700 as the base-directory rules ask, and a
// folder of ours left open by an older build is closed. Empty when done, else why not.
std::string makePrivateFolder(const std::filesystem::path& folder);
// Creates `file` 0600 when missing; takes group and other access away when it has them.
std::string makePrivateFile(const std::filesystem::path& file);

} // namespace almanor::paths
