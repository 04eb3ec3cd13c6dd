#include "shell/PanelIcon.h"

#include "platform/SettingsFile.h"

#include <algorithm>
#include <optional>

namespace almanor::panelIcon {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    // ASCII only: a desktop's name knows nothing of the locale's case rules (Turkish i).
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

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

bool showsCount(const SettingsFile& defaults, std::string_view currentDesktop) {
    if (auto text = defaults.string(showsCountKey)) {
        if (auto value = parseBoolean(*text)) {
            return *value;
        }
    }
    while (!currentDesktop.empty()) {
        auto end = currentDesktop.find(':');
        if (equalsIgnoringCase(currentDesktop.substr(0, end), "KDE")) {
            return true;
        }
        if (end == std::string_view::npos) {
            break;
        }
        currentDesktop.remove_prefix(end + 1);
    }
    return false;
}

std::string countText(int days) {
    if (days == 0) {
        return "!";
    }
    return std::to_string(days);
}

} // namespace almanor::panelIcon
