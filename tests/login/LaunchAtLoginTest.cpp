#include "login/LaunchAtLogin.h"

#include "TempDir.h"
#include "login/XdgAutostartService.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace almanor {
namespace {

// GLib's structured log fields as "domain|category|message", one per record.
std::vector<std::string> logged;
GLogWriterOutput capture(GLogLevelFlags, const GLogField* fields, gsize n, gpointer) {
    std::map<std::string, std::string> f;
    for (gsize i = 0; i < n; ++i) {
        f[fields[i].key] = static_cast<const char*>(fields[i].value); // texts: g_log_structured
    }
    logged.push_back(f["GLIB_DOMAIN"] + "|" + f["CATEGORY"] + "|" + f["MESSAGE"]);
    return G_LOG_WRITER_HANDLED;
}

struct LaunchAtLoginTest : ::testing::Test {
    test::TempDir home;
    SettingsFile defaults{home / "settings.ini"};
    std::filesystem::path program = home / "my bin/al$manor";
    XdgAutostartService service{home.path(), program};
    LaunchAtLogin launch{service, defaults};
    std::filesystem::path entry = home / "autostart/com.vostrel.Almanor.desktop";
    std::filesystem::path helper =
        home / "autostart/com.vostrel.Almanor-LaunchAtLoginHelper.desktop";
    const std::string entryText = "[Desktop Entry]\nType=Application\nName=H\nExec=helper\n";
};

TEST_F(LaunchAtLoginTest, AnEntryStartsThisProgramAndObserversHearEachRequest) {
    std::vector<bool> heard;
    auto token = launch.observe([&](bool on) { heard.push_back(on); });
    launch.setEnabled(true);
    EXPECT_TRUE(launch.isEnabled());
    // A space and a $ in the path: quoted and escaped for the Exec line, then for the key file.
    EXPECT_THAT(test::readFile(entry),
                testing::HasSubstr("\nExec=\"" + (home / "my bin/al\\\\$manor").string() + "\"\n"));
    launch.setEnabled(true);
    launch.setEnabled(false);
    EXPECT_FALSE(std::filesystem::exists(entry));
    launch.disconnect(token);
    launch.setEnabled(true);
    // Only an entry that parses and is neither hidden nor switched off counts.
    for (const char* extra : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false\n", "[broken\n"}) {
        test::writeFile(entry, entryText + extra);
        EXPECT_FALSE(launch.isEnabled()) << extra;
    }
    // A file where the folder should be refuses root as well: logged; observers hear the request.
    std::filesystem::remove_all(home / "autostart");
    test::writeFile(home / "autostart", "in the way");
    launch.observe([&](bool on) { heard.push_back(on); });
    g_log_set_writer_func(capture, nullptr, nullptr);
    launch.setEnabled(true);
    EXPECT_FALSE(launch.isEnabled());
    EXPECT_EQ(heard, (std::vector<bool>{true, true, false, true}));
    EXPECT_THAT(logged, testing::ElementsAre(testing::StartsWith(
                            "com.brimwell.LaunchAtLogin|main|Failed to enable launch at login: ")));
}

TEST_F(LaunchAtLoginTest, MigrationCarriesAnEnabledHelperOverOnce) {
    test::writeFile(helper, entryText + "Hidden=true\n");
    launch.migrateIfNeeded();
    EXPECT_FALSE(launch.isEnabled()); // switched off: removed, not carried over
    EXPECT_FALSE(std::filesystem::exists(helper));

    defaults.setBoolean(Settings::launchAtLoginHasMigrated, false);
    test::writeFile(helper, entryText);
    launch.migrateIfNeeded();
    EXPECT_TRUE(launch.isEnabled());
    EXPECT_FALSE(std::filesystem::exists(helper));
    // Later starts skip it, even when a helper entry turns up again.
    launch.setEnabled(false);
    test::writeFile(helper, entryText);
    launch.migrateIfNeeded();
    EXPECT_FALSE(launch.isEnabled());
}

TEST_F(LaunchAtLoginTest, TheProgramOnPathIsNamedPlainly) {
    test::writeFile(home / "bin/almanor", "#!/bin/sh\n");
    ::chmod((home / "bin/almanor").c_str(), 0755);
    g_setenv("PATH", (home / "bin").c_str(), TRUE);
    EXPECT_EQ(XdgAutostartService(home.path(), home / "bin/almanor").execLine(), "almanor");
    EXPECT_EQ(XdgAutostartService(home.path(), home / "other/almanor").execLine(),
              (home / "other/almanor").string());
}

} // namespace
} // namespace almanor
