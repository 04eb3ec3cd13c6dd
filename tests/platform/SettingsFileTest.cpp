#include "platform/SettingsFile.h"

#include "LogCapture.h"
#include "TempDir.h"
#include "platform/Settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

using namespace almanor;

namespace {

// Everything the user would lose with the file: the account, the selection, login.
const std::string everyKey = "[com.vostrel.Almanor]\n"
                             "buildVersion=1\n"
                             "selectedEvent=C72773F5-D96E-478B-92FE-5BB5DDD62102\n"
                             "cloudServer=https://dav.example.org/cal/\n"
                             "cloudUser=me\n"
                             "cloudPasswordCommand=pass show dav\n"
                             "LaunchAtLogin__hasMigrated=true\n";

void expectEveryKey(const SettingsFile& d) {
    EXPECT_EQ(d.integer(Settings::buildVersion), 1);
    EXPECT_EQ(d.string(Settings::selectedEvent), "C72773F5-D96E-478B-92FE-5BB5DDD62102");
    EXPECT_EQ(d.string("cloudServer"), "https://dav.example.org/cal/");
    EXPECT_EQ(d.string("cloudPasswordCommand"), "pass show dav");
    EXPECT_TRUE(d.boolean(Settings::launchAtLoginHasMigrated));
}

struct SettingsFileTest : testing::Test {
    test::TempDir dir;
    std::filesystem::path file = dir / "Almanor/settings.ini";
    std::string damaged = everyKey + "garbage\n";
};

TEST_F(SettingsFileTest, WritersKeepEachOthersKeysAndDefaultsAreNeverWritten) {
    SettingsFile tray(file);
    SettingsFile cli(file);
    Settings(tray).registerDefaults();
    EXPECT_EQ(Settings(tray).selectedEventId(), Uuid());
    EXPECT_FALSE(std::filesystem::exists(file));
    tray.setBoolean(Settings::appZoneUsed, true);
    EXPECT_TRUE(cli.boolean(Settings::appZoneUsed));
    cli.setString(Settings::recordZone, " lead;\nnew line\\ and = sign ");
    tray.setInteger(Settings::buildVersion, 1);
    EXPECT_EQ(tray.string(Settings::recordZone), " lead;\nnew line\\ and = sign ");
    EXPECT_EQ(cli.integer(Settings::buildVersion), 1);
    EXPECT_EQ(test::readFile(file).find("selectedEvent"), std::string::npos);
    // Of the wrong type: the defaults; a selection that is no id: a fresh one each time.
    test::writeFile(
        file, "[com.vostrel.Almanor]\nbuildVersion=abc\nappZoneUsed=maybe\nselectedEvent=xyz\n");
    EXPECT_EQ(cli.integer(Settings::buildVersion), 0);
    EXPECT_FALSE(cli.boolean(Settings::appZoneUsed));
    EXPECT_NE(Settings(cli).selectedEventId(), Settings(cli).selectedEventId());
    // Two writers at once lose nothing of each other's.
    auto writeMany = [](SettingsFile& d, const std::string& prefix) {
        for (int i = 0; i < 40; ++i) {
            d.setInteger(prefix + std::to_string(i), i);
        }
    };
    std::thread a([&] { writeMany(tray, "a"); });
    writeMany(cli, "b");
    a.join();
    SettingsFile fresh(file);
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(fresh.integer("a" + std::to_string(i)) + fresh.integer("b" + std::to_string(i)),
                  2 * i);
    }
}

TEST_F(SettingsFileTest, ADamagedFileIsReadLineByLineToldOnceAndKeptAsIs) {
    const std::string told = "Settings file " + file.string() + ": ";
    const std::size_t third = everyKey.find('\n', everyKey.find('\n') + 1) + 1;
    std::string binary = everyKey.substr(everyKey.find('\n') + 1) + "\r\n"; // first line lost
    for (int i = 0; i < 40; ++i) {
        binary += std::string("\x89PNG\x01=") + char('a' + i % 26) + "\n[\n";
    }
    struct Case {
        std::string text, first, last;
        std::size_t lines;
        bool repairedAsBefore;
    };
    const Case cases[] = {
        {everyKey.substr(0, third) + "\x01 garbage\n" + everyKey.substr(third),
         told + "line 3 dropped: not a key, group or comment", "", 2, true},
        {"[com.vostrel.Alm\x7F" + everyKey.substr(everyKey.find('\n')),
         told + "line 1 dropped: a damaged group header", "", 2, true},
        {binary, told + "line 9 dropped: a damaged group header",
         told + "35 more damaged lines dropped", 7, false},
    };
    int copies = 0;
    for (const auto& c : cases) {
        test::writeFile(file, c.text);
        test::LogCapture log;
        std::vector<std::thread> readers; // one repairs it, none tells twice
        for (int i = 0; i < 3; ++i) {
            readers.emplace_back([this] { expectEveryKey(SettingsFile(file)); });
        }
        for (auto& t : readers) {
            t.join();
        }
        std::string copy =
            file.string() + ".corrupt" + (copies++ == 0 ? "" : "." + std::to_string(copies - 1));
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), c.lines) << c.first;
        EXPECT_EQ(lines.front(), c.first);
        if (!c.last.empty()) {
            EXPECT_EQ(lines[lines.size() - 2], c.last);
        }
        EXPECT_EQ(lines.back(), "The damaged settings file was kept as " + copy);
        EXPECT_EQ(test::readFile(copy), c.text);
        if (c.repairedAsBefore) {
            EXPECT_EQ(test::readFile(file), everyKey);
        }
    }
    // Found by a writer: the write lands on what could be read.
    test::writeFile(file, damaged);
    SettingsFile writer(file);
    writer.setString(Settings::recordZone, "zone");
    expectEveryKey(SettingsFile(file));
    EXPECT_EQ(SettingsFile(file).string(Settings::recordZone), "zone");
    EXPECT_EQ(test::readFile(file.string() + ".corrupt.3"), damaged);
    // With no free name left for a copy: read all the same, never overwritten.
    for (int n = 4; n < 1000; ++n) {
        test::writeFile(file.string() + ".corrupt." + std::to_string(n), "older copy");
    }
    test::writeFile(file, damaged);
    test::LogCapture log;
    SettingsFile full(file);
    expectEveryKey(full);
    EXPECT_FALSE(full.setString(Settings::recordZone, "zone"));
    EXPECT_EQ(test::readFile(file), damaged);
    EXPECT_EQ(log.lines().back(), "Failed to save settings to " + file.string() +
                                      ": the file as it is could not be kept");
}

// What another process wrote is news, even when it restores our own write or is folded into it;
// our own writes and repairs are not.
TEST_F(SettingsFileTest, ChangesElsewhereAreNewsOnce) {
    test::writeFile(file, damaged);
    SettingsFile tray(file);
    SettingsFile cli(file);
    expectEveryKey(tray); // repairs
    EXPECT_FALSE(tray.changedElsewhere());
    EXPECT_TRUE(cli.changedElsewhere());
    tray.setString("selectedEvent", "A");
    EXPECT_FALSE(tray.changedElsewhere());
    cli.setString("selectedEvent", "B");
    EXPECT_TRUE(tray.changedElsewhere());
    cli.setString("selectedEvent", "A"); // back to the very file the tray wrote
    EXPECT_TRUE(tray.changedElsewhere());
    EXPECT_FALSE(tray.changedElsewhere());
    cli.setString("selectedEvent", "C");
    tray.setBoolean("launchAtLogin", true);
    EXPECT_TRUE(tray.changedElsewhere());
    // Writing what the file holds leaves it alone.
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    tray.setBoolean("launchAtLogin", true);
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino); // an atomic replace would give a new inode
    EXPECT_FALSE(tray.changedElsewhere());
}

} // namespace
