#include "platform/SettingsFile.h"

#include "LogCapture.h"
#include "TempDir.h"
#include "platform/Settings.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>

using namespace almanor;

namespace {

std::string slurp(const std::filesystem::path& p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::filesystem::path& p, const std::string& text) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << text;
}

struct DefaultsTest : testing::Test {
    test::TempDir dir;
    std::filesystem::path file = dir / "Almanor/settings.ini";
};

TEST_F(DefaultsTest, MissingKeysReadAsTheStoreDefaultsAndRegistrationIsNeverWritten) {
    SettingsFile d(file);
    Settings s(d);
    EXPECT_EQ(d.integer(Settings::buildVersion), 0);
    EXPECT_FALSE(d.boolean(Settings::appZoneUsed));
    EXPECT_EQ(d.string(Settings::selectedEvent), std::nullopt);
    s.registerDefaults();
    EXPECT_EQ(s.selectedEventId(), Uuid());
    EXPECT_FALSE(std::filesystem::exists(file));
    d.setInteger(Settings::buildVersion, 1);
    EXPECT_EQ(slurp(file).find("selectedEvent"), std::string::npos);
}

TEST_F(DefaultsTest, WritesKeepOtherWritersKeysAndAreSeenByOtherReaders) {
    SettingsFile tray(file);
    SettingsFile cli(file);
    tray.setBoolean(Settings::appZoneUsed, true);
    EXPECT_TRUE(cli.boolean(Settings::appZoneUsed)); // cli had nothing cached yet
    cli.setString(Settings::selectedEvent, "d8291056-77f8-44d5-9475-07ae1cf9d9c8");
    tray.setInteger(Settings::buildVersion, 1); // must not drop the cli's key
    EXPECT_EQ(tray.string(Settings::selectedEvent), "d8291056-77f8-44d5-9475-07ae1cf9d9c8");
    EXPECT_TRUE(cli.boolean(Settings::appZoneUsed));
    EXPECT_EQ(cli.integer(Settings::buildVersion), 1);
}

TEST_F(DefaultsTest, ConcurrentWritersFromTwoThreadsLoseNothing) {
    SettingsFile a(file);
    SettingsFile b(file);
    std::thread t1([&] {
        for (int i = 0; i < 40; ++i) {
            a.setInteger("a" + std::to_string(i), i);
        }
    });
    std::thread t2([&] {
        for (int i = 0; i < 40; ++i) {
            b.setInteger("b" + std::to_string(i), i);
        }
    });
    t1.join();
    t2.join();
    SettingsFile c(file);
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(c.integer("a" + std::to_string(i)), i);
        ASSERT_EQ(c.integer("b" + std::to_string(i)), i);
    }
}

TEST_F(DefaultsTest, TextsNeedingEscapesRoundTrip) {
    SettingsFile d(file);
    d.setString(Settings::recordZone, " lead;\nnew line\\ and = sign ");
    EXPECT_EQ(SettingsFile(file).string(Settings::recordZone), " lead;\nnew line\\ and = sign ");
}

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
    EXPECT_EQ(d.string("cloudUser"), "me");
    EXPECT_EQ(d.string("cloudPasswordCommand"), "pass show dav");
    EXPECT_TRUE(d.boolean(Settings::launchAtLoginHasMigrated));
}

// `text` with `line` put in before its line number `before` (1-based).
std::string withLine(const std::string& text, int before, const std::string& line) {
    std::size_t at = 0;
    for (int i = 1; i < before; ++i) {
        at = text.find('\n', at) + 1;
    }
    return text.substr(0, at) + line + "\n" + text.substr(at);
}

TEST_F(DefaultsTest, ADamagedLineIsDroppedOnceAndEveryOtherKeySurvives) {
    std::string damaged = withLine(everyKey, 4, "this is not a key file line");
    spit(file, damaged);
    test::LogCapture log;
    SettingsFile d(file);
    expectEveryKey(d);
    expectEveryKey(d); // read again: no second warning
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "Settings file " + file.string() + ": line 4 dropped: not a key, group or comment",
            "The damaged settings file was kept as " + file.string() + ".corrupt"}));
    EXPECT_EQ(slurp(file.string() + ".corrupt"), damaged);
    EXPECT_EQ(slurp(file), everyKey); // what could be read, written back as it was
    // Another process reading after the repair has nothing to be told.
    SettingsFile other(file);
    expectEveryKey(other);
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(DefaultsTest, DamageTwiceOverKeepsEachOriginalAndTheAccount) {
    SettingsFile d(file);
    std::string first = withLine(everyKey, 3, "\x01\x02 garbage");
    spit(file, first);
    expectEveryKey(d);
    // A damaged group header: the keys under it are still ours.
    std::string second = "[com.vostrel.Alm\x7F" + everyKey.substr(everyKey.find('\n'));
    spit(file, second);
    test::LogCapture log;
    expectEveryKey(d);
    EXPECT_EQ(log.lines().front(),
              "Settings file " + file.string() + ": line 1 dropped: a damaged group header");
    // Found by a writer this time: the write lands on what could be read.
    std::string third = everyKey + "[other]\nno equals sign\n";
    spit(file, third);
    d.setString(Settings::recordZone, "zone");
    expectEveryKey(d);
    EXPECT_EQ(d.string(Settings::recordZone), "zone");

    EXPECT_EQ(slurp(file.string() + ".corrupt"), first);
    EXPECT_EQ(slurp(file.string() + ".corrupt.1"), second);
    EXPECT_EQ(slurp(file.string() + ".corrupt.2"), third);
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".corrupt.3"));
}

TEST_F(DefaultsTest, KeysOutsideAnyGroupAndLongRunsOfDamageAreReadAndToldShortly) {
    // The first line lost, then a binary tail of many lines (GKeyFile takes the odd key names).
    std::string damaged = everyKey.substr(everyKey.find('\n') + 1) + "\r\n";
    for (int i = 0; i < 40; ++i) {
        damaged += std::string("\x89PNG\x01=") + char('a' + i % 26) + "\n[\n";
    }
    spit(file, damaged);
    test::LogCapture log;
    SettingsFile d(file);
    expectEveryKey(d);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 7u); // five lines named, the rest counted, the copy
    EXPECT_EQ(lines[0],
              "Settings file " + file.string() + ": line 9 dropped: a damaged group header");
    EXPECT_EQ(lines[5], "Settings file " + file.string() + ": 35 more damaged lines dropped");
    EXPECT_EQ(slurp(file.string() + ".corrupt"), damaged);
}

TEST_F(DefaultsTest, TwoReadersOfOneDamagedFileRepairItOnce) {
    std::string damaged = withLine(everyKey, 2, "garbage");
    spit(file, damaged);
    test::LogCapture log;
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([this] { expectEveryKey(SettingsFile(file)); });
    }
    for (auto& t : readers) {
        t.join();
    }
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(slurp(file.string() + ".corrupt"), damaged);
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".corrupt.1"));
}

TEST_F(DefaultsTest, ARepairIsTheRepairersOwnChangeAndAnotherReadersNews) {
    spit(file, withLine(everyKey, 2, "garbage"));
    SettingsFile tray(file);
    SettingsFile cli(file);
    expectEveryKey(tray); // repairs
    EXPECT_FALSE(tray.changedElsewhere());
    EXPECT_TRUE(cli.changedElsewhere());
}

TEST_F(DefaultsTest, AnotherWritersChangeIsNewsEvenWhenItRestoresOurOwnWrite) {
    SettingsFile tray(file);
    SettingsFile cli(file);
    tray.setString("selectedEvent", "A");
    EXPECT_FALSE(tray.changedElsewhere());
    cli.setString("selectedEvent", "B");
    EXPECT_TRUE(tray.changedElsewhere());
    // Back to the very file the tray wrote: still another writer's change.
    cli.setString("selectedEvent", "A");
    EXPECT_TRUE(tray.changedElsewhere());
    EXPECT_FALSE(tray.changedElsewhere());
    // A change folded into the tray's own write before it looked is not lost either.
    cli.setString("selectedEvent", "C");
    tray.setBoolean("launchAtLogin", true);
    EXPECT_TRUE(tray.changedElsewhere());
    tray.setBoolean("launchAtLogin", false);
    EXPECT_FALSE(tray.changedElsewhere());
}

TEST_F(DefaultsTest, WithNoFreeNameForACopyTheDamagedFileIsLeftAndNotOverwritten) {
    std::string damaged = withLine(everyKey, 2, "garbage");
    spit(file, damaged);
    spit(file.string() + ".corrupt", "older copy");
    for (int n = 1; n < 1000; ++n) {
        spit(file.string() + ".corrupt." + std::to_string(n), "older copy");
    }
    test::LogCapture log;
    SettingsFile d(file);
    expectEveryKey(d); // read in memory all the same
    d.setString(Settings::recordZone, "zone");
    EXPECT_EQ(slurp(file), damaged);
    EXPECT_EQ(slurp(file.string() + ".corrupt.999"), "older copy");
    auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Failed to save settings to " + file.string() +
                                ": the file as it is could not be kept");
}

TEST_F(DefaultsTest, WrongTypesReadAsDefaultsAndCorruptSelectionIsARandomUuid) {
    spit(file, "[com.vostrel.Almanor]\nbuildVersion=abc\nappZoneUsed=maybe\nselectedEvent=xyz\n");
    SettingsFile d(file);
    Settings s(d);
    EXPECT_EQ(d.integer(Settings::buildVersion), 0);
    EXPECT_FALSE(d.boolean(Settings::appZoneUsed));
    Uuid first = s.selectedEventId();
    EXPECT_NE(first, s.selectedEventId());
    EXPECT_FALSE(first.isNil());
    EXPECT_EQ(d.string(Settings::selectedEvent), "xyz"); // not rewritten by reading
}

TEST_F(DefaultsTest, SelectionIsStoredUpperCase) {
    SettingsFile d(file);
    Settings s(d);
    s.setSelectedEventId(*Uuid::parse("c72773f5-d96e-478b-92fe-5bb5ddd62102"));
    EXPECT_NE(slurp(file).find("selectedEvent=C72773F5-D96E-478B-92FE-5BB5DDD62102"),
              std::string::npos);
}

TEST_F(DefaultsTest, AnUnchangedValueDoesNotRewriteTheFile) {
    SettingsFile d(file);
    d.setString(Settings::selectedEvent, "A");
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    d.setString(Settings::selectedEvent, "A");
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino); // an atomic replace would give a new inode
}

} // namespace
