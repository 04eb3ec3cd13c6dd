#include "CalDavServers.h"
#include "CloudServiceContract.h"
#include "cloud/caldav/CalDavService.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

namespace almanor::test {
namespace {

using caldav::CalDavService;
using namespace std::chrono_literals;

// A service over its own server; the server outlives the service that talks to it.
template <typename Server>
std::shared_ptr<CalDavService> serviceOver(std::string user, std::string password,
                                           std::vector<std::string> options = {},
                                           Server** server = nullptr) {
    struct Holder {
        explicit Holder(std::vector<std::string> o) : server(std::move(o)) {}
        Server server;
        std::unique_ptr<CalDavService> service;
    };
    auto holder = std::make_shared<Holder>(std::move(options));
    holder->service = std::make_unique<CalDavService>(holder->server.url(), user,
                                                      [password] { return password; });
    if (server)
        *server = &holder->server;
    return std::shared_ptr<CalDavService>(holder, holder->service.get());
}

int requestsOf(CloudService& s) {
    return dynamic_cast<CalDavService&>(s).requestsSent();
}
int bodiesOf(CloudService& s) {
    return dynamic_cast<CalDavService&>(s).bodiesRead();
}

// The same contract over two real servers with sync-collection and a scripted one without it,
// which lists by getctag and getetag.
INSTANTIATE_TEST_SUITE_P(
    Servers, CloudServiceContract,
    testing::Values(
        CloudServiceFactory{"radicale",
                            [] { return serviceOver<RadicaleServer>("alice", "s3cret"); },
                            requestsOf, bodiesOf},
        CloudServiceFactory{"xandikos", [] { return serviceOver<XandikosServer>("user", "any"); },
                            requestsOf, bodiesOf},
        CloudServiceFactory{"tags_only",
                            [] {
                                return serviceOver<ScriptedDavServer>("alice", "s3cret",
                                                                      {"--no-sync-collection"});
                            },
                            requestsOf, bodiesOf}),
    CloudServiceFactory::name);

CloudRecord eventRecord(const std::string& zone, const std::string& name, std::string title) {
    using namespace std::chrono;
    CloudRecord r;
    r.recordType = "CD_Event";
    r.recordId = RecordId{name, zone};
    r.fields["CD_eventId"] = std::string("0B1C2D3E-0000-4000-8000-000000000001");
    r.fields["CD_name"] = std::move(title);
    r.fields["CD_date"] = Instant{sys_days{year{2027} / 1 / 31} + hours{9} + minutes{30}};
    r.fields["CD_recurring"] = std::int64_t{2};
    r.modified = Instant{sys_days{year{2026} / 11 / 1} + milliseconds{5}};
    return r;
}

const std::string appZone = "com.vostrel.almanor.zone";

// Runs tests/support/calendar_app.py (python3-caldav) on alice's collection, as a user's calendar
// app would act on the zone. No argument holds a single quote.
void calendarApp(const std::string& url, const std::string& collection,
                 const std::vector<std::string>& action) {
    std::string command = "/usr/bin/python3 " ALMANOR_TEST_SUPPORT_DIR "/calendar_app.py";
    for (const auto& word : std::vector<std::string>{url, "alice", "s3cret", collection})
        command += " '" + word + "'";
    for (const auto& word : action)
        command += " '" + word + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(CalendarApps, AnAppsOwnEventAndItsEditOfOursReadOnceAsTheChange) {
    // Ours written in one zone, read where the local day differs: only what the app moved counts.
    setenv("TZ", "Pacific/Auckland", 1);
    tzset();
    RadicaleServer* server = nullptr;
    auto service = serviceOver<RadicaleServer>("alice", "s3cret", {}, &server);
    service->saveZone(appZone);
    CloudRecord ours = eventRecord(appZone, "ours", "Trip; day 1");
    std::map<std::string, std::string> known{{"ours.ics", service->createRecord(ours, "ours.ics")}};
    setenv("TZ", "America/New_York", 1);
    tzset();
    ZoneChanges untouched = service->fetchChanges(appZone, {}, known);
    EXPECT_TRUE(untouched.changed.empty());
    const std::string collection = service->discoverHome() + appZone + "/";
    calendarApp(server->url(), collection,
                {"create", "dentist-uid-1", "Dentist, 9:30", "20270410"});
    calendarApp(server->url(), collection, {"edit", "ours.ics", "Trip, renamed in the app", "3"});
    ZoneChanges edited = service->fetchChanges(appZone, untouched.token, known);
    ASSERT_EQ(edited.changed.size(), 2u);
    std::map<std::string, CloudRecord> read;
    for (const auto& c : edited.changed) {
        read[c.record.recordId.recordName] = c.record;
        known[c.resource] = c.etag;
    }
    const CloudRecord& app = read.at("dentist-uid-1");
    EXPECT_EQ(app.fields.at("CD_name"), FieldValue(std::string("Dentist, 9:30")));
    using namespace std::chrono;
    EXPECT_EQ(std::get<Instant>(app.fields.at("CD_date")),
              Instant{sys_days{year{2027} / 4 / 10} + hours{4}}); // midnight in New York
    const CloudRecord& r = read.at("ours");
    EXPECT_EQ(r.fields.at("CD_name"), FieldValue(std::string("Trip, renamed in the app")));
    EXPECT_EQ(std::get<Instant>(r.fields.at("CD_date")),
              std::get<Instant>(ours.fields.at("CD_date")) + std::chrono::hours(72));
    EXPECT_TRUE(service->fetchChanges(appZone, edited.token, known).changed.empty());
    setenv("TZ", "UTC", 1);
    tzset();
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

template <typename Server>
void editsKeepWhatAnAppWrote(const std::string& user, const std::string& password) {
    using namespace std::chrono;
    Server* server = nullptr;
    auto service = serviceOver<Server>(user, password, {}, &server);
    service->saveZone(appZone);
    const std::string url = service->discoverHome() + appZone + "/dentist.ics";
    caldav::HttpClient http(server->url(), user, [password] { return password; });
    ASSERT_EQ(http.perform({"PUT", url, {"Content-Type: text/calendar"}, dentist}).status / 100, 2);
    auto stored = [&] {
        std::string text = http.perform({"GET", url}).body;
        for (auto at = text.find("\r\n "); at != std::string::npos; at = text.find("\r\n ", at))
            text.erase(at, 3);
        return text;
    };
    auto held = service->fetchRecord(appZone, "dentist.ics");
    ASSERT_TRUE(held);
    EXPECT_EQ(std::get<Instant>(held->record.fields.at("CD_date")),
              Instant{sys_days{year{2027} / 4 / 12} + hours{7} + minutes{30}}); // summer time
    CloudRecord renamed = held->record;
    renamed.fields["CD_name"] = std::string("Dentist, Dr. Nováková; 🦷");
    renamed.fields["CD_alias"] = std::string("Teeth");
    service->replaceRecord(renamed, "dentist.ics", held->etag);
    // Renamed, then moved two days here: each time only that changes.
    held = service->fetchRecord(appZone, "dentist.ics");
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
              std::string("INTERVAL=2"), std::string("COUNT=10"),
              std::string("EXDATE;TZID=Europe/Prague:20270426T093000"),
              std::string("RECURRENCE-ID;TZID=Europe/Prague:20270510T093000"),
              std::string("SUMMARY:Dentist (moved)"),
              std::string("X-APP-NOTE:bring the card\\, the letter")})
            EXPECT_NE(text.find(kept), std::string::npos) << kept << " in\n" << text;
}

TEST(CalendarApps, EditsHereKeepWhatAnAppWroteInTheEvent) {
    editsKeepWhatAnAppWrote<RadicaleServer>("alice", "s3cret");
    editsKeepWhatAnAppWrote<XandikosServer>("user", "any");
}

TEST(CalendarApps, AnUnreadableBodyIsListedAsSuchAndTheRestIsRead) {
    ScriptedDavServer* server = nullptr;
    auto service = serviceOver<ScriptedDavServer>("alice", "s3cret", {}, &server);
    service->saveZone(appZone);
    service->createRecord(eventRecord(appZone, "fine", "Fine"), "fine.ics");
    const std::string collection = service->discoverHome() + appZone + "/";
    caldav::HttpClient http(server->url(), "alice", [] { return std::string("s3cret"); });
    for (const auto& [name, body] : std::map<std::string, std::string>{
             {"broken.ics", "BEGIN:VCALENDAR\r\nthis is not iCalendar\r\n"},
             {"task.ics", "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VTODO\r\nUID:t\r\n"
                          "END:VTODO\r\nEND:VCALENDAR\r\n"}})
        ASSERT_EQ(http.perform({"PUT", collection + name, {}, body}).status, 201);
    ZoneChanges all = service->fetchChanges(appZone, {}, {});
    ASSERT_EQ(all.changed.size(), 1u);
    EXPECT_EQ(all.changed[0].resource, "fine.ics");
    std::set<std::string> unreadable;
    for (const auto& [resource, reason] : all.unreadable)
        unreadable.insert(resource);
    EXPECT_EQ(unreadable, (std::set<std::string>{"broken.ics", "task.ics"}));
}

TEST(CalDavAccount, AMovedCollectionRunsDiscoveryOnceAndIsRemembered) {
    RadicaleServer server;
    std::string heardHome;
    {
        CalDavService first(server.url(), "alice", [] { return std::string("s3cret"); });
        first.saveZone(appZone);
        first.createRecord(eventRecord(appZone, "a", "A"), "a.ics");
    }
    CalDavService service(server.url(), "alice", [] { return std::string("s3cret"); });
    service.rememberHome(server.url() + "alice/somewhere-old/");
    service.setHomeListener(
        [&](const std::string& home, const std::vector<std::string>&) { heardHome = home; });
    EXPECT_EQ(service.fetchChanges(appZone, {}, {}).changed.size(), 1u);
    EXPECT_EQ(heardHome, server.url() + "alice/");
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
}

TEST(CalDavAccount, CancelEndsARequestToASilentServerWithinASecond) {
    ScriptedDavServer server;
    CalDavService service(server.url(), "alice", [] { return std::string("s3cret"); });
    service.rememberHome(server.url() + "calendars/alice/");
    server.setFault("fault=hang");
    std::atomic<bool> failed = false;
    std::chrono::steady_clock::time_point ended;
    std::thread pull([&] {
        try {
            service.fetchChanges(appZone, {}, {});
        } catch (const CloudError&) {
            failed = true;
        }
        ended = std::chrono::steady_clock::now();
    });
    std::this_thread::sleep_for(500ms);
    const auto cancelled = std::chrono::steady_clock::now();
    service.cancel();
    pull.join();
    EXPECT_TRUE(failed);
    EXPECT_LT(ended - cancelled, 1s);
    // New requests fail at once, a new pass included.
    service.startPass();
    server.setFault("fault=pass");
    const auto before = server.requests().size();
    EXPECT_THROW(service.fetchChanges(appZone, {}, {}), CloudError);
    EXPECT_EQ(server.requests().size(), before);
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
    try {
        locked.discoverHome();
        ADD_FAILURE();
    } catch (const CloudError& e) {
        EXPECT_STREQ(e.what(), "the keyring is locked");
    }
    EXPECT_EQ(asked, 1);
}

} // namespace
} // namespace almanor::test
