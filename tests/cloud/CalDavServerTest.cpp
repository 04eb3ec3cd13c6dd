#include "CalDavServers.h"
#include "CloudServiceContract.h"
#include "cloud/caldav/CalDavService.h"

#include <cstdlib>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace almanor::test {
namespace {

using caldav::CalDavService;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::ThrowsMessage;

// A service as "alice" (Xandikos takes any credentials).
std::shared_ptr<CalDavService> over(const std::string& url, caldav::Limits limits = {}) {
    return std::make_shared<CalDavService>(
        url, "alice", [] { return std::string("s3cret"); }, limits);
}

// The same contract over two real servers with sync-collection and a scripted one without it,
// which lists by getctag and getetag.
template <typename Server, typename... Options> void contractOver(Options... options) {
    Server server(options...);
    auto service = over(server.url());
    holdsToTheCloudContract(
        *service, [&] { return service->requestsSent(); }, [&] { return service->bodiesRead(); });
}

TEST(CloudServiceContract, RadicaleXandikosAndScriptedWithTagsOnly) {
    contractOver<RadicaleServer>();
    contractOver<XandikosServer>();
    contractOver<ScriptedDavServer>(std::vector<std::string>{"--no-sync-collection"});
}

const std::string appZone = "com.vostrel.almanor.zone";

// Edits an event of alice's collection through tests/support/calendar_app.py, as a user's calendar
// app would. No argument holds a single quote.
void calendarApp(const std::vector<std::string>& words) {
    std::string command = "/usr/bin/python3 " ALMANOR_TEST_SUPPORT_DIR "/calendar_app.py";
    for (const auto& word : words)
        command += " '" + word + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// A calendar app's event with what this program does not show: a zone and its time of day, an
// end, an alarm, a rule of its own with an exception, a moved occurrence and a property of its own.
const std::string dentist =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//a calendar app//EN\r\nBEGIN:VTIMEZONE\r\n"
    "TZID:Europe/Prague\r\nBEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nTZOFFSETFROM:+0100\r\n"
    "TZOFFSETTO:+0200\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\n"
    "BEGIN:STANDARD\r\nDTSTART:19701025T030000\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\n"
    "RRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n"
    "BEGIN:VEVENT\r\nUID:dentist-2\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Dentist\r\n"
    "DTSTART;TZID=Europe/Prague:20270412T093000\r\nDTEND;TZID=Europe/Prague:20270412T101500\r\n"
    "RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=10\r\nEXDATE;TZID=Europe/Prague:20270426T093000\r\n"
    "X-APP-NOTE:bring the card\\, the letter\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\n"
    "DESCRIPTION:Dentist\r\nTRIGGER:-PT15M\r\nEND:VALARM\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:dentist-2\r\nDTSTAMP:20260101T000000Z\r\n"
    "RECURRENCE-ID;TZID=Europe/Prague:20270510T093000\r\nSUMMARY:Dentist (moved)\r\n"
    "DTSTART;TZID=Europe/Prague:20270511T140000\r\nDTEND;TZID=Europe/Prague:20270511T144500\r\n"
    "END:VEVENT\r\nEND:VCALENDAR\r\n";

// Ours written in one zone is read where the local day differs: only what apps did counts. Then
// edits here keep what an app wrote, and a moved collection is found again once.
template <typename Server> void calendarAppsShareTheZone() {
    using namespace std::chrono;
    setenv("TZ", "Pacific/Auckland", 1);
    tzset();
    Server server;
    auto service = over(server.url());
    service->saveZone(appZone);
    CloudRecord ours = eventRecord(appZone, "ours", "Trip; day 1");
    std::map<std::string, std::string> known{{"ours.ics", service->createRecord(ours, "ours.ics")}};
    setenv("TZ", "America/New_York", 1);
    tzset();
    ZoneChanges untouched = service->fetchChanges(appZone, {}, known);
    EXPECT_TRUE(untouched.changed.empty());
    const std::string collection = service->discoverHome() + appZone + "/";
    caldav::HttpClient http(server.url(), "alice", [] { return std::string("s3cret"); });
    const auto put =
        http.perform({"PUT", collection + "dentist.ics", {"Content-Type: text/calendar"}, dentist});
    ASSERT_EQ(put.status / 100, 2);
    calendarApp(
        {server.url(), "alice", "s3cret", collection, "ours.ics", "Trip, renamed in the app", "3"});
    ZoneChanges edited = service->fetchChanges(appZone, untouched.token, known);
    ASSERT_EQ(edited.changed.size(), 2u);
    std::map<std::string, CloudRecord> read;
    for (const auto& c : edited.changed) {
        read[c.resource] = c.record;
        known[c.resource] = c.etag;
    }
    EXPECT_EQ(read.at("ours.ics").fields.at("CD_name"),
              FieldValue(std::string("Trip, renamed in the app")));
    EXPECT_EQ(std::get<Instant>(read.at("ours.ics").fields.at("CD_date")),
              std::get<Instant>(ours.fields.at("CD_date")) + hours(72));
    EXPECT_EQ(read.at("dentist.ics").recordId.recordName, "dentist-2");
    EXPECT_EQ(std::get<Instant>(read.at("dentist.ics").fields.at("CD_date")),
              Instant{sys_days{year{2027} / 4 / 12} + hours{7} + minutes{30}}); // summer time
    EXPECT_TRUE(service->fetchChanges(appZone, edited.token, known).changed.empty());

    // Renamed, then moved two days here: each time only that changes.
    auto stored = [&] {
        std::string text = http.perform({"GET", collection + "dentist.ics"}).body;
        for (auto at = text.find("\r\n "); at != std::string::npos; at = text.find("\r\n ", at))
            text.erase(at, 3);
        return text;
    };
    CloudRecord renamed = read.at("dentist.ics");
    renamed.fields["CD_name"] = std::string("Dentist, Dr. Nováková; 🦷");
    renamed.fields["CD_alias"] = std::string("Teeth");
    service->replaceRecord(renamed, "dentist.ics", known.at("dentist.ics"));
    auto held = service->fetchRecord(appZone, "dentist.ics");
    EXPECT_EQ(held->record.fields.at("CD_name"), renamed.fields.at("CD_name"));
    const std::string afterRename = stored();
    held->record.fields["CD_date"] = std::get<Instant>(held->record.fields.at("CD_date")) + 48h;
    service->replaceRecord(held->record, "dentist.ics", held->etag);
    const std::string afterMove = stored();
    for (const auto& [text, day] : {std::pair{afterRename, "12"}, std::pair{afterMove, "14"}})
        for (const std::string& kept :
             {std::string("DTSTART;TZID=Europe/Prague:202704") + day + "T093000",
              std::string("DTEND;TZID=Europe/Prague:202704") + day + "T101500",
              std::string("SUMMARY:Dentist\\, Dr. Nováková\\; 🦷"),
              std::string("BEGIN:VTIMEZONE"), std::string("TRIGGER:-PT15M"),
              std::string("COUNT=10"), std::string("EXDATE;TZID=Europe/Prague:20270426T093000"),
              std::string("RECURRENCE-ID;TZID=Europe/Prague:20270510T093000"),
              std::string("SUMMARY:Dentist (moved)"),
              std::string("X-APP-NOTE:bring the card\\, the letter")})
            EXPECT_NE(text.find(kept), std::string::npos) << kept << " in\n" << text;

    // A collection remembered where it no longer is runs discovery once; the home found is told.
    CalDavService moved(server.url(), "alice", [] { return std::string("s3cret"); });
    moved.rememberHome(server.url() + "alice/somewhere-old/");
    std::string heardHome;
    moved.setHomeListener(
        [&](const std::string& home, const std::vector<std::string>&) { heardHome = home; });
    EXPECT_EQ(moved.fetchChanges(appZone, {}, {}).changed.size(), 2u);
    EXPECT_EQ(heardHome, service->discoverHome());
    // Remembered and right: an ordinary pull asks nothing but the listing.
    CalDavService later(server.url(), "alice", [] { return std::string("s3cret"); });
    later.rememberHome(heardHome);
    later.fetchChanges(appZone, {}, {});
    EXPECT_EQ(later.requestsSent(), 2); // the listing, the bodies
    // A zone missing even after discovery is ZoneMissing; the next try discovers nothing again.
    EXPECT_THROW(later.fetchChanges("no-such-zone", {}, {}), ZoneMissing);
    const int before = later.requestsSent();
    EXPECT_THROW(later.fetchChanges("no-such-zone", {}, {}), ZoneMissing);
    EXPECT_EQ(later.requestsSent() - before, 1);
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(CalendarApps, ShareTheZoneWithThisProgram) {
    calendarAppsShareTheZone<RadicaleServer>();
    calendarAppsShareTheZone<XandikosServer>();
}

TEST(CalDavAccount, StatusNeedsNoNetworkAndReportsPasswordFailures) {
    CalDavService none("", "", nullptr);
    EXPECT_EQ(none.accountStatus(), AccountStatus::noAccount);
    // Nothing listens there: the status still answers, from the password alone.
    CalDavService ok("http://127.0.0.1:9/", "u", [] { return std::string("pw"); });
    EXPECT_EQ(ok.accountStatus(), AccountStatus::available);
    // Nor does a resource name that names no event: it is refused before any request.
    const CloudRecord r = eventRecord(appZone, "r", "R");
    for (const std::string bad : {"", ".ics", "..", "a/b.ics", "a\nb.ics", "\xff.ics"}) {
        EXPECT_THROW(ok.createRecord(r, bad), CloudError);
        EXPECT_THROW(ok.replaceRecord(r, bad, "\"e\""), CloudError);
        EXPECT_THROW(ok.deleteRecord(appZone, bad, "\"e\""), CloudError);
        EXPECT_THROW(ok.fetchRecord(appZone, bad), CloudError);
    }
    EXPECT_EQ(ok.requestsSent(), 0);
    // A source that fails (a locked keyring) is asked once per service, the status included.
    int asked = 0;
    CalDavService locked("http://127.0.0.1:9/", "u", [&]() -> std::string {
        ++asked;
        throw CloudError("the keyring is locked");
    });
    EXPECT_THROW(locked.accountStatus(), CloudError);
    EXPECT_THAT([&] { locked.discoverHome(); }, ThrowsMessage<CloudError>("the keyring is locked"));
    EXPECT_EQ(asked, 1);
}

TEST(HostileServer, LateTricklingOversizedHtmlOrCancelledAnswersEndInOneBoundedClearLine) {
    ScriptedDavServer server;
    // A listing past the cap, or a captive portal's page where it should be: one clear line each.
    caldav::Limits small;
    small.answerBytes = 1 << 20;
    auto service = over(server.url(), small);
    service->saveZone(appZone);
    service->createRecord(eventRecord(appZone, "a", "Trip"), "a.ics");
    for (const auto& [fault, line] : std::vector<std::pair<std::string, std::string>>{
             {"big size=3000000", "larger than 1 MiB; refused"},
             {"html207", "unreadable answer"},
             {"html", "answered 200"}}) {
        server.setFault("method=REPORT fault=" + fault);
        EXPECT_THAT([&] { service->performQuery("CD_Event", appZone); },
                    ThrowsMessage<CloudError>(
                        testing::AllOf(HasSubstr(line), testing::Not(HasSubstr("\n")))));
    }
    // Just below the cap the same answer is read; without a fault, the record.
    server.setFault("fault=big method=REPORT size=1000000");
    EXPECT_TRUE(service->performQuery("CD_Event", appZone).empty());
    server.setFault("fault=pass");
    EXPECT_EQ(service->performQuery("CD_Event", appZone).size(), 1u);
    // Bodies that are no event are listed as unreadable; the rest is read.
    const std::string collection = service->discoverHome() + appZone + "/";
    caldav::HttpClient http(server.url(), "alice", [] { return std::string("s3cret"); });
    for (const auto& [name, body] : std::map<std::string, std::string>{
             {"broken.ics", "BEGIN:VCALENDAR\r\nthis is not iCalendar\r\n"},
             {"task.ics", "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VTODO\r\nUID:t\r\n"
                          "END:VTODO\r\nEND:VCALENDAR\r\n"}})
        ASSERT_EQ(http.perform({"PUT", collection + name, {}, body}).status, 201);
    ZoneChanges all = service->fetchChanges(appZone, {}, {});
    ASSERT_EQ(all.changed.size(), 1u);
    EXPECT_EQ(all.changed[0].resource, "a.ics");
    EXPECT_THAT(all.unreadable,
                testing::ElementsAre(testing::Key("broken.ics"), testing::Key("task.ics")));

    // A server reads a whole calendar before it answers the first listing after its start: a
    // whole listing waits for its first byte, other requests do not.
    const caldav::Limits quick{2s, 1s, 3s, 3s};
    service = over(server.url(), quick);
    server.setFault("fault=late every=2 method=REPORT");
    EXPECT_NO_THROW(service->fetchChanges(appZone, {}, {}));
    server.setFault("fault=late every=4 method=REPORT");
    EXPECT_THAT([&] { service->fetchChanges(appZone, {}, {}); },
                ThrowsMessage<CloudError>(HasSubstr("did not begin its answer within 3 s")));
    service->startPass();
    server.setFault("fault=late every=2 method=PROPFIND");
    EXPECT_THAT([&] { service->fetchAllZones(); },
                ThrowsMessage<CloudError>(HasSubstr("nothing from the server for 1 s")));

    // One byte every 0.4 s never trips the stall; the deadline ends the request.
    server.setFault("fault=trickle every=0.4");
    service = over(server.url(), quick);
    const std::size_t asked = server.requests().size();
    EXPECT_THAT([&] { service->discoverHome(); },
                ThrowsMessage<CloudError>(
                    testing::AllOf(HasSubstr("127.0.0.1:" + std::to_string(server.port())),
                                   HasSubstr("did not finish its answer within 3 s"))));
    // The rest of the pass gives up without asking again.
    EXPECT_THROW(service->createRecord(eventRecord(appZone, "b", "B"), "b.ics"), CloudError);
    EXPECT_EQ(server.requests().size(), asked + 1);
    // The next pass asks again, once.
    service->startPass();
    EXPECT_THROW(service->fetchAllZones(), CloudError);
    EXPECT_EQ(server.requests().size(), asked + 2);

    // A silent server: cancel() ends the request within a second, and new requests fail at once,
    // a new pass's included.
    server.setFault("fault=hang");
    service = over(server.url());
    auto pull = std::async(std::launch::async, [&] { service->fetchChanges(appZone, {}, {}); });
    std::this_thread::sleep_for(500ms);
    const auto cancelled = std::chrono::steady_clock::now();
    service->cancel();
    EXPECT_THROW(pull.get(), CloudError);
    EXPECT_LT(std::chrono::steady_clock::now() - cancelled, 1s);
    service->startPass();
    server.setFault("fault=pass");
    const auto before = server.requests().size();
    EXPECT_THROW(service->fetchChanges(appZone, {}, {}), CloudError);
    EXPECT_EQ(server.requests().size(), before);
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
    EXPECT_THROW(service->saveZone(appZone), CloudError);
    EXPECT_THAT(second.requests(), testing::Each(HasSubstr(" alice")));

    // A redirect to another origin is followed without the credentials.
    first.setFault("fault=redirect to=" + third.url());
    EXPECT_THAT([&] { over(first.url())->discoverHome(); },
                ThrowsMessage<CloudError>(HasSubstr("refused the user name or password")));
    EXPECT_GT(third.requests().size(), 1u);
    EXPECT_THAT(third.requests(), testing::Each(testing::Not(HasSubstr(" alice"))));
}

} // namespace
} // namespace almanor::test
