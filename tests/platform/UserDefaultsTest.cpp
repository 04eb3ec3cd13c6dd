#include "platform/UserDefaults.h"

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
    UserDefaults d(file);
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
    UserDefaults tray(file);
    UserDefaults cli(file);
    tray.setBoolean(Settings::appZoneUsed, true);
    EXPECT_TRUE(cli.boolean(Settings::appZoneUsed)); // cli had nothing cached yet
    cli.setString(Settings::selectedEvent, "d8291056-77f8-44d5-9475-07ae1cf9d9c8");
    tray.setInteger(Settings::buildVersion, 1); // must not drop the cli's key
    EXPECT_EQ(tray.string(Settings::selectedEvent), "d8291056-77f8-44d5-9475-07ae1cf9d9c8");
    EXPECT_TRUE(cli.boolean(Settings::appZoneUsed));
    EXPECT_EQ(cli.integer(Settings::buildVersion), 1);
}

TEST_F(DefaultsTest, ConcurrentWritersFromTwoThreadsLoseNothing) {
    UserDefaults a(file);
    UserDefaults b(file);
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
    UserDefaults c(file);
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(c.integer("a" + std::to_string(i)), i);
        ASSERT_EQ(c.integer("b" + std::to_string(i)), i);
    }
}

TEST_F(DefaultsTest, TextsNeedingEscapesRoundTrip) {
    UserDefaults d(file);
    d.setString(Settings::recordZone, " lead;\nnew line\\ and = sign ");
    EXPECT_EQ(UserDefaults(file).string(Settings::recordZone), " lead;\nnew line\\ and = sign ");
}

TEST_F(DefaultsTest, AnUnreadableFileIsReportedOnceTreatedAsEmptyAndKeptAside) {
    spit(file, "[com.vostrel.Almanor]\nbuildVersion=1\nthis is not a key file line\n");
    test::LogCapture log;
    UserDefaults d(file);
    Settings s(d);
    s.registerDefaults();
    EXPECT_EQ(d.integer(Settings::buildVersion), 0);
    EXPECT_EQ(s.selectedEventId(), Uuid());
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("settings.ini"), std::string::npos);
    d.setInteger(Settings::buildVersion, 1);
    EXPECT_EQ(d.integer(Settings::buildVersion), 1);
    EXPECT_NE(slurp(file.string() + ".corrupt").find("not a key file line"), std::string::npos);
}

TEST_F(DefaultsTest, WrongTypesReadAsDefaultsAndCorruptSelectionIsARandomUuid) {
    spit(file, "[com.vostrel.Almanor]\nbuildVersion=abc\nappZoneUsed=maybe\nselectedEvent=xyz\n");
    UserDefaults d(file);
    Settings s(d);
    EXPECT_EQ(d.integer(Settings::buildVersion), 0);
    EXPECT_FALSE(d.boolean(Settings::appZoneUsed));
    Uuid first = s.selectedEventId();
    EXPECT_NE(first, s.selectedEventId());
    EXPECT_FALSE(first.isNil());
    EXPECT_EQ(d.string(Settings::selectedEvent), "xyz"); // not rewritten by reading
}

TEST_F(DefaultsTest, ZoneNamePrefersTheAppZoneOnceSeen) {
    UserDefaults d(file);
    Settings s(d);
    EXPECT_EQ(s.zoneName(), std::nullopt);
    d.setString(Settings::recordZone, "com.apple.coredata.cloudkit.zone");
    EXPECT_EQ(s.zoneName(), "com.apple.coredata.cloudkit.zone");
    d.setBoolean(Settings::appZoneUsed, true);
    EXPECT_EQ(s.zoneName(), "com.vostrel.almanor.zone");
}

TEST_F(DefaultsTest, SelectionIsStoredUpperCase) {
    UserDefaults d(file);
    Settings s(d);
    s.setSelectedEventId(*Uuid::parse("c72773f5-d96e-478b-92fe-5bb5ddd62102"));
    EXPECT_NE(slurp(file).find("selectedEvent=C72773F5-D96E-478B-92FE-5BB5DDD62102"),
              std::string::npos);
}

TEST_F(DefaultsTest, AnUnchangedValueDoesNotRewriteTheFile) {
    UserDefaults d(file);
    d.setString(Settings::selectedEvent, "A");
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    d.setString(Settings::selectedEvent, "A");
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino); // an atomic replace would give a new inode
}

} // namespace
