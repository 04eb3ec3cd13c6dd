#include "login/LaunchAtLogin.h"

#include "TempDir.h"
#include "login/XdgAutostartService.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <fstream>
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace almanor {
namespace {

// Collects the structured log records of the login component while it lives.
class StructuredLogCapture {
  public:
    struct Record {
        std::string domain, category, message;
        GLogLevelFlags level;
    };
    // GLib takes one writer per process: it is installed once and forwards to the live capture.
    StructuredLogCapture() {
        static bool installed = (g_log_set_writer_func(&write, nullptr, nullptr), true);
        (void)installed;
        current() = this;
    }
    ~StructuredLogCapture() { current() = nullptr; }
    std::vector<Record> records;

  private:
    static StructuredLogCapture*& current() {
        static StructuredLogCapture* capture = nullptr;
        return capture;
    }
    static GLogWriterOutput write(GLogLevelFlags level, const GLogField* fields, gsize n,
                                  gpointer data) {
        if (current() == nullptr) {
            return g_log_writer_default(level, fields, n, data);
        }
        Record r{{}, {}, {}, level};
        for (gsize i = 0; i < n; ++i) {
            std::string value =
                fields[i].length < 0
                    ? static_cast<const char*>(fields[i].value)
                    : std::string(static_cast<const char*>(fields[i].value), fields[i].length);
            std::string key = fields[i].key;
            if (key == "GLIB_DOMAIN")
                r.domain = value;
            if (key == "CATEGORY")
                r.category = value;
            if (key == "MESSAGE")
                r.message = value;
        }
        current()->records.push_back(r);
        return G_LOG_WRITER_HANDLED;
    }
};

std::string read(const std::filesystem::path& file) {
    gchar* text = nullptr;
    if (!g_file_get_contents(file.c_str(), &text, nullptr, nullptr)) {
        return {};
    }
    std::string out = text;
    g_free(text);
    return out;
}

void writeFile(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

struct Fixture : ::testing::Test {
    test::TempDir home;
    SettingsFile defaults{home / "settings.ini"};
    std::filesystem::path program = home / "my bin/al$manor";
    XdgAutostartService service{home.path(), program};
    LaunchAtLogin launch{service, defaults};
};

using LaunchAtLoginTest = Fixture;

TEST_F(LaunchAtLoginTest, EnablingWritesAnEntryThatStartsThisProgram) {
    EXPECT_FALSE(launch.isEnabled());
    std::vector<bool> heard;
    auto token = launch.observe([&](bool on) { heard.push_back(on); });
    launch.setEnabled(true);
    EXPECT_TRUE(launch.isEnabled());
    std::string entry = read(home / "autostart/com.vostrel.Almanor.desktop");
    // The path has a space and a $: quoted and escaped for the Exec line, then for the key file.
    EXPECT_NE(entry.find("Exec=\"" + (home / "my bin/al\\\\$manor").string() + "\"\n"),
              std::string::npos)
        << entry;
    GError* error = nullptr;
    GKeyFile* keys = g_key_file_new();
    ASSERT_TRUE(g_key_file_load_from_file(
        keys, (home / "autostart/com.vostrel.Almanor.desktop").c_str(), G_KEY_FILE_NONE, &error));
    gchar* exec = g_key_file_get_string(keys, "Desktop Entry", "Exec", nullptr);
    gint argc = 0;
    gchar** argv = nullptr;
    ASSERT_TRUE(g_shell_parse_argv(exec, &argc, &argv, nullptr));
    ASSERT_EQ(argc, 1);
    EXPECT_EQ(std::string(argv[0]), program.string());
    g_strfreev(argv);
    g_free(exec);
    g_key_file_free(keys);

    // Enabling again rewrites it; disabling removes it.
    launch.setEnabled(true);
    EXPECT_TRUE(launch.isEnabled());
    launch.setEnabled(false);
    EXPECT_FALSE(std::filesystem::exists(home / "autostart/com.vostrel.Almanor.desktop"));
    EXPECT_FALSE(launch.isEnabled());
    launch.disconnect(token);
    launch.setEnabled(true);
    EXPECT_EQ(heard, (std::vector<bool>{true, true, false}));
}

TEST_F(LaunchAtLoginTest, HiddenOrSwitchedOffEntriesReadAsDisabled) {
    auto file = home / "autostart/com.vostrel.Almanor.desktop";
    writeFile(file, "[Desktop Entry]\nType=Application\nName=A\nExec=almanor\nHidden=true\n");
    EXPECT_FALSE(launch.isEnabled());
    writeFile(file,
              "[Desktop "
              "Entry]\nType=Application\nName=A\nExec=almanor\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_FALSE(launch.isEnabled());
    writeFile(file, "not a key file");
    EXPECT_FALSE(launch.isEnabled());
    writeFile(file, "[Desktop Entry]\nType=Application\nName=A\nExec=almanor\n");
    EXPECT_TRUE(launch.isEnabled());
}

TEST_F(LaunchAtLoginTest, MigrationCarriesAnEnabledHelperOverOnce) {
    auto legacy = home / "autostart/com.vostrel.Almanor-LaunchAtLoginHelper.desktop";
    writeFile(legacy, "[Desktop Entry]\nType=Application\nName=H\nExec=helper\n");
    launch.migrateIfNeeded();
    EXPECT_TRUE(defaults.boolean(Settings::launchAtLoginHasMigrated));
    EXPECT_TRUE(launch.isEnabled());
    EXPECT_FALSE(std::filesystem::exists(legacy));

    // Later starts skip it, even when a helper entry turns up again.
    launch.setEnabled(false);
    writeFile(legacy, "[Desktop Entry]\nType=Application\nName=H\nExec=helper\n");
    launch.migrateIfNeeded();
    EXPECT_FALSE(launch.isEnabled());
    EXPECT_TRUE(std::filesystem::exists(legacy));
}

TEST_F(LaunchAtLoginTest, ASwitchedOffHelperIsRemovedButNotCarriedOver) {
    auto legacy = home / "autostart/com.vostrel.Almanor-LaunchAtLoginHelper.desktop";
    writeFile(legacy, "[Desktop Entry]\nType=Application\nName=H\nExec=helper\nHidden=true\n");
    launch.migrateIfNeeded();
    EXPECT_FALSE(launch.isEnabled());
    EXPECT_FALSE(std::filesystem::exists(legacy));
    EXPECT_TRUE(defaults.boolean(Settings::launchAtLoginHasMigrated));
}

TEST_F(LaunchAtLoginTest, ARefusedRegistrationIsLoggedAndObserversHearTheRequest) {
    if (::geteuid() == 0) {
        // Root writes through folder permissions; a file where the folder should be refuses anyone.
        writeFile(home / "autostart", "in the way");
    } else {
        std::filesystem::create_directories(home / "autostart");
        ::chmod((home / "autostart").c_str(), 0500);
    }
    bool heard = false;
    launch.observe([&](bool on) { heard = on; });
    StructuredLogCapture logs;
    launch.setEnabled(true);
    EXPECT_TRUE(heard);
    EXPECT_FALSE(launch.isEnabled());
    ASSERT_EQ(logs.records.size(), 1u);
    EXPECT_EQ(logs.records[0].domain, "com.brimwell.LaunchAtLogin");
    EXPECT_EQ(logs.records[0].category, "main");
    EXPECT_EQ(logs.records[0].message.rfind("Failed to enable launch at login: ", 0), 0u)
        << logs.records[0].message;
    EXPECT_GT(logs.records[0].message.size(),
              std::string("Failed to enable launch at login: ").size());
}

TEST(XdgAutostartServiceTest, TheProgramOnPathIsNamedPlainly) {
    test::TempDir home;
    auto bin = home / "bin";
    std::filesystem::create_directories(bin);
    writeFile(bin / "almanor", "#!/bin/sh\n");
    ::chmod((bin / "almanor").c_str(), 0755);
    std::string path = g_getenv("PATH") ? g_getenv("PATH") : "";
    g_setenv("PATH", (bin.string() + ":" + path).c_str(), TRUE);
    EXPECT_EQ(XdgAutostartService(home.path(), bin / "almanor").execLine(), "almanor");
    EXPECT_EQ(XdgAutostartService(home.path(), home / "other/almanor").execLine(),
              (home / "other/almanor").string());
    g_setenv("PATH", path.c_str(), TRUE);
}

} // namespace
} // namespace almanor
