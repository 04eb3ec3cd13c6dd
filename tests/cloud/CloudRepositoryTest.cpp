// The cloud logic over the fake: the repository's creation, the zone's discovery, the fake itself.
#include "cloud/CloudRepository.h"

#include "CloudServiceContract.h"
#include "FakeCloudService.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "cloud/MigrationHelper.h"
#include "cloud/RecordMapping.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::FakeCloudService;
using Op = FakeCloudService::Op;
using Lines = std::vector<std::string>;

struct Factory {
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
    int provided = 0;
    CloudRepositoryFactory factory{[this] {
        ++provided;
        return fake;
    }};
};

TEST(CloudRepositoryFactory, EachFailureIsLoggedOnceAndNotRetried) {
    const std::vector<std::pair<std::function<void(Factory&)>, std::string>> cases = {
        {[](Factory& f) { f.fake->failAll(Op::status); },
         "Failed to check status of cloud: injected failure"},
        {[](Factory& f) { f.fake->setAccountStatus(AccountStatus::noAccount); },
         ""}, // no account is no news
        {[](Factory& f) {
             f.fake->failAll(Op::saveZone);
             EXPECT_FALSE(f.factory.get()->saveZone());
             f.factory.giveUp();
         },
         "Failed to create zone: injected failure"},
    };
    for (const auto& [arrange, line] : cases) {
        test::LogCapture log;
        Factory f;
        arrange(f);
        EXPECT_EQ(f.factory.get(), nullptr) << line;
        EXPECT_EQ(f.factory.get(), nullptr) << line;
        EXPECT_EQ(f.fake->calls(Op::status), 1) << line << ": asked again after giving up";
        EXPECT_EQ(log.lines(), line.empty() ? Lines{} : Lines{line});
        f.fake->clearFailures();
        f.fake->setAccountStatus(AccountStatus::available);
        f.factory.networkCameBack();
        ASSERT_NE(f.factory.get(), nullptr) << line;
        EXPECT_TRUE(f.factory.get()->saveZone());
    }
}

TEST(CloudRepositoryFactory, OnlyNoAccountOrNoServiceStopsCreationAndSuccessIsKept) {
    EXPECT_EQ(CloudRepositoryFactory{[] { return std::shared_ptr<CloudService>(); }}.get(),
              nullptr);
    EXPECT_EQ(CloudRepositoryFactory{CloudServiceProvider{}}.get(), nullptr);
    for (auto status : {AccountStatus::restricted, AccountStatus::couldNotDetermine,
                        AccountStatus::temporarilyUnavailable}) {
        test::LogCapture log;
        Factory f;
        f.fake->setAccountStatus(status);
        auto first = f.factory.get();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(f.factory.get(), first);
        EXPECT_EQ(f.factory.existing(), first);
        EXPECT_EQ(f.provided, 1);
        EXPECT_EQ(f.fake->requests(), 0);
        EXPECT_EQ(f.fake->calls(Op::status), 1);
        EXPECT_TRUE(log.lines().empty());
    }
}

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

TEST(CloudServiceContract, Fake) {
    FakeCloudService fake;
    test::holdsToTheCloudContract(
        fake, [&] { return fake.requests(); }, [&] { return fake.bodiesFetched(); });
}

} // namespace
} // namespace almanor
