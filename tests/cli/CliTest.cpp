// The command line as scripts and status bars use it: the real binary over a real store and
// settings file in a temporary home.
#include "TempDir.h"
#include "model/CivilCalendar.h"
#include "platform/Clock.h"
#include "platform/Uuid.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sstream>
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

std::string slurp(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

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
    Result run(std::vector<std::string> args, const std::string& tz = "America/New_York") const {
        std::vector<std::string> env = {
            "HOME=" + home.path().string(), "XDG_CONFIG_HOME=" + (home / "config").string(),
            "XDG_DATA_HOME=" + (home / "data").string(), "TZ=" + tz, "LANG=C.UTF-8"};
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
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(out),
                slurp(err)};
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
    EXPECT_EQ(run({"status"}).out, "Past 4 days ago\n"); // the first event takes its place
    EXPECT_EQ(run({"select", "rotate"}).out, "Soon  now 3 days\n"); // the only upcoming one
    EXPECT_EQ(run({"select", "random"}).status, 0);
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
        {{"events", "add", "X", "--date", "next friday"}, 2, "almanor: invalid date"},
        {{"events", "add", "X"}, 2, "almanor: "},
        {{"events", "add", "X", "--date", "2030-01-01", "--schedule", "daily"}, 2, "almanor: "},
        {{"events", "add", "X", "--date", "2030-01-01", "--count", "weekdays"}, 2, "almanor: "},
        {{"events", "edit", "not-a-uuid", "--name", "X"},
         2,
         "almanor: 'not-a-uuid' is not an event id"},
        {{"events", "edit", missing}, 2, "almanor: nothing to change"},
        {{"events", "edit", missing, "--name", " "}, 2, "almanor: the event name must not be"},
        {{"select", "soonest"}, 2, "almanor: 'soonest' is neither an event id"},
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
    // A selection that cannot be saved; a store that cannot be opened.
    std::filesystem::remove_all(home / "config/Almanor");
    { std::ofstream(home / "config/Almanor") << "a file where the folder should be"; }
    check({{"select", "random"}, 3, "Failed to save settings to "});
    std::filesystem::remove_all(home / "data/Almanor");
    { std::ofstream(home / "data/Almanor") << "a file where the folder should be"; }
    check({{"status"},
           3,
           "Almanor/LocalRepository:40: Fatal error: Failed to initialize local "
           "database: "});
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

TEST_F(CliTest, ADamagedStoreIsExitThreeAndOneLineForEveryCommandAndNothingIsWritten) {
    std::string id = add({"Kept", "--date", "2030-01-01"});
    for (int i = 0; i < 40; ++i) {
        add({"Filler " + std::to_string(i), "--date", "2030-02-01"});
    }
    // An account, so that sync gets as far as the store; nothing listens on port 9.
    std::ofstream(home / "config/Almanor/settings.ini", std::ios::app)
        << "cloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo pw\n";
    std::filesystem::path db = home / "data/Almanor/EventsV1.db";
    std::string whole = slurp(db);
    std::ofstream(db, std::ios::binary | std::ios::trunc) << whole.substr(0, whole.size() / 2);
    auto before = snapshot(home.path());
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"status"},
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
