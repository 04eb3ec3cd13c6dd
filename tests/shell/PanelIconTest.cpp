#include "shell/PanelIcon.h"

#include "TempDir.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

using namespace almanor;

namespace {

TEST(PanelIconTest, KdeInTheDesktopListChoosesTheCountUnlessTheSettingSaysOtherwise) {
    test::TempDir dir;
    SettingsFile defaults(dir.path() / "settings.ini");
    for (const char* kde : {"KDE", "kde", "X-Generic:KDE", "KDE:X-Generic"}) {
        EXPECT_TRUE(panelIcon::showsCount(defaults, kde)) << kde;
    }
    for (const char* other : {"", "XFCE", "ubuntu:GNOME", "KDE-like", "XKDE", ":", "GNOME:"}) {
        EXPECT_FALSE(panelIcon::showsCount(defaults, other)) << other;
    }

    defaults.setString(panelIcon::showsCountKey, "false");
    EXPECT_FALSE(panelIcon::showsCount(defaults, "KDE"));
    defaults.setBoolean(panelIcon::showsCountKey, true);
    EXPECT_TRUE(panelIcon::showsCount(defaults, "XFCE"));
    EXPECT_TRUE(panelIcon::showsCount(defaults, ""));
    // A value that is no boolean leaves the choice to the desktop.
    defaults.setString(panelIcon::showsCountKey, "yes please");
    EXPECT_FALSE(panelIcon::showsCount(defaults, "XFCE"));
    EXPECT_TRUE(panelIcon::showsCount(defaults, "KDE"));
}

TEST(PanelIconTest, TheCountIsTheNumberBeforeTheDayAMarkOnItAndNegativeAfter) {
    EXPECT_EQ(panelIcon::countText(12), "12");
    EXPECT_EQ(panelIcon::countText(1), "1");
    EXPECT_EQ(panelIcon::countText(0), "!");
    EXPECT_EQ(panelIcon::countText(-3), "-3");
    EXPECT_EQ(panelIcon::countText(-2147483647 - 1), "-2147483648");
}

} // namespace
