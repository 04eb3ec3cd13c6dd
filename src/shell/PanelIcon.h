#pragma once

#include "platform/Export.h"

#include <string>
#include <string_view>

namespace almanor {

class SettingsFile;

// The panel icon on panels that draw no labels (KDE Plasma shows a status item's icon, never its
// label): there the icon carries the day count, and the title stays in the tooltip.
namespace panelIcon {

// "true" or "false" in the settings file; absent, the desktop decides.
inline constexpr std::string_view showsCountKey = "panelIconShowsCount";

// Whether the icon carries the count: the setting when it holds a boolean, else whether
// `currentDesktop` ($XDG_CURRENT_DESKTOP, a colon-separated list) names KDE.
ALMANOR_EXPORT bool showsCount(const SettingsFile& defaults, std::string_view currentDesktop);

// The count as the icon draws it: "12" before the day, "!" on it, "-3" after it.
ALMANOR_EXPORT std::string countText(int days);

} // namespace panelIcon

} // namespace almanor
