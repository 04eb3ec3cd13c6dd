#pragma once

#include "platform/Export.h"

#include <filesystem>

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

} // namespace almanor::paths
