#include "CloudServiceContract.h"
#include "FakeCloudService.h"

namespace almanor::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Fake, CloudServiceContract,
                         testing::Values(CloudServiceFactory{
                             "fake", [] { return std::make_shared<FakeCloudService>(); }}),
                         CloudServiceFactory::name);

CloudRecord named(const std::string& zone, const std::string& name) {
    CloudRecord r;
    r.recordType = "CD_Event";
    r.recordId = RecordId{name, zone};
    r.fields["CD_name"] = name;
    return r;
}

// The fake's own controls, which the logic's tests lean on.
TEST(FakeCloudService, RefusedBatchIsKeptUntilAFlushGetsItThrough) {
    FakeCloudService fake;
    fake.saveZone("z");
    fake.failAll(FakeCloudService::Op::modify, "offline");
    fake.modifyRecords({named("z", "a"), named("z", "b")}, ModifyOptions{});
    fake.waitForBackgroundWork();
    EXPECT_EQ(fake.unsentRecords().size(), 2u);
    fake.flushUnsent(); // still failing: kept
    EXPECT_EQ(fake.unsentRecords().size(), 2u);
    fake.clearFailures();
    fake.flushUnsent();
    EXPECT_TRUE(fake.unsentRecords().empty());
    EXPECT_EQ(fake.stored("z").size(), 2u);
}

TEST(FakeCloudService, HeldBatchIsGivenUpAsUnsentWhenWaitedFor) {
    FakeCloudService fake;
    fake.saveZone("z");
    fake.holdBackground(true);
    fake.modifyRecords({named("z", "a")}, ModifyOptions{});
    EXPECT_TRUE(fake.stored("z").empty());
    fake.waitForBackgroundWork();
    ASSERT_EQ(fake.unsentRecords().size(), 1u);
    EXPECT_EQ(fake.unsentRecords()[0].recordId.recordName, "a");
}

TEST(FakeCloudService, HookFailsOnlyTheChosenRecord) {
    FakeCloudService fake;
    fake.saveZone("z");
    fake.setFailureHook([](const FakeCloudService::Call& c) -> std::optional<std::string> {
        if (c.record && c.record->recordId.recordName == "bad") return "refused";
        return std::nullopt;
    });
    EXPECT_THROW(fake.saveRecord(named("z", "bad")), CloudError);
    EXPECT_NO_THROW(fake.saveRecord(named("z", "good")));
    EXPECT_EQ(fake.calls(FakeCloudService::Op::saveRecord), 2);
}

} // namespace
} // namespace almanor::test
