#pragma once

#include <filesystem>

namespace almanor::paths {

// $XDG_CONFIG_HOME, or ~/.config when it is unset, empty or relative.
std::filesystem::path configHome();
// $XDG_DATA_HOME, or ~/.local/share.
std::filesystem::path dataHome();

// Folder of the events database: <data home>/Almanor.
std::filesystem::path databaseDirectory();
inline constexpr const char* databaseFileName = "EventsV1.db";
// <config home>/Almanor/settings.ini.
std::filesystem::path settingsFile();

} // namespace almanor::paths
