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

const std::string legacy(legacyZoneName), app(appZoneName);

class ZoneDiscovery : public ::testing::Test {
  protected:
    std::optional<MigrationHelper> discover() {
        return MigrationHelper::findExistingRecords(fake, defaults);
    }
    void seedIn(const std::string& zone) {
        fake->seed(recordFromEvent(CloudEvent{
            RecordId{"old", zone}, makeEvent(Uuid::random(), Instant{}, "Old", std::nullopt,
                                             Schedule::none, CountMethod::standard)}));
    }

    test::TempDir dir;
    SettingsFile defaults{dir / "settings.ini"};
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
    FixedClock clock{Instant{}};
    test::LogCapture log;
};

TEST_F(ZoneDiscovery, AppZoneWinsOverTheLegacyOneAndIsRememberedForGood) {
    seedIn(legacy);
    fake->seedZone("Personal");
    fake->seedZone(app);
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), app);
    EXPECT_EQ(defaults.string(Settings::recordZone), app);
    // Next start: no listing at all, whatever the stored name says.
    defaults.setString(Settings::recordZone, legacy);
    EXPECT_EQ(discover()->zoneName(), app);
    EXPECT_EQ(fake->calls(Op::zones), 1);
}

// Nothing to read without zones, nor with an empty legacy one.
TEST_F(ZoneDiscovery, LegacyZoneCountsOnlyWithRecordsAndNamesMatchExactly) {
    EXPECT_FALSE(discover());
    fake->seedZone(legacy);
    fake->seedZone("COM.VOSTREL.ALMANOR.ZONE");
    EXPECT_FALSE(discover());
    EXPECT_FALSE(defaults.string(Settings::recordZone));
    seedIn(legacy);
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), legacy);
    EXPECT_FALSE(defaults.boolean(Settings::appZoneUsed));
    auto events = reader->fetchRecords(clock);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].recordId, (RecordId{"old", legacy}));
}

TEST_F(ZoneDiscovery, FailedRequestsFallBackToTheStoredZoneWithTheirLines) {
    defaults.setString(Settings::recordZone, "_default");
    fake->failAll(Op::zones, "timed out");
    seedIn("_default");
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), "_default");
    fake->failAll(Op::query, "HTTP 500");
    EXPECT_FALSE(MigrationHelper::hasRecords(*fake, "_default"));
    EXPECT_TRUE(reader->fetchRecords(clock).empty());
    fake->clearFailures();
    EXPECT_EQ(reader->fetchRecords(clock).size(), 1u);
    EXPECT_EQ(log.lines(),
              (Lines{"Failed to fetch zone: timed out", "Failed to check for records: HTTP 500",
                     "Failed to fetch records: HTTP 500"}));
}

} // namespace
} // namespace almanor
