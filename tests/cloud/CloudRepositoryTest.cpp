#include "cloud/CloudRepository.h"

#include "CloudServiceContract.h"
#include "FakeCloudService.h"
#include "LogCapture.h"

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

// Each way of failing is one line and not tried again until the network comes back.
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

TEST(CloudRepositoryFactory, OnlyNoAccountStopsCreationAndSuccessIsKept) {
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

TEST(CloudRepositoryFactory, WithoutAServiceThereIsNoAccount) {
    CloudRepositoryFactory none{[] { return std::shared_ptr<CloudService>(); }};
    EXPECT_EQ(none.get(), nullptr);
    EXPECT_EQ(none.existing(), nullptr);
    CloudRepositoryFactory empty{CloudServiceProvider{}};
    EXPECT_EQ(empty.get(), nullptr);
}

// The fake holds to what the cloud logic relies on, as the adapter over real servers does.
TEST(CloudServiceContract, Fake) {
    FakeCloudService fake;
    test::holdsToTheCloudContract(
        fake, [&] { return fake.requests(); }, [&] { return fake.bodiesFetched(); });
}

} // namespace
} // namespace almanor
