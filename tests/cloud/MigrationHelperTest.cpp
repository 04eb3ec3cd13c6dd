#include "cloud/MigrationHelper.h"

#include "FakeCloudService.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "cloud/RecordMapping.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::FakeCloudService;
using Op = FakeCloudService::Op;
using Lines = std::vector<std::string>;

CloudRecord recordIn(const std::string& zone, const std::string& name) {
    auto event = makeEvent(Uuid::random(), Instant{}, name, std::nullopt, Schedule::none,
                           CountMethod::standard);
    return recordFromEvent(CloudEvent{RecordId{name, zone}, event});
}

class ZoneDiscovery : public ::testing::Test {
  protected:
    std::optional<MigrationHelper> discover() {
        return MigrationHelper::findExistingRecords(fake, defaults);
    }

    test::TempDir dir;
    SettingsFile defaults{dir / "settings.ini"};
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
    FixedClock clock{Instant{}};
    test::LogCapture log;
};

TEST_F(ZoneDiscovery, ZoneInUsePrefersTheAppZoneOnceSeen) {
    EXPECT_EQ(MigrationHelper::zoneInUse(defaults), std::nullopt);
    defaults.setString(Settings::recordZone, std::string(legacyZoneName));
    EXPECT_EQ(MigrationHelper::zoneInUse(defaults), std::string(legacyZoneName));
    defaults.setBoolean(Settings::appZoneUsed, true);
    EXPECT_EQ(MigrationHelper::zoneInUse(defaults), std::string(appZoneName));
}

TEST_F(ZoneDiscovery, NoZonesMeansNothingToMigrate) {
    EXPECT_FALSE(discover());
    EXPECT_EQ(log.lines(), (Lines{"Finding existing cloud records",
                                  "No zone found in the cloud, no need to migrate"}));
    EXPECT_FALSE(defaults.string(Settings::recordZone));
}

TEST_F(ZoneDiscovery, AppZoneWinsOverTheLegacyOneAndIsRememberedForGood) {
    fake->seed(recordIn(std::string(legacyZoneName), "old"));
    fake->seedZone("Personal");
    fake->seedZone(std::string(appZoneName));
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), appZoneName);
    EXPECT_TRUE(defaults.boolean(Settings::appZoneUsed));
    EXPECT_EQ(defaults.string(Settings::recordZone), std::string(appZoneName));
    EXPECT_EQ(
        log.lines(),
        (Lines{"Finding existing cloud records",
               "Zone com.apple.coredata.cloudkit.zone at memory:/com.apple.coredata.cloudkit.zone/",
               "Zone Personal at memory:/Personal/",
               "Zone com.vostrel.almanor.zone at memory:/com.vostrel.almanor.zone/"}));

    // Next start: no listing at all.
    int listings = fake->calls(Op::fetchAllZones);
    ASSERT_TRUE(discover());
    EXPECT_EQ(fake->calls(Op::fetchAllZones), listings);
}

TEST_F(ZoneDiscovery, LegacyZoneCountsOnlyWithRecordsAndNamesMatchExactly) {
    fake->seedZone(std::string(legacyZoneName));
    fake->seedZone("COM.VOSTREL.ALMANOR.ZONE");
    EXPECT_FALSE(discover());
    EXPECT_FALSE(defaults.boolean(Settings::appZoneUsed));

    fake->seed(recordIn(std::string(legacyZoneName), "old"));
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), legacyZoneName);
    EXPECT_FALSE(defaults.boolean(Settings::appZoneUsed));
    auto events = reader->fetchRecords(clock);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].recordId, (RecordId{"old", std::string(legacyZoneName)}));
}

TEST_F(ZoneDiscovery, FailedListingFallsBackToTheStoredZone) {
    defaults.setString(Settings::recordZone, "_default");
    fake->failAll(Op::fetchAllZones, "timed out");
    fake->seed(recordIn("_default", "in-default"));
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), "_default");
    fake->clearFailures();
    ASSERT_EQ(reader->fetchRecords(clock).size(), 1u);
    EXPECT_EQ(log.lines(),
              (Lines{"Finding existing cloud records", "Failed to fetch zone: timed out"}));
}

TEST_F(ZoneDiscovery, FailedQueriesGiveEmptyAnswersWithTheirLines) {
    fake->seed(recordIn(std::string(legacyZoneName), "old"));
    fake->failAll(Op::query, "HTTP 500");
    EXPECT_FALSE(MigrationHelper::hasRecords(*fake, std::string(legacyZoneName)));
    MigrationHelper reader(fake, std::string(legacyZoneName));
    EXPECT_TRUE(reader.fetchRecords(clock).empty());
    EXPECT_EQ(log.lines(), (Lines{"Failed to check for records: HTTP 500",
                                  "Failed to fetch records: HTTP 500"}));
}

} // namespace
} // namespace almanor
