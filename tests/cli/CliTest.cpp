// The command line as scripts and status bars use it: the real binary, a real database file and
// settings file in a temporary home, different time zones.
#include "TempDir.h"
#include "model/CivilCalendar.h"
#include "model/Utility.h"
#include "platform/Clock.h"
#include "platform/Signals.h"
#include "storage/LocalRepository.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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

class CliTest : public testing::Test {
  protected:
    Result run(std::vector<std::string> args, const std::string& tz = "America/New_York",
               const std::vector<std::string>& language = {"LANG=C.UTF-8"}) const {
        std::vector<std::string> env = {"HOME=" + home.path().string(),
                                        "XDG_CONFIG_HOME=" + (home / "config").string(),
                                        "XDG_DATA_HOME=" + (home / "data").string(), "TZ=" + tz,
                                        std::string("LOCPATH=") + ALMANOR_TEST_LOCALES};
        env.insert(env.end(), language.begin(), language.end());
        for (char** e = environ; *e != nullptr; ++e) {
            std::string v = *e;
            if (v.rfind("ASAN_", 0) == 0 || v.rfind("UBSAN_", 0) == 0 || v.rfind("LSAN_", 0) == 0) {
                env.push_back(v);
            }
        }
        args.insert(args.begin(), ALMANOR_BINARY);
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);

        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        pid_t pid = 0;
        Result r;
        int rc = posix_spawn(&pid, ALMANOR_BINARY, &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        EXPECT_EQ(rc, 0);
        pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        int open = 2;
        while (open > 0 && poll(fds, 2, 30000) > 0) {
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP)) != 0) {
                    char buffer[65536];
                    ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
                    if (n <= 0) {
                        close(fds[i].fd);
                        fds[i].fd = -1;
                        --open;
                    } else {
                        (i == 0 ? r.out : r.err).append(buffer, std::size_t(n));
                    }
                }
            }
        }
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return r;
    }

    // Today's local date in a zone, plus some days, as the user would type it.
    static std::string localDate(const std::string& zone, int plusDays) {
        auto cal = CivilCalendar::forZone(zone);
        auto today = floor<days>(cal->localTime(SystemClock().now()));
        year_month_day ymd{today + days(plusDays)};
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", int(ymd.year()),
                      unsigned(ymd.month()), unsigned(ymd.day()));
        return buffer;
    }
    static std::string firstLine(const std::string& s) { return s.substr(0, s.find('\n')); }
    std::string add(const std::vector<std::string>& args,
                    const std::string& tz = "America/New_York") const {
        std::vector<std::string> full = {"events", "add"};
        full.insert(full.end(), args.begin(), args.end());
        Result r = run(full, tz);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out.size(), 37u);
        return firstLine(r.out);
    }
    Json list(const std::string& tz = "America/New_York") const {
        Result r = run({"events", "list", "--json"}, tz);
        EXPECT_EQ(r.status, 0) << r.err;
        return Json::parse(r.out);
    }

    void SetUp() override { day = localDate("America/New_York", 0); }
    // Counting relative to today breaks if midnight passes during the test.
    void TearDown() override {
        if (day != localDate("America/New_York", 0)) {
            GTEST_SKIP() << "midnight passed during the test";
        }
    }

    test::TempDir home;
    std::string day;
};

TEST_F(CliTest, AddListEditAndDeleteAsAUserWould) {
    std::string trip = add(
        {"  Trip to Prague \n", "--date", localDate("America/New_York", 12), "--alias", " Trip "});
    std::string rent = add({"Rent", "--date", "2024-01-31", "--schedule", "monthly", "--count",
                            "monday-after", "--alias", "   "});
    EXPECT_EQ(trip, Uuid::parse(trip)->uuidString()); // upper-case id

    Json events = list();
    ASSERT_EQ(events.size(), 2u);
    // Ordered by date: Rent's first date lies in the past.
    EXPECT_EQ(events[0]["id"], rent);
    EXPECT_EQ(events[0]["alias"], nullptr);
    EXPECT_EQ(events[0]["date"], "2024-01-31T05:00:00.000Z");
    EXPECT_EQ(events[0]["schedule"], "monthly");
    EXPECT_EQ(events[0]["count"], "monday-after");
    EXPECT_GT(events[0]["days"].get<int>(), 0);
    EXPECT_EQ(events[1]["name"], "Trip to Prague");
    EXPECT_EQ(events[1]["alias"], "Trip");
    EXPECT_EQ(events[1]["days"], 12);
    EXPECT_EQ(events[1]["title"], "Trip 12 days");
    EXPECT_EQ(events[1]["occurrence"], events[1]["date"]);

    Result text = run({"events", "list"});
    EXPECT_NE(text.out.find(trip + "  " + localDate("America/New_York", 12)), std::string::npos);
    EXPECT_NE(text.out.find("Trip to Prague (Trip): Trip 12 days"), std::string::npos);

    Result edit = run({"events", "edit", trip, "--alias", "", "--date",
                       localDate("America/New_York", -1), "--count", "standard"});
    ASSERT_EQ(edit.status, 0) << edit.err;
    EXPECT_EQ(edit.out, "");
    events = list();
    EXPECT_EQ(events[1]["alias"], nullptr);
    EXPECT_EQ(events[1]["title"], "Trip to Prague 2 days ago"); // yesterday counts two

    Result del = run({"events", "delete", rent});
    ASSERT_EQ(del.status, 0) << del.err;
    events = list();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["id"], trip);
    EXPECT_TRUE(std::filesystem::exists(home / "data/Almanor/EventsV1.db"));
}

TEST_F(CliTest, NamesWithQuotesAndControlsListAsValidJson) {
    std::string name = "Mum's \"big\" day \\ \x01 \xF0\x9F\x8E\x82";
    add({name, "--date", "2030-01-01", "--alias", "Mum\tday"});
    Json events = list();
    EXPECT_EQ(events[0]["name"], name);
    EXPECT_EQ(events[0]["alias"], "Mum\tday");
    EXPECT_EQ(events[0]["title"].get<std::string>().substr(0, 7),
              "Mum day"); // the title's one line
}

TEST_F(CliTest, PlainListingKeepsOneLinePerEventWhateverTheNames) {
    add({"Two\nlines", "--date", "2030-01-01", "--alias", "Tab\there"});
    add({"Plain", "--date", "2030-01-02"});
    add({"Esc\x1b[2Jape\r", "--date", "2030-01-03"});
    Result r = run({"events", "list"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 3);
    EXPECT_EQ(r.out.find('\t'), std::string::npos);
    EXPECT_EQ(r.out.find('\x1b'), std::string::npos);
    EXPECT_NE(r.out.find("Two\\nlines (Tab\\there): Tab here "), std::string::npos);
    // The stored text is unchanged: only the listing escapes.
    EXPECT_EQ(list()[0]["name"], "Two\nlines");
}

TEST_F(CliTest, StatusAndSelectPrintOneLineWhateverTheName) {
    std::string name = "Line\r\nbreak\tand\x1b[31mcolour\xE2\x80\xA8sep\xC2\x85nel\x7F";
    std::string id = add({name, "--date", localDate("America/New_York", 4)});
    std::string title = "Line  break and [31mcolour sep nel  4 days\n";
    Result selected = run({"select", id});
    EXPECT_EQ(selected.status, 0) << selected.err;
    EXPECT_EQ(selected.out, title);
    EXPECT_EQ(run({"status"}).out, title);
    Result json = run({"status", "--json"});
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 1);
    EXPECT_EQ(Json::parse(json.out)["text"], title.substr(0, title.size() - 1));
    EXPECT_EQ(list()[0]["name"], name); // stored as given

    Result edit = run({"events", "edit", id, "--alias", "Short\nalias"});
    ASSERT_EQ(edit.status, 0) << edit.err;
    EXPECT_EQ(run({"status"}).out, "Short alias 4 days\n");
    EXPECT_EQ(list()[0]["alias"], "Short\nalias");
}

TEST_F(CliTest, UnknownIdsExitOneWithOneLineAndChangeNothing) {
    std::string id = add({"Kept", "--date", "2030-05-05"});
    std::string missing = "3f2504e0-4f89-41d3-9a0c-0305e82c3301";
    for (auto args :
         std::vector<std::vector<std::string>>{{"events", "delete", missing},
                                               {"events", "edit", missing, "--name", "X"},
                                               {"select", missing}}) {
        Result r = run(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "no event with id 3F2504E0-4F89-41D3-9A0C-0305E82C3301\n");
    }
    // A deleted event is no longer live.
    ASSERT_EQ(run({"events", "delete", id}).status, 0);
    EXPECT_EQ(run({"events", "delete", id}).status, 1);
    EXPECT_EQ(run({"select", id}).status, 1);
}

// The language as GNU programs choose it: LANGUAGE unless the locale is C (C.UTF-8 is not C),
// then LC_ALL, LC_MESSAGES, LANG; English where no catalogue speaks it.
TEST_F(CliTest, MessagesSpeakTheUsersLanguage) {
    add({"Trip", "--date", localDate("America/New_York", 2)});
    const std::string zone = "America/New_York", german = "Trip 2 Tage\n", czech = "Trip 2 dny\n",
                      english = "Trip 2 days\n";
    for (const auto& [language, title] :
         std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"LANG=de_DE.UTF-8"}, german},
             {{"LANG=de_DE.UTF-8", "LC_MESSAGES=cs_CZ.UTF-8"}, czech},
             {{"LC_MESSAGES=de_DE.UTF-8", "LC_ALL=cs_CZ.UTF-8"}, czech},
             {{"LANG=cs_CZ.UTF-8", "LANGUAGE=fr:de"}, german},
             {{"LANG=C.UTF-8", "LANGUAGE=cs"}, czech},
             {{"LANG=C", "LANGUAGE=de"}, english},
             {{"LANG=de_AT.UTF-8", "LANGUAGE=de"}, english}, // no such locale: C
             {{"LANG=C.UTF-8", "LANGUAGE=fr"}, english}}) {
        EXPECT_EQ(run({"status"}, zone, language).out, title) << language[0];
    }
    EXPECT_EQ(run({"events", "delete", "abcd"}, zone, {"LANG=de_DE.UTF-8"}).err,
              "kein Ereignis mit der Kennung ABCD\n");
    EXPECT_EQ(run({"events", "delete", "abcd"}, zone, {"LANG=cs_CZ.UTF-8"}).err,
              "žádná událost s identifikátorem ABCD\n");
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
             {{"events", "edit", "ABCD12", "--name", "X"}, 2, ambiguous},
             {{"select", "abCD12"}, 2, ambiguous},
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

TEST_F(CliTest, BadInputIsOneLineOnStandardErrorAndWritesNothing) {
    for (auto args : std::vector<std::vector<std::string>>{
             {"events", "add", "   ", "--date", "2030-01-01"},
             {"events", "add", "X", "--date", "2030-02-30"},
             {"events", "add", "X", "--date", "next friday"},
             {"events", "add", "X"},
             {"events", "add", "X", "--date", "2030-01-01", "--schedule", "daily"},
             {"events", "add", "X", "--date", "2030-01-01", "--count", "weekdays"},
             {"events", "edit", "not-a-uuid", "--name", "X"},
             {"events", "edit", "3f2504e0-4f89-41d3-9a0c-0305e82c3301"},
             {"events", "edit", "3f2504e0-4f89-41d3-9a0c-0305e82c3301", "--name", " "},
             {"select", "soonest"},
             {"events"},
             {"frobnicate"},
             {"status", "--yaml"}}) {
        Result r = run(args);
        std::string joined;
        for (auto& a : args) {
            joined += a + " ";
        }
        EXPECT_EQ(r.status, 2) << joined;
        EXPECT_EQ(r.out, "") << joined;
        EXPECT_FALSE(r.err.empty()) << joined;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << joined << ": " << r.err;
    }
    EXPECT_FALSE(std::filesystem::exists(home / "data"));
    EXPECT_FALSE(std::filesystem::exists(home / "config"));
}

TEST_F(CliTest, StatusAndSelectFollowTheDisplayedEventRules) {
    Result empty = run({"status"});
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out, "Almanor  \xF0\x9F\x8E\x89\n");
    Json emptyJson = Json::parse(run({"status", "--json"}).out);
    EXPECT_EQ(emptyJson["class"], "none");

    std::string later = add({"Later", "--date", localDate("America/New_York", 30)});
    std::string soon = add({"Soon", "--date", localDate("America/New_York", 3)});
    add({"Past", "--date", localDate("America/New_York", -3)});
    // First start: the nil selection names nothing, so the first event of the list is shown
    // and remembered.
    EXPECT_EQ(run({"status"}).out, "Past 4 days ago\n");

    Result next = run({"select", "next"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.out, "Soon 3 days\n");
    Json waybar = Json::parse(run({"status", "--json"}).out);
    EXPECT_EQ(waybar["text"], "Soon 3 days");
    EXPECT_EQ(waybar["class"], "upcoming");
    EXPECT_EQ(waybar["tooltip"], "Soon: " + localDate("America/New_York", 3));

    EXPECT_EQ(run({"select", later}).out, "Later 30 days\n");
    EXPECT_EQ(run({"status"}).out, "Later 30 days\n");
    ASSERT_EQ(run({"events", "delete", later}).status, 0);
    EXPECT_EQ(run({"status"}).out, "Past 4 days ago\n"); // the first event takes its place

    EXPECT_EQ(run({"select", "rotate"}).out, "Soon 3 days\n"); // the only upcoming one
    EXPECT_EQ(run({"select", "random"}).status, 0);
    (void)soon;
}

TEST_F(CliTest, CountsFollowTheTimeZoneOfEachRun) {
    // 23:30 UTC is already tomorrow in Tokyo and still today in Los Angeles.
    auto tokyo = CivilCalendar::forZone("Asia/Tokyo");
    auto la = CivilCalendar::forZone("America/Los_Angeles");
    Instant now = SystemClock().now();
    Instant target =
        Instant(floor<days>(now).time_since_epoch()) + days(40) + hours(23) + minutes(30);
    std::string utcDate = std::to_string(int(year_month_day(floor<days>(target)).year()));
    year_month_day ymd(floor<days>(target));
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT23:30Z", int(ymd.year()),
                  unsigned(ymd.month()), unsigned(ymd.day()));
    add({"Launch", "--date", text});
    auto expected = [&](const DayCalendar& cal) {
        Instant today = Utility::startOfToday(cal, SystemClock().now());
        return Utility::dayCount(cal, today, target, CountMethod::standard);
    };
    int inTokyo = list("Asia/Tokyo")[0]["days"];
    int inLa = list("America/Los_Angeles")[0]["days"];
    EXPECT_EQ(inTokyo, expected(*tokyo));
    EXPECT_EQ(inLa, expected(*la));
    // The stored instant is the same whichever zone reads it.
    EXPECT_EQ(list("Asia/Tokyo")[0]["date"], list("America/Los_Angeles")[0]["date"]);
}

TEST_F(CliTest, ConcurrentWritersLoseNoEvent) {
    ASSERT_EQ(run({"status"}).status, 0); // create the store first, as the tray would have
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([this, w] {
            for (int i = 0; i < 8; ++i) {
                Result r = run({"events", "add", "E" + std::to_string(w) + "-" + std::to_string(i),
                                "--date", "2031-01-01"});
                EXPECT_EQ(r.status, 0) << r.err;
            }
        });
    }
    for (auto& t : writers) {
        t.join();
    }
    EXPECT_EQ(list().size(), 32u);
}

TEST_F(CliTest, ALostStoreFileStartsEmptyAndTheNextAddWorks) {
    add({"Gone", "--date", "2030-01-01"});
    std::filesystem::remove(home / "data/Almanor/EventsV1.db");
    // The settings still say the table was made once; the store makes it again all the same.
    Result status = run({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.out, "Almanor  \xF0\x9F\x8E\x89\n");
    EXPECT_EQ(status.err, "");
    EXPECT_EQ(list(), Json::array());
    std::string id = add({"New", "--date", localDate("America/New_York", 2)});
    EXPECT_EQ(run({"status"}).out, "New 2 days\n");
    EXPECT_EQ(list()[0]["id"], id);
}

std::string slurp(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The bytes and the time of every file under a folder, to see that nothing was written.
std::map<std::string, std::string> snapshot(const std::filesystem::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            auto stamp = entry.last_write_time().time_since_epoch().count();
            files[entry.path().string()] = slurp(entry.path()) + "@" + std::to_string(stamp);
        }
    }
    return files;
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
    EXPECT_EQ(run({"events", "export"}).out.size(), slurp(home / "all.ics").size());
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
    std::ofstream(home / "b.ics") << birthdays;
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
        std::ofstream(home / "bad.ics") << bad;
        Result refused = run({"events", "import", (home / "bad.ics").string()});
        EXPECT_EQ(refused.status, 2) << refused.err;
        EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
        EXPECT_FALSE(std::filesystem::exists(home / "data"));
    }
}

TEST_F(CliTest, ADamagedStoreIsExitThreeAndOneLineForEveryCommandAndNothingIsWritten) {
    std::string id = add({"Kept", "--date", "2030-01-01"});
    for (int i = 0; i < 40; ++i) {
        add({"Filler " + std::to_string(i), "--date", "2030-02-01"});
    }
    std::filesystem::path db = home / "data/Almanor/EventsV1.db";
    std::string whole = slurp(db);
    ASSERT_GT(whole.size(), 3 * 4096u);
    // An account, so that sync gets as far as the store; nothing listens on port 9.
    {
        std::ofstream(home / "config/Almanor/settings.ini", std::ios::app)
            << "cloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo pw\n";
    }
    std::string garbage;
    for (int i = 0; i < 5000; ++i) {
        garbage += char((i * 7919 + 13) % 251);
    }
    const std::vector<std::vector<std::string>> commands = {
        {"status"},
        {"status", "--json"},
        {"select", "next"},
        {"select", id},
        {"events", "list"},
        {"events", "list", "--json"},
        {"events", "add", "New", "--date", "2030-01-01"},
        {"events", "edit", id, "--name", "Renamed"},
        {"events", "delete", id},
        {"cloud", "status"},
        {"cloud", "status", "--json"},
        {"sync"},
    };
    for (const auto& [what, bytes] : std::vector<std::pair<std::string, std::string>>{
             {"garbage", garbage},
             {"truncated", whole.substr(0, whole.size() / 2)},
             {"cut mid-page", whole.substr(0, whole.size() - 4096 - 1000)}}) {
        { std::ofstream(db, std::ios::binary | std::ios::trunc) << bytes; }
        auto before = snapshot(home.path());
        for (const auto& args : commands) {
            std::string joined = what + ":";
            for (const auto& a : args) {
                joined += " " + a;
            }
            Result r = run(args);
            EXPECT_EQ(r.status, 3) << joined << "\n" << r.err;
            EXPECT_EQ(r.out, "") << joined;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << joined << "\n" << r.err;
            EXPECT_EQ(
                r.err.rfind("almanor: The event store " + db.string() + " could not be read: ", 0),
                0u)
                << joined << "\n"
                << r.err;
            EXPECT_NE(r.err.find("restore it from a backup, or move it away to start afresh\n"),
                      std::string::npos)
                << joined;
        }
        EXPECT_EQ(snapshot(home.path()), before) << what;
    }
    // The way out that the line names: moved away, the store starts afresh.
    std::filesystem::rename(db, home / "damaged.db");
    EXPECT_EQ(run({"status"}).out, "Almanor  \xF0\x9F\x8E\x89\n");
    EXPECT_EQ(run({"events", "add", "New", "--date", "2030-01-01"}).status, 0);
}

TEST_F(CliTest, ADamagedSettingsFileTwiceOverKeepsTheAccountAndTheSelection) {
    std::string later = add({"Later", "--date", localDate("America/New_York", 9)});
    add({"Soon", "--date", localDate("America/New_York", 5)});
    ASSERT_EQ(run({"select", later}).status, 0);
    std::filesystem::path settings = home / "config/Almanor/settings.ini";
    {
        std::ofstream(settings, std::ios::app)
            << "cloudServer=https://dav.example.org/\ncloudUser=me\ncloudPasswordCommand=echo pw\n";
    }
    std::string whole = slurp(settings);
    std::string first = whole + "\x01garbage\n";
    std::string second = "[com.vostrel.Alma\x01nor]" + whole.substr(whole.find('\n'));
    int copies = 0;
    for (const std::string& damaged : {first, second}) {
        { std::ofstream(settings, std::ios::trunc) << damaged; }
        Result r = run({"status"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "Later 9 days\n"); // the selection survived
        // Each line dropped is named, then the copy; once, not on the next read.
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
        EXPECT_NE(r.err.find("settings.ini: line "), std::string::npos) << r.err;
        EXPECT_EQ(run({"status"}).err, "");
        std::string copy = settings.string() + ".corrupt" +
                           (copies == 0 ? std::string() : "." + std::to_string(copies));
        EXPECT_EQ(slurp(copy), damaged);
        ++copies;
        Result account = run({"cloud", "status"});
        EXPECT_EQ(account.status, 0) << account.err;
        EXPECT_EQ(account.out.rfind("Server: https://dav.example.org/\nUser: me\n", 0), 0u)
            << account.out;
    }
    EXPECT_FALSE(std::filesystem::exists(settings.string() + ".corrupt.2"));
}

TEST_F(CliTest, AnUnopenableStoreStopsWithTheFatalMessage) {
    std::filesystem::create_directories(home / "data");
    { std::ofstream(home / "data/Almanor") << "a file where the folder should be"; }
    Result r = run({"status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("Fatal error: Failed to initialize local database: "), std::string::npos)
        << r.err;
}

TEST_F(CliTest, ASelectionThatCannotBeSavedIsExitThreeAndOneLine) {
    add({"Kept", "--date", "2030-05-05"});
    std::filesystem::remove_all(home / "config/Almanor");
    { std::ofstream(home / "config/Almanor") << "a file where the folder should be"; }
    Result r = run({"select", "random"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find("Failed to save settings to "), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST_F(CliTest, HelpAndVersion) {
    Result help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"events", "select", "status", "DATE", "Exit status"}) {
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    }
    Result addHelp = run({"events", "add", "--help"});
    EXPECT_NE(addHelp.out.find("--schedule"), std::string::npos);
    EXPECT_EQ(run({"--version"}).out, std::string("almanor ") + ALMANOR_VERSION + "\n");
}

} // namespace
