// The cloud logic over the CalDAV adapter: the repository's creation, the zone's discovery.
#include "cloud/CloudRepository.h"

#include "HookedCalDav.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "cloud/MigrationHelper.h"
#include "cloud/RecordMapping.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::HookedCalDav;
using Op = HookedCalDav::Op;
using Lines = std::vector<std::string>;

struct Factory {
    std::shared_ptr<HookedCalDav> cloud;
    int provided = 0;
    CloudRepositoryFactory factory{[this] {
        ++provided;
        return cloud;
    }};
};

TEST(CloudRepositoryFactory, EachFailureIsLoggedOnceAndNotRetried) {
    const auto server = std::make_shared<test::ScriptedDavServer>();
    const std::vector<std::pair<std::function<void(Factory&)>, std::string>> cases = {
        {[](Factory& f) { f.cloud->failAll(Op::status); },
         "Failed to check status of cloud: injected failure"},
        {[](Factory& f) { f.cloud->setAccountStatus(AccountStatus::noAccount); },
         ""}, // no account is no news
        {[](Factory& f) {
             f.cloud->failAll(Op::saveZone);
             EXPECT_FALSE(f.factory.get()->saveZone());
             f.factory.giveUp();
         },
         "Failed to create zone: injected failure"},
    };
    for (const auto& [arrange, line] : cases) {
        test::LogCapture log;
        Factory f{std::make_shared<HookedCalDav>(server)};
        arrange(f);
        EXPECT_EQ(f.factory.get(), nullptr) << line;
        EXPECT_EQ(f.factory.get(), nullptr) << line;
        EXPECT_EQ(f.cloud->calls(Op::status), 1) << line << ": asked again after giving up";
        EXPECT_EQ(log.lines(), line.empty() ? Lines{} : Lines{line});
        f.cloud->setHook({});
        f.cloud->setAccountStatus(AccountStatus::available);
        f.factory.networkCameBack();
        ASSERT_NE(f.factory.get(), nullptr) << line;
        EXPECT_TRUE(f.factory.get()->saveZone());
    }
}

TEST(CloudRepositoryFactory, OnlyNoAccountOrNoServiceStopsCreationAndSuccessIsKept) {
    EXPECT_EQ(CloudRepositoryFactory{[] { return std::shared_ptr<CloudService>(); }}.get(),
              nullptr);
    EXPECT_EQ(CloudRepositoryFactory{CloudServiceProvider{}}.get(), nullptr);
    const auto server = std::make_shared<test::ScriptedDavServer>();
    for (auto status : {AccountStatus::restricted, AccountStatus::couldNotDetermine,
                        AccountStatus::temporarilyUnavailable}) {
        test::LogCapture log;
        Factory f{std::make_shared<HookedCalDav>(server)};
        f.cloud->setAccountStatus(status);
        auto first = f.factory.get();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(f.factory.get(), first);
        EXPECT_EQ(f.factory.existing(), first);
        EXPECT_EQ(f.provided, 1);
        EXPECT_EQ(f.cloud->requests(), 0);
        EXPECT_EQ(f.cloud->calls(Op::status), 1);
        EXPECT_TRUE(log.lines().empty());
    }
}

const std::string legacy(legacyZoneName), app(appZoneName);

class ZoneDiscovery : public ::testing::Test {
  protected:
    std::optional<MigrationHelper> discover() {
        return MigrationHelper::findExistingRecords(cloud, defaults);
    }
    void seedIn(const std::string& zone) {
        cloud->seed(recordFromEvent(CloudEvent{
            RecordId{"old", zone}, makeEvent(Uuid::random(), Instant{}, "Old", std::nullopt,
                                             Schedule::none, CountMethod::standard)}));
    }

    test::TempDir dir;
    SettingsFile defaults{dir / "settings.ini"};
    std::shared_ptr<HookedCalDav> cloud = std::make_shared<HookedCalDav>();
    FixedClock clock{Instant{}};
    test::LogCapture log;
};

TEST_F(ZoneDiscovery, AppZoneWinsOverTheLegacyOneAndIsRememberedForGood) {
    seedIn(legacy);
    cloud->other.saveZone("Personal");
    cloud->other.saveZone(app);
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), app);
    EXPECT_EQ(defaults.string(Settings::recordZone), app);
    // Next start: no listing at all, whatever the stored name says.
    defaults.setString(Settings::recordZone, legacy);
    EXPECT_EQ(discover()->zoneName(), app);
    EXPECT_EQ(cloud->calls(Op::zones), 1);
}

TEST_F(ZoneDiscovery, LegacyZoneCountsOnlyWithRecordsAndNamesMatchExactly) {
    EXPECT_FALSE(discover());
    cloud->other.saveZone(legacy);
    cloud->other.saveZone("COM.VOSTREL.ALMANOR.ZONE");
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
    defaults.setString(Settings::recordZone, legacy);
    cloud->failAll(Op::zones);
    seedIn(legacy);
    auto reader = discover();
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->zoneName(), legacy);
    cloud->failAll(Op::query);
    EXPECT_FALSE(MigrationHelper::hasRecords(*cloud, legacy));
    EXPECT_TRUE(reader->fetchRecords(clock).empty());
    cloud->setHook({});
    EXPECT_EQ(reader->fetchRecords(clock).size(), 1u);
    EXPECT_EQ(log.lines(), (Lines{"Failed to fetch zone: injected failure",
                                  "Failed to check for records: injected failure",
                                  "Failed to fetch records: injected failure"}));
}

} // namespace
} // namespace almanor
