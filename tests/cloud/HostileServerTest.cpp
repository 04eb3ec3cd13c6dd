// The adapter against a scripted server that trickles, sends too much, or keeps the calendars
// on other hosts.
#include "CalDavServers.h"
#include "cloud/caldav/CalDavService.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>

namespace almanor::test {
namespace {

using caldav::CalDavService;
using namespace std::chrono_literals;

std::shared_ptr<CalDavService> over(const std::string& url, caldav::Limits limits = {}) {
    return std::make_shared<CalDavService>(
        url, "alice", [] { return std::string("s3cret"); }, limits);
}

CloudRecord record(const std::string& name) {
    CloudRecord r;
    r.recordType = "CD_Event";
    r.recordId = RecordId{name, "com.vostrel.almanor.zone"};
    r.fields["CD_name"] = std::string("Trip");
    r.fields["CD_date"] = Instant{std::chrono::sys_days{std::chrono::year{2027} / 3 / 14}};
    return r;
}

std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const CloudError& e) {
        return e.what();
    }
    return "no failure";
}

std::size_t countWith(const std::vector<std::string>& lines, const std::string& part) {
    return std::size_t(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.find(part) != std::string::npos;
    }));
}

TEST(HostileServer, ATricklingServerCostsOneDeadlinePerPass) {
    ScriptedDavServer server;
    server.setFault("fault=trickle every=0.4");
    // One byte every 0.4 s never trips the 2 s stall; the deadline ends the request.
    auto service = over(server.url(), {2s, 2s, 3s});
    const std::string first = failureOf([&] { service->discoverHome(); });
    EXPECT_NE(first.find("127.0.0.1:" + std::to_string(server.port())), std::string::npos) << first;
    EXPECT_NE(first.find("did not finish its answer within 3 s"), std::string::npos) << first;
    // The rest of the pass gives up without asking again.
    EXPECT_NE(failureOf([&] { service->createRecord(record("a"), "a.ics"); }), "no failure");
    EXPECT_NE(failureOf([&] { service->fetchAllZones(); }), "no failure");
    EXPECT_NE(
        failureOf([&] { service->deleteRecord("com.vostrel.almanor.zone", "b.ics", "\"e\""); }),
        "no failure");
    EXPECT_EQ(server.requests().size(), 1u);
    // The next pass asks again, once.
    service->startPass();
    EXPECT_NE(failureOf([&] { service->fetchAllZones(); }), "no failure");
    EXPECT_EQ(server.requests().size(), 2u);
}

// A server that reads a whole calendar before it answers the first listing after its start.
TEST(HostileServer, AWholeListingWaitsForItsFirstByteOtherRequestsDoNot) {
    ScriptedDavServer server;
    auto service = over(server.url(), {2s, 1s, 3s, 3s});
    const std::string zone = "com.vostrel.almanor.zone";
    service->saveZone(zone);
    server.setFault("fault=late every=2 method=REPORT");
    EXPECT_EQ(failureOf([&] { service->fetchChanges(zone, {}, {}); }), "no failure");
    server.setFault("fault=late every=4 method=REPORT");
    EXPECT_NE(failureOf([&] {
                  service->fetchChanges(zone, {}, {});
              }).find("did not begin its answer within 3 s"),
              std::string::npos);
    service->startPass();
    server.setFault("fault=late every=2 method=PROPFIND");
    EXPECT_NE(failureOf([&] { service->fetchAllZones(); }).find("nothing from the server for 1 s"),
              std::string::npos);
}

// A listing past the cap, or a captive portal's page where it should be: one clear line each.
TEST(HostileServer, AnswersPastTheCapOrInHtmlAreOneClearLine) {
    ScriptedDavServer server;
    caldav::Limits small;
    small.answerBytes = 1 << 20;
    auto service = over(server.url(), small);
    const std::string zone = "com.vostrel.almanor.zone";
    service->saveZone(zone);
    service->createRecord(record("a"), "a.ics");
    for (const auto& [fault, line] : std::vector<std::pair<std::string, std::string>>{
             {"big size=3000000", "larger than 1 MiB; refused"},
             {"html207", "unreadable answer"},
             {"html", "answered 200"}}) {
        server.setFault("method=REPORT fault=" + fault);
        const std::string why = failureOf([&] { service->performQuery("CD_Event", zone); });
        EXPECT_NE(why.find(line), std::string::npos) << why;
        EXPECT_EQ(why.find('\n'), std::string::npos) << why;
    }
    // Just below the cap the same answer is read; without a fault, the record.
    server.setFault("fault=big method=REPORT size=1000000");
    EXPECT_TRUE(service->performQuery("CD_Event", zone).empty());
    server.setFault("fault=pass");
    EXPECT_EQ(service->performQuery("CD_Event", zone).size(), 1u);
}

TEST(HostileServer, OnlyOriginsTheServerNamesGetCredentialsAndRedirectsGetNone) {
    // The configured server names a principal on a second host, which names a home on a third:
    // only what the configured server named is trusted, and remembered with the account.
    ScriptedDavServer third;
    ScriptedDavServer second({"--home", third.url() + "calendars/alice/"});
    ScriptedDavServer first({"--principal", second.url() + "principals/alice/"});
    auto service = over(first.url());
    EXPECT_EQ(service->discoverHome(), third.url() + "calendars/alice/");
    EXPECT_EQ(service->trustedOrigins(),
              std::vector<std::string>{"http://127.0.0.1:" + std::to_string(second.port())});
    auto later = over(first.url());
    later->trustOrigins(service->trustedOrigins());
    EXPECT_EQ(later->trustedOrigins(), service->trustedOrigins());
    EXPECT_NE(failureOf([&] { service->saveZone("com.vostrel.almanor.zone"); }), "no failure");
    EXPECT_EQ(countWith(second.requests(), " alice"), second.requests().size());

    // A redirect to another origin is followed without the credentials.
    first.setFault("fault=redirect to=" + third.url());
    const std::string why = failureOf([&] { over(first.url())->discoverHome(); });
    EXPECT_NE(why.find("refused the user name or password"), std::string::npos) << why;
    EXPECT_GT(third.requests().size(), 1u);
    EXPECT_EQ(countWith(third.requests(), " alice"), 0u);
}

} // namespace
} // namespace almanor::test
