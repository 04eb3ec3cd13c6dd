#include "shell/PanelIcon.h"

#include "TempDir.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

using namespace almanor;

namespace {

TEST(PanelIconTest, TheCountIsShownUnlessTheSettingSaysFalse) {
    test::TempDir dir;
    SettingsFile defaults(dir.path() / "settings.ini");
    EXPECT_TRUE(panelIcon::showsCount(defaults));
    for (auto [text, shown] : {std::pair{"false", false}, {"0", false}, {"yes please", true}}) {
        defaults.setString(panelIcon::showsCountKey, text);
        EXPECT_EQ(panelIcon::showsCount(defaults), shown) << text;
    }
    // The number before the day, a mark on it, negative after.
    EXPECT_EQ(panelIcon::countText(12) + panelIcon::countText(0) + panelIcon::countText(-3),
              "12!-3");
}

} // namespace
