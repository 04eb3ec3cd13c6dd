#include "shell/PanelIcon.h"

#include "TempDir.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

using namespace almanor;

namespace {

// KDE anywhere in the desktop list chooses the count, unless the setting is a boolean.
TEST(PanelIconTest, TheCountIsShownOnKdeOrWhenTheSettingSays) {
    test::TempDir dir;
    SettingsFile defaults(dir.path() / "settings.ini");
    for (const char* kde : {"KDE", "kde", "X-Generic:KDE"}) {
        EXPECT_TRUE(panelIcon::showsCount(defaults, kde)) << kde;
    }
    for (const char* other : {"", "XFCE", "KDE-like", "XKDE", ":"}) {
        EXPECT_FALSE(panelIcon::showsCount(defaults, other)) << other;
    }
    defaults.setString(panelIcon::showsCountKey, "false");
    EXPECT_FALSE(panelIcon::showsCount(defaults, "KDE"));
    defaults.setBoolean(panelIcon::showsCountKey, true);
    EXPECT_TRUE(panelIcon::showsCount(defaults, "XFCE"));
    defaults.setString(panelIcon::showsCountKey, "yes please");
    EXPECT_FALSE(panelIcon::showsCount(defaults, "XFCE"));
    // The number before the day, a mark on it, negative after.
    EXPECT_EQ(panelIcon::countText(12) + panelIcon::countText(0) + panelIcon::countText(-3),
              "12!-3");
}

} // namespace
