#pragma once

#include "platform/Export.h"

#include <string>
#include <string_view>

namespace almanor {

class SettingsFile;

// The panel icon carries the day count, so that panels that draw no labels (KDE Plasma, Xfce's
// status tray, waybar) show the number too; the title stays in the label and the tooltip.
namespace panelIcon {

// "true" or "false" in the settings file; absent (or neither), the count is shown.
inline constexpr std::string_view showsCountKey = "panelIconShowsCount";

ALMANOR_EXPORT bool showsCount(const SettingsFile& defaults);

// The count as the icon draws it: "12" before the day, "!" on it, "-3" after it.
ALMANOR_EXPORT std::string countText(int days);

} // namespace panelIcon

} // namespace almanor
