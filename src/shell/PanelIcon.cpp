#include "shell/PanelIcon.h"

#include "platform/SettingsFile.h"

#include <optional>

namespace almanor::panelIcon {

namespace {

// GKeyFile's booleans; anything else counts as not set.
std::optional<bool> parseBoolean(std::string_view text) {
    if (text == "true" || text == "1") {
        return true;
    }
    if (text == "false" || text == "0") {
        return false;
    }
    return std::nullopt;
}

} // namespace

bool showsCount(const SettingsFile& defaults) {
    if (auto text = defaults.string(showsCountKey)) {
        return parseBoolean(*text).value_or(true);
    }
    return true;
}

std::string countText(int days) {
    if (days == 0) {
        return "!";
    }
    return std::to_string(days);
}

} // namespace almanor::panelIcon
