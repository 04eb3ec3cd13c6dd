#include "cloud/CloudRepository.h"

#include "FakeCloudService.h"
#include "Instants.h"
#include "LogCapture.h"
#include "cloud/RecordMapping.h"

#include <gtest/gtest.h>

namespace almanor {
namespace {

using test::FakeCloudService;
using Op = FakeCloudService::Op;
using Lines = std::vector<std::string>;

CloudEvent unlinked(std::string name) {
    return CloudEvent{std::nullopt,
                      makeEvent(Uuid::random(), test::utc(2030, 1, 2), std::move(name),
                                std::nullopt, Schedule::none, CountMethod::standard)};
}

struct Factory {
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
    int provided = 0;
    CloudRepositoryFactory factory{[this] {
        ++provided;
        return std::static_pointer_cast<CloudService>(fake);
    }};
};

TEST(CloudRepositoryFactory, EachFailureIsLoggedOnceAndNotRetried) {
    struct Case {
        const char* what;
        std::function<void(FakeCloudService&)> arrange;
        std::string line;
    };
    const std::vector<Case> cases = {
        {"status fails",
         [](FakeCloudService& f) { f.failAll(Op::accountStatus, "keyring locked"); },
         "Failed to check status of cloud: keyring locked"},
        {"no account", [](FakeCloudService& f) { f.setAccountStatus(AccountStatus::noAccount); },
         "No cloudkit account available"},
        {"zone save fails", [](FakeCloudService& f) { f.failAll(Op::saveZone, "HTTP 503"); },
         "Failed to create zone: HTTP 503"},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        Factory f;
        c.arrange(*f.fake);
        EXPECT_EQ(f.factory.get(), nullptr) << c.what;
        int requests = f.fake->totalCalls();
        EXPECT_EQ(f.factory.get(), nullptr) << c.what;
        EXPECT_EQ(f.fake->totalCalls(), requests) << c.what << ": asked again after giving up";
        EXPECT_EQ(log.lines(), Lines{c.line}) << c.what;

        // The network coming back lets it try once more.
        f.fake->clearFailures();
        f.fake->setAccountStatus(AccountStatus::available);
        f.factory.networkCameBack();
        EXPECT_NE(f.factory.get(), nullptr) << c.what;
    }
}

TEST(CloudRepositoryFactory, OnlyNoAccountStopsCreationAndSuccessIsKept) {
    for (auto status : {AccountStatus::restricted, AccountStatus::couldNotDetermine,
                        AccountStatus::temporarilyUnavailable}) {
        test::LogCapture log;
        Factory f;
        f.fake->setAccountStatus(status);
        auto first = f.factory.get();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(f.fake->calls(Op::saveZone), 1);
        EXPECT_EQ(f.factory.get(), first);
        EXPECT_EQ(f.factory.existing(), first);
        EXPECT_EQ(f.provided, 1);
        EXPECT_EQ(f.fake->calls(Op::accountStatus), 1);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(CloudRepositoryFactory, WithoutAServiceThereIsNoAccount) {
    test::LogCapture log;
    CloudRepositoryFactory none{[] { return std::shared_ptr<CloudService>(); }};
    EXPECT_EQ(none.get(), nullptr);
    EXPECT_EQ(none.existing(), nullptr);
    CloudRepositoryFactory empty{CloudServiceProvider{}};
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{"No cloudkit account available", "No cloudkit account available"}));
}

TEST(CloudRepository, InsertKeepsOrderLeavesOutFailuresAndLinksMintedNames) {
    auto fake = std::make_shared<FakeCloudService>();
    fake->saveZone(std::string(appZoneName));
    CloudRepository repo(fake);
    auto a = unlinked("a"), b = unlinked("b"), c = unlinked("c");
    const std::string bad = b.event->id().uuidString();
    fake->setFailureHook([&](const FakeCloudService::Call& call) -> std::optional<std::string> {
        if (call.record && std::get<std::string>(call.record->fields.at("CD_eventId")) == bad)
            return "refused";
        return std::nullopt;
    });
    test::LogCapture log;
    auto ids = repo.insert({a, b, c});
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids[0].eventId, a.event->id());
    EXPECT_EQ(ids[1].eventId, c.event->id());
    for (const auto& id : ids) {
        ASSERT_TRUE(id.recordId);
        EXPECT_EQ(id.recordId->zoneName, appZoneName);
        EXPECT_TRUE(fake->stored(*id.recordId)) << "the link names the record that was saved";
    }
    EXPECT_EQ(log.lines(), Lines{"Unable to insert record " + bad + ": refused"});
}

TEST(CloudRepository, EmptyListsMakeNoRequest) {
    auto fake = std::make_shared<FakeCloudService>();
    CloudRepository repo(fake);
    EXPECT_TRUE(repo.insert({}).empty());
    EXPECT_TRUE(repo.update({}).empty());
    EXPECT_TRUE(repo.deleteRecords({}).empty());
    EXPECT_EQ(fake->totalCalls(), 0);
    EXPECT_EQ(fake->calls(Op::modify), 0);
}

TEST(CloudRepository, DeleteCountsMissingAsGoneAndLogsFailuresWithTheInsertMessage) {
    auto fake = std::make_shared<FakeCloudService>();
    fake->saveZone(std::string(appZoneName));
    CloudRepository repo(fake);
    auto saved = repo.insert({unlinked("x")});
    ASSERT_EQ(saved.size(), 1u);
    CloudId missing{Uuid::random(), RecordId{"never-saved", std::string(appZoneName)}};
    CloudId inGoneZone{Uuid::random(), RecordId{"r", "no-such-zone"}};
    test::LogCapture log;
    auto deleted = repo.deleteRecords({saved[0], missing, inGoneZone});
    ASSERT_EQ(deleted.size(), 2u);
    EXPECT_EQ(deleted[0], saved[0]);
    EXPECT_EQ(deleted[1], missing);
    EXPECT_FALSE(fake->stored(*saved[0].recordId));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind(
                  "Unable to insert record " + inGoneZone.eventId.uuidString() + ": ", 0),
              0u);
}

TEST(CloudRepository, UpdateReturnsAtOnceWithEveryIdAndOneBatch) {
    auto fake = std::make_shared<FakeCloudService>();
    fake->saveZone(std::string(appZoneName));
    CloudRepository repo(fake);
    auto a = unlinked("a"), b = unlinked("b");
    a.recordId = RecordId{"ra", std::string(appZoneName)};
    b.recordId = RecordId{"rb", std::string(appZoneName)};
    fake->holdBackground(true);
    test::LogCapture log;
    auto ids = repo.update({a, b});
    // Still held: the answer came without waiting for the cloud.
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids[0], (CloudId{a.event->id(), a.recordId}));
    EXPECT_EQ(ids[1], (CloudId{b.event->id(), b.recordId}));
    EXPECT_TRUE(fake->stored(std::string(appZoneName)).empty());
    fake->holdBackground(false);
    fake->waitForBackgroundWork();
    auto batches = fake->batches();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].first.size(), 2u);
    EXPECT_EQ(batches[0].second.savePolicy, 1);
    EXPECT_EQ(batches[0].second.qualityOfService, 25);
    EXPECT_TRUE(batches[0].second.atomic);
    EXPECT_EQ(fake->stored(std::string(appZoneName)).size(), 2u);
    EXPECT_TRUE(log.lines().empty()) << "an update logs nothing";
}

TEST(CloudRepositoryDeathTest, DeletingAnUnlinkedIdStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto fake = std::make_shared<FakeCloudService>();
    CloudRepository repo(fake);
    EXPECT_DEATH(repo.deleteRecords({CloudId{Uuid::random(), std::nullopt}}), "");
}

} // namespace
} // namespace almanor
