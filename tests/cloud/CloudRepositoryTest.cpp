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
        {"status fails", [](FakeCloudService& f) { f.failAll(Op::accountStatus); },
         "Failed to check status of cloud: injected failure before the call"},
        {"no account", [](FakeCloudService& f) { f.setAccountStatus(AccountStatus::noAccount); },
         "No CalDAV account configured"},
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        Factory f;
        c.arrange(*f.fake);
        EXPECT_EQ(f.factory.get(), nullptr) << c.what;
        int asked = f.fake->calls(Op::accountStatus);
        EXPECT_EQ(f.factory.get(), nullptr) << c.what;
        EXPECT_EQ(f.fake->calls(Op::accountStatus), asked)
            << c.what << ": asked again after giving up";
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
        EXPECT_EQ(f.fake->requests(), 0);
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
    EXPECT_EQ(log.lines(), (Lines{"No CalDAV account configured", "No CalDAV account configured"}));
}

TEST(CloudRepository, ZoneThatCannotBeCreatedIsOneLineAndTheFactoryGivesUp) {
    test::LogCapture log;
    Factory f;
    f.fake->setFailureHook([](const FakeCloudService::Call& c) {
        return c.op == Op::saveZone ? FakeCloudService::Failure::before
                                    : FakeCloudService::Failure::none;
    });
    auto cloud = f.factory.get();
    ASSERT_NE(cloud, nullptr);
    EXPECT_FALSE(cloud->saveZone());
    f.factory.giveUp();
    EXPECT_EQ(f.factory.get(), nullptr);
    EXPECT_EQ(log.lines(), Lines{"Failed to create zone: injected failure before the call"});
    f.fake->clearFailures();
    f.factory.networkCameBack();
    ASSERT_NE(f.factory.get(), nullptr);
    EXPECT_TRUE(f.factory.get()->saveZone());
}

} // namespace
} // namespace almanor
