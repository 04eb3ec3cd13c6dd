#include "CalDavServers.h"
#include "CloudServiceContract.h"
#include "cloud/caldav/CalDavService.h"

#include <atomic>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <thread>

namespace almanor::test {
namespace {

using caldav::CalDavService;

template <typename Server>
std::shared_ptr<CloudService> serviceOver(std::string user, std::string password) {
    struct Holder {
        Server server;
        std::unique_ptr<CalDavService> service;
    };
    auto holder = std::make_shared<Holder>();
    holder->service = std::make_unique<CalDavService>(holder->server.url(), user,
                                                      [password] { return password; });
    // The server outlives the service that talks to it.
    return std::shared_ptr<CloudService>(holder, holder->service.get());
}

INSTANTIATE_TEST_SUITE_P(
    Servers, CloudServiceContract,
    testing::Values(
        CloudServiceFactory{"radicale",
                            [] { return serviceOver<RadicaleServer>("alice", "s3cret"); }},
        CloudServiceFactory{"xandikos", [] { return serviceOver<XandikosServer>("user", "any"); }}),
    CloudServiceFactory::name);

CloudRecord eventRecord(const std::string& zone, const std::string& name, std::string title) {
    using namespace std::chrono;
    CloudRecord r;
    r.recordType = "CD_Event";
    r.recordId = RecordId{name, zone};
    r.fields["CD_name"] = std::move(title);
    r.fields["CD_date"] = Instant{sys_days{year{2027} / 1 / 31}};
    r.fields["CD_recurring"] = std::int64_t{2};
    return r;
}

class CalDavServers : public testing::TestWithParam<CloudServiceFactory> {};

TEST_P(CalDavServers, ZoneCreationTwiceAndTheUsersOtherEventsBeside) {
    auto service = GetParam().make();
    const std::string zone = "com.vostrel.almanor.zone";
    service->saveZone(zone);
    service->saveZone(zone); // each server's "exists" answer is success
    auto zones = service->fetchAllZones();
    auto it = std::find_if(zones.begin(), zones.end(),
                           [&](const RecordZone& z) { return z.name == zone; });
    ASSERT_NE(it, zones.end());
    EXPECT_NE(it->url.find("/com.vostrel.almanor.zone/"), std::string::npos);

    const std::vector<std::string> hostile = {"Trip, day 1; \\back\\ \"q\"", "multi\nline\n\nend",
                                              "🎉🎂 " + std::string(200, 'e') + "é",
                                              std::string(90, 'x') + "€€€€€€€€€€", "x-ical:\\N,;"};
    for (std::size_t i = 0; i < hostile.size(); ++i)
        service->saveRecord(eventRecord(zone, "rec-" + std::to_string(i), hostile[i]));
    auto back = service->performQuery("CD_Event", zone);
    ASSERT_EQ(back.size(), hostile.size());
    for (const auto& r : back) {
        std::size_t i = std::stoul(r.recordId.recordName.substr(4));
        EXPECT_EQ(r, eventRecord(zone, r.recordId.recordName, hostile[i]))
            << r.recordId.recordName << ": " << std::get<std::string>(r.fields.at("CD_name"));
    }
}

TEST_P(CalDavServers, BatchedSavesThatCannotGoThroughAreKeptAndSentLater) {
    auto service = GetParam().make();
    // A zone that does not exist yet: the server refuses the PUTs.
    const std::string zone = "later-zone";
    service->modifyRecords({eventRecord(zone, "a", "A"), eventRecord(zone, "b", "B")},
                           ModifyOptions{});
    service->waitForBackgroundWork();
    EXPECT_EQ(service->unsentRecords().size(), 2u);
    service->saveZone(zone);
    service->flushUnsent();
    service->waitForBackgroundWork();
    EXPECT_TRUE(service->unsentRecords().empty());
    EXPECT_EQ(service->performQuery("CD_Event", zone).size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, CalDavServers,
    testing::Values(
        CloudServiceFactory{"radicale",
                            [] { return serviceOver<RadicaleServer>("alice", "s3cret"); }},
        CloudServiceFactory{"xandikos", [] { return serviceOver<XandikosServer>("user", "any"); }}),
    CloudServiceFactory::name);

TEST(CalDavAccount, StatusNeedsNoNetworkAndReportsPasswordFailures) {
    CalDavService none("", "", nullptr);
    EXPECT_EQ(none.accountStatus(), AccountStatus::noAccount);
    // Nothing listens there: the status still answers, from the password alone.
    CalDavService ok("http://127.0.0.1:9/", "u", [] { return std::string("pw"); });
    EXPECT_EQ(ok.accountStatus(), AccountStatus::available);
    CalDavService locked("http://127.0.0.1:9/", "u",
                         []() -> std::string { throw CloudError("the keyring is locked"); });
    try {
        locked.accountStatus();
        FAIL();
    } catch (const CloudError& e) {
        EXPECT_STREQ(e.what(), "the keyring is locked");
    }
}

TEST(CalDavAccount, WrongPasswordIsOneClearErrorWithoutThePassword) {
    RadicaleServer server;
    CalDavService service(server.url(), "alice", [] { return std::string("wrong-pass-123"); });
    try {
        service.discoverHome();
        FAIL();
    } catch (const CloudError& e) {
        EXPECT_EQ(std::string(e.what()).find("wrong-pass-123"), std::string::npos);
        EXPECT_NE(std::string(e.what()).find("refused"), std::string::npos) << e.what();
    }
    CalDavService right(server.url(), "alice", [] { return std::string("s3cret"); });
    EXPECT_NE(right.discoverHome().find("/alice/"), std::string::npos);
}

TEST(CalDavAccount, ASilentServerCostsOneBoundedWaitPerPass) {
    // A socket that takes connections, counts them and never answers.
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(fd, 8), 0);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    std::atomic<int> connections = 0;
    std::atomic<bool> stop = false;
    std::vector<int> held;
    std::thread acceptor([&] {
        while (!stop) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 50) == 1) {
                held.push_back(::accept(fd, nullptr, nullptr));
                ++connections;
            }
        }
    });
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/";
    caldav::Limits quick{std::chrono::seconds(2), std::chrono::seconds(2),
                         std::chrono::seconds(120), std::chrono::seconds(0)};
    CalDavService service(
        url, "u", [] { return std::string("pw"); }, quick);
    EXPECT_THROW(service.discoverHome(), CloudError);
    EXPECT_EQ(connections, 1);
    // Right after that, the rest of the work gives up without waiting again, and keeps its records.
    EXPECT_THROW(service.saveRecord(eventRecord("z", "x", "X")), CloudError);
    service.modifyRecords({eventRecord("z", "a", "A"), eventRecord("z", "b", "B")},
                          ModifyOptions{});
    service.waitForBackgroundWork();
    EXPECT_EQ(service.unsentRecords().size(), 2u);
    EXPECT_EQ(connections, 1);
    // The next pass asks the server again, once.
    service.flushUnsent();
    service.waitForBackgroundWork();
    EXPECT_EQ(service.unsentRecords().size(), 2u);
    EXPECT_EQ(connections, 2);
    stop = true;
    acceptor.join();
    for (int c : held)
        ::close(c);
    ::close(fd);
}

} // namespace
} // namespace almanor::test
