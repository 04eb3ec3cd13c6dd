#pragma once

#include <string>

namespace almanor {
class SettingsFile;
}

namespace almanor::cli {

// `almanor cloud login` and `almanor cloud logout`, as the CalDAV adapter's module runs them.
// Each returns the exit status.
int cloudLogin(SettingsFile& defaults, const std::string& url, const std::string& user,
               const std::string& passwordCommand);
int cloudLogout(SettingsFile& defaults);

} // namespace almanor::cli
