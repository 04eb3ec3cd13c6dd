// The command line as scripts and status bars use it: the real binary over a real store and
// settings file in a temporary home.
#include "TempDir.h"
#include "model/CivilCalendar.h"
#include "platform/Clock.h"
#include "platform/Signals.h"
#include "platform/Uuid.h"
#include "storage/LocalRepository.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

using namespace almanor;
using namespace std::chrono;
using Json = nlohmann::json;

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

local_days localDay(const std::string& zone, Instant t) {
    return floor<days>(CivilCalendar::forZone(zone)->localTime(t));
}

// Today's date in New York, plus some days, as the user would type it.
std::string localDate(int plusDays) {
    year_month_day ymd{localDay("America/New_York", SystemClock().now()) + days(plusDays)};
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()));
    return buffer;
}

class CliTest : public testing::Test {
  protected:
    // Runs almanor in the temporary home for at most a minute.
    Result run(std::vector<std::string> args, const std::string& tz = "America/New_York",
               const std::vector<std::string>& language = {"LANG=C.UTF-8"}) const {
        std::vector<std::string> env = {"HOME=" + home.path().string(),
                                        "XDG_CONFIG_HOME=" + (home / "config").string(),
                                        "XDG_DATA_HOME=" + (home / "data").string(), "TZ=" + tz,
                                        std::string("LOCPATH=") + ALMANOR_TEST_LOCALES};
        env.insert(env.end(), language.begin(), language.end());
        for (char** e = environ; *e != nullptr; ++e) {
            std::string_view v = *e;
            if (v.starts_with("ASAN_") || v.starts_with("UBSAN_") || v.starts_with("LSAN_")) {
                env.emplace_back(v);
            }
        }
        args.insert(args.begin(), {"timeout", "60", ALMANOR_BINARY});
        auto pointers = [](std::vector<std::string>& texts) {
            std::vector<char*> p;
            for (auto& t : texts) {
                p.push_back(t.data());
            }
            p.push_back(nullptr);
            return p;
        };
        std::string n = std::to_string(calls++);
        auto out = output / ("out" + n), err = output / ("err" + n);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
        pid_t pid = 0;
        EXPECT_EQ(posix_spawnp(&pid, "timeout", &actions, nullptr, pointers(args).data(),
                               pointers(env).data()),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                test::readFile(out), test::readFile(err)};
    }
    std::string add(std::vector<std::string> args) const {
        args.insert(args.begin(), {"events", "add"});
        Result r = run(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out.size(), 37u);
        return r.out.substr(0, 36);
    }
    Json list(const std::string& tz = "America/New_York") const {
        Result r = run({"events", "list", "--json"}, tz);
        EXPECT_EQ(r.status, 0) << r.err;
        return Json::parse(r.out);
    }

    void SetUp() override { today = localDate(0); }
    // Counting relative to today breaks if midnight passes during the test.
    void TearDown() override {
        if (today != localDate(0)) {
            GTEST_SKIP() << "midnight passed during the test";
        }
    }

    test::TempDir home;
    test::TempDir output;
    mutable std::atomic<int> calls = 0;
    std::string today;
};

TEST_F(CliTest, AddListEditAndDeleteAsAUserWould) {
    std::string trip =
        add({"  Trip to Prague \n", "--date", localDate(12), "--alias", " Two\nlines\t "});
    std::string rent = add({"Rent", "--date", "2024-01-31", "--schedule", "monthly", "--count",
                            "monday-after", "--alias", "   "});
    EXPECT_EQ(trip, Uuid::parse(trip)->uuidString());

    Json events = list();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["id"], rent); // by date: Rent's first date lies in the past
    EXPECT_EQ(events[0]["alias"], nullptr);
    EXPECT_EQ(events[0]["date"], "2024-01-31T05:00:00.000Z");
    EXPECT_EQ(events[0]["schedule"], "monthly");
    EXPECT_EQ(events[0]["count"], "monday-after");
    EXPECT_GT(events[0]["days"].get<int>(), 0);
    EXPECT_EQ(events[1]["name"], "Trip to Prague");
    EXPECT_EQ(events[1]["alias"], "Two\nlines");
    EXPECT_EQ(events[1]["title"], "Two lines 12 days");
    EXPECT_EQ(events[1]["occurrence"], events[1]["date"]);
    // One line per event: line breaks and controls escaped.
    Result text = run({"events", "list"});
    EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 2);
    EXPECT_NE(text.out.find(trip + "  " + localDate(12)), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("Trip to Prague (Two\\nlines): Two lines 12 days\n"), std::string::npos)
        << text.out;

    Result edit = run({"events", "edit", trip, "--alias", "", "--date", localDate(-1)});
    EXPECT_EQ(edit.status, 0) << edit.err;
    EXPECT_EQ(edit.out, "");
    EXPECT_EQ(list()[1]["title"], "Trip to Prague 2 days ago"); // yesterday counts two
    EXPECT_EQ(run({"events", "delete", rent}).status, 0);
    EXPECT_EQ(list().size(), 1u);
}

// What status bars show: the tray's rules for the displayed event, one line whatever the name.
TEST_F(CliTest, StatusAndSelectFollowTheDisplayedEventRules) {
    EXPECT_EQ(run({"status"}).out, "Almanor  \xF0\x9F\x8E\x89\n");
    EXPECT_EQ(Json::parse(run({"status", "--json"}).out)["class"], "none");
    std::string later = add({"Later", "--date", localDate(30)});
    add({"Soon\r\nnow", "--date", localDate(3)});
    add({"Past", "--date", localDate(-3)});
    EXPECT_EQ(run({"status"}).out, "Past 4 days ago\n"); // the nil selection: the first event
    Result next = run({"select", "next"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.out, "Soon  now 3 days\n");
    Json waybar = Json::parse(run({"status", "--json"}).out);
    EXPECT_EQ(waybar["text"], "Soon  now 3 days");
    EXPECT_EQ(waybar["class"], "upcoming");
    EXPECT_EQ(waybar["tooltip"], "Soon\r\nnow: " + localDate(3));
    EXPECT_EQ(run({"select", later}).out, "Later 30 days\n");
    ASSERT_EQ(run({"events", "delete", later}).status, 0);
    EXPECT_EQ(run({"select", "rotate"}).out, "Soon  now 3 days\n"); // the only upcoming one
}

TEST_F(CliTest, CountsFollowTheTimeZoneOfEachRun) {
    // 23:30 UTC: already the next day in Tokyo, still that day in Los Angeles.
    Instant now = SystemClock().now();
    Instant target = Instant(floor<days>(now).time_since_epoch()) + days(40) + 23h + 30min;
    year_month_day ymd(floor<days>(target));
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT23:30", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()));
    add({"Launch", "--date", text + std::string("Z")});
    for (const char* zone : {"Asia/Tokyo", "America/Los_Angeles"}) {
        Json e = list(zone)[0];
        EXPECT_EQ(e["date"], text + std::string(":00.000Z"));
        EXPECT_EQ(e["days"], (localDay(zone, target) - localDay(zone, now)).count()) << zone;
    }
}

TEST_F(CliTest, ExitStatusesAndTheirOneLine) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err; // the line, or how it starts
    };
    const std::string missing = "3f2504e0-4f89-41d3-9a0c-0305e82c3301";
    const std::string noSuch = "no event with id 3F2504E0-4F89-41D3-9A0C-0305E82C3301\n";
    const Case badInput[] = {
        {{"events", "add", "   ", "--date", "2030-01-01"},
         2,
         "almanor: the event name must not be blank\n"},
        {{"events", "add", "X", "--date", "2030-02-30"}, 2, "almanor: invalid date '2030-02-30'"},
        {{"events", "add", "X"}, 2, "almanor: "},
        {{"events", "add", "X", "--date", "2030-01-01", "--schedule", "daily"}, 2, "almanor: "},
        {{"events", "add", "X", "--date", "2030-01-01", "--count", "weekdays"}, 2, "almanor: "},
        {{"events", "edit", "not-a-uuid", "--name", "X"},
         2,
         "almanor: 'not-a-uuid' is not an event id"},
        {{"events", "edit", missing}, 2, "almanor: nothing to change"},
        {{"events", "edit", missing, "--name", " "}, 2, "almanor: the event name must not be"},
        {{"select", "soonest"}, 2, "almanor: 'soonest' is not an event id"},
        {{"events"}, 2, "almanor: "},
        {{"frobnicate"}, 2, "almanor: "},
        {{"status", "--yaml"}, 2, "almanor: "},
    };
    const Case unknown[] = {
        {{"events", "delete", missing}, 1, noSuch},
        {{"events", "edit", missing, "--name", "X"}, 1, noSuch},
        {{"select", missing}, 1, noSuch},
    };
    auto check = [this](const Case& c) {
        Result r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.err;
        EXPECT_EQ(r.out, "") << c.err;
        EXPECT_EQ(r.err.rfind(c.err, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    };
    std::for_each(std::begin(badInput), std::end(badInput), check);
    EXPECT_FALSE(std::filesystem::exists(home / "data")); // nothing written
    EXPECT_FALSE(std::filesystem::exists(home / "config"));
    std::string id = add({"Kept", "--date", "2030-05-05"});
    std::for_each(std::begin(unknown), std::end(unknown), check);
    ASSERT_EQ(run({"events", "delete", id}).status, 0);
    check({{"events", "delete", id}, 1, "no event with id " + id}); // no longer live
    check({{"select", id}, 1, "no event with id " + id});
    // A selection that cannot be saved.
    std::filesystem::remove_all(home / "config/Almanor");
    test::writeFile(home / "config/Almanor", "a file where the folder should be");
    check({{"select", "random"}, 3, "Failed to save settings to "});
}

// The bytes and the time of every file under a folder, to see that nothing was written.
std::map<std::string, std::string> snapshot(const std::filesystem::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            auto stamp = entry.last_write_time().time_since_epoch().count();
            files[entry.path().string()] =
                test::readFile(entry.path()) + "@" + std::to_string(stamp);
        }
    }
    return files;
}

// The language as GNU programs choose it: LANGUAGE's list unless the locale is C, then
// LC_MESSAGES before LANG; the catalogues found beside the binary.
TEST_F(CliTest, MessagesSpeakTheUsersLanguage) {
    add({"Trip", "--date", localDate(2)});
    const std::string zone = "America/New_York", german = "Trip 2 Tage\n", czech = "Trip 2 dny\n",
                      english = "Trip 2 days\n";
    for (const auto& [language, title] :
         std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"LANG=de_DE.UTF-8"}, german},
             {{"LANG=de_DE.UTF-8", "LC_MESSAGES=cs_CZ.UTF-8"}, czech},
             {{"LANG=cs_CZ.UTF-8", "LANGUAGE=fr:de"}, german},
             {{"LANG=C", "LANGUAGE=de"}, english}}) {
        EXPECT_EQ(run({"status"}, zone, language).out, title) << language[0];
    }
    EXPECT_EQ(run({"events", "delete", "abcd"}, zone, {"LANG=de_DE.UTF-8"}).err,
              "kein Ereignis mit der Kennung ABCD\n");
}

TEST_F(CliTest, EveryCommandTakesAUniquePrefixOfFourOrMoreInEitherCase) {
    {
        Signals center;
        SystemClock clock;
        LocalRepository store(home / "data/Almanor", "EventsV1.db", center, clock);
        Instant when = clock.now() + days(3);
        for (auto [id, name] : {std::pair{"ABCD1234-0000-4000-8000-000000000001", "Alpha"},
                                {"ABCD1299-0000-4000-8000-000000000002", "Be\nta"},
                                {"ABCE0000-0000-4000-8000-000000000003", "Gamma"},
                                {"ABCF0000-0000-4000-8000-000000000004", "Gone"}}) {
            store.insert(Event(Uuid::fromLiteral(id), when, name, std::nullopt, Schedule::none,
                               CountMethod::standard));
        }
        store.deleteEvent(*store.fetchByIdPrefix("ABCF").front());
    }
    const std::string ambiguous = "almanor: the id ABCD12 is ambiguous: 2 events start with it\n"
                                  "ABCD1234  Alpha\nABCD1299  Be\\nta\n";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err; // "*": any one line
    };
    for (const Case& c : std::vector<Case>{
             {{"events", "delete", "abcd12"}, 2, ambiguous},
             {{"events", "edit", "abcd123", "--name", "Renamed"}, 0, ""},
             {{"select", "abce"}, 0, ""},
             {{"events", "delete", "ABCE0000-0000-4000-8000-000000000003"}, 0, ""},
             {{"select", "abc"}, 2, "*"},
             {{"events", "delete", "abcd_"}, 2, "*"},
             {{"events", "delete", "abcf"}, 1, "no event with id ABCF\n"}, // deleted
             {{"select", "abce"}, 1, "no event with id ABCE\n"},
         }) {
        Result r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args[2] << r.err;
        EXPECT_TRUE(c.err == "*" ? std::count(r.err.begin(), r.err.end(), '\n') == 1
                                 : r.err == c.err)
            << c.args[2] << r.err;
    }
    Json events = list();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1]["id"], "ABCD1234-0000-4000-8000-000000000001"); // whole ids
    EXPECT_EQ(events[1]["name"], "Renamed");
}

TEST_F(CliTest, AnExportImportedIntoAnEmptyStoreGivesTheSameListOnce) {
    add({"Leap, \"day\"; \\ x", "--date", "2028-02-29", "--schedule", "annually", "--alias",
         "L;p"});
    add({"Rent", "--date", "2024-01-31", "--schedule", "monthly", "--count", "monday-after"});
    add({"Gym\nclass", "--date", "2030-01-07T18:30", "--schedule", "weekly", "--count",
         "friday-before"});
    add({"Trip", "--date", "2031-01-05", "--count", "exclude-weekends"});
    Json before = list();
    ASSERT_EQ(run({"events", "export", (home / "all.ics").string()}).status, 0);
    EXPECT_EQ(run({"events", "export"}).out.size(), test::readFile(home / "all.ics").size());
    std::filesystem::rename(home / "data", home / "first");
    Result first = run({"events", "import", (home / "all.ics").string()});
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.err, "Imported 4 events; 0 already here, 0 skipped\n");
    Result again = run({"events", "import", (home / "all.ics").string()});
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(again.err, "Imported 0 events; 4 already here, 0 skipped\n");
    EXPECT_EQ(list(), before);
    ASSERT_EQ(run({"events", "delete", before[0]["id"]}).status, 0);
    EXPECT_EQ(run({"events", "import", (home / "all.ics").string()}).err,
              "almanor: skipped \"Rent\": it was deleted here; add it again with events add\n"
              "Imported 0 events; 3 already here, 1 skipped\n");
}

TEST_F(CliTest, ImportKeepsWhatAnEventCanStandForAndNamesWhatItSkips) {
    auto vevent = [](const std::string& uid, const std::string& lines) {
        return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nSUMMARY:" + uid + "\r\n" + lines +
               "END:VEVENT\r\n";
    };
    const std::string birthdays =
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Contacts//EN\r\n" +
        vevent("Anna", "DTSTART;VALUE=DATE:19850412\r\nRRULE:FREQ=YEARLY\r\n") +
        vevent("Bob",
               "DTSTART;VALUE=DATE:19920131\r\nRRULE:FREQ=YEARLY;BYMONTH=1;BYMONTHDAY=31\r\n") +
        vevent("Call", "DTSTART;TZID=Europe/Prague:20300105T013000\r\n") +
        vevent("Daily", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=DAILY\r\n") +
        vevent("Fortnight", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=WEEKLY;INTERVAL=2\r\n") +
        vevent("Thrice", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=YEARLY;COUNT=3\r\n") +
        vevent("Days", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=MONTHLY;BYDAY=1MO\r\n") +
        vevent("Leapless", "DTSTART;VALUE=DATE:19900229\r\n") + vevent("Undated", "") +
        vevent("Anna", "DTSTART;VALUE=DATE:20000101\r\n") +
        vevent("Anna", "RECURRENCE-ID;VALUE=DATE:20300412\r\nDTSTART;VALUE=DATE:20300413\r\n") +
        "END:VCALENDAR\r\n";
    test::writeFile(home / "b.ics", birthdays);
    Result r = run({"events", "import", (home / "b.ics").string()});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "almanor: skipped \"Daily\": it repeats daily; only weekly, monthly and "
              "yearly ones are kept\n"
              "almanor: skipped \"Fortnight\": it repeats every 2 weeks\n"
              "almanor: skipped \"Thrice\": its repetition ends; Almanor's go on for ever\n"
              "almanor: skipped \"Days\": it repeats on days of its own "
              "(RRULE:FREQ=MONTHLY;BYDAY=1MO)\n"
              "almanor: skipped \"Leapless\": its date does not exist\n"
              "almanor: skipped \"Undated\": it has no date\n"
              "almanor: skipped \"Anna\": its UID is that of an event before it in the file\n"
              "Imported 3 events; 0 already here, 7 skipped\n");
    Json events = list();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]["name"], "Anna");
    EXPECT_EQ(events[0]["date"], "1985-04-12T05:00:00.000Z"); // local midnight
    EXPECT_EQ(events[0]["schedule"], "annually");
    EXPECT_EQ(events[1]["schedule"], "annually");
    EXPECT_EQ(events[2]["date"], "2030-01-05T00:30:00.000Z");
    EXPECT_EQ(events[2]["schedule"], "none");

    std::string big = "BEGIN:VCALENDAR\r\n" + std::string(16 << 20, 'x');
    for (const std::string& bad : {std::string("hello"), birthdays.substr(0, 300),
                                   birthdays.substr(0, 20) + '\0' + birthdays.substr(20), big}) {
        std::filesystem::remove_all(home / "data");
        test::writeFile(home / "bad.ics", bad);
        Result refused = run({"events", "import", (home / "bad.ics").string()});
        EXPECT_EQ(refused.status, 2) << refused.err;
        EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
        EXPECT_FALSE(std::filesystem::exists(home / "data"));
    }
}

TEST_F(CliTest, ADamagedStoreIsExitThreeAndOneLineForEveryCommandAndNothingIsWritten) {
    std::string id = add({"Kept", "--date", "2030-01-01"});
    std::string fillers = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    for (int i = 0; i < 40; ++i) {
        fillers += "BEGIN:VEVENT\r\nUID:" + std::to_string(i) +
                   "\r\nSUMMARY:Filler\r\nDTSTART;VALUE=DATE:20300201\r\nEND:VEVENT\r\n";
    }
    test::writeFile(home / "fillers.ics", fillers + "END:VCALENDAR\r\n");
    ASSERT_EQ(run({"events", "import", (home / "fillers.ics").string()}).status, 0);
    // An account, so that sync gets as far as the store; nothing listens on port 9.
    std::ofstream(home / "config/Almanor/settings.ini", std::ios::app)
        << "cloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo pw\n";
    std::filesystem::path db = home / "data/Almanor/EventsV1.db";
    std::string whole = test::readFile(db);
    test::writeFile(db, whole.substr(0, whole.size() / 2));
    auto before = snapshot(home.path());
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"status"},
                                               {"select", "next"},
                                               {"events", "list"},
                                               {"events", "add", "New", "--date", "2030-01-01"},
                                               {"events", "delete", id},
                                               {"cloud", "status"},
                                               {"sync"}}) {
        Result r = run(args);
        EXPECT_EQ(r.status, 3) << args[0] << " " << args.back() << "\n" << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "almanor: The event store " + db.string() +
                             " could not be read: database disk image is malformed (code: 11); "
                             "restore it from a backup, or move it away to start afresh\n");
    }
    EXPECT_EQ(snapshot(home.path()), before);
    // The way out that the line names: moved away, the store starts afresh.
    std::filesystem::rename(db, home / "damaged.db");
    EXPECT_EQ(run({"events", "add", "New", "--date", "2030-01-01"}).status, 0);
}

} // namespace
