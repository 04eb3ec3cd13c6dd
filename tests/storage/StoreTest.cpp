#include "Instants.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/StoreSchema.h"
#include "storage/sql/Connection.h"
#include "storage/sql/Date.h"
#include "storage/sql/Error.h"
#include "storage/sql/Table.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace almanor;
using namespace almanor::sql;
using namespace std::chrono;
using almanor::test::utc;
using testing::ThrowsMessage;

namespace {

EventPtr event(std::string name, Instant date, std::optional<std::string> alias = {},
               Schedule schedule = Schedule::none, CountMethod method = CountMethod::standard) {
    return makeEvent(Uuid::random(), date, std::move(name), std::move(alias), schedule, method);
}

// The column "value" of a one-row query as text, "NULL" for NULL: for looking at the file as it is.
std::string scalar(sql::Connection& connection, const std::string& query) {
    auto rows =
        connection.prepare({R"(SELECT CAST("value" AS TEXT) AS "value" FROM ()" + query + ")", {}});
    if (!rows.next()) {
        return "<no row>";
    }
    sql::Column<std::optional<std::string>> value{"value"};
    return rows.row().get(value).value_or("NULL");
}

struct ConnectionTest : ::testing::Test {
    test::TempDir dir;
    std::string path = (dir / "test.db").string();
    Table table{"sample"};
    Column<Uuid> id{"id"};
    Column<std::string> text{"text"};
    Column<std::int64_t> number{"number"};
    Column<bool> flag{"flag"};
    Column<Instant> when{"when"};
    Column<std::optional<std::string>> maybeText{"maybe_text"};
    Column<std::optional<std::int64_t>> maybeNumber{"maybe_number"};
    Column<std::optional<Instant>> maybeWhen{"maybe_when"};
    Statement create() const {
        return table.create({id.definition(primaryKey), text.definition(), number.definition(),
                             flag.definition(Default{false}), when.definition(),
                             maybeText.definition(), maybeNumber.definition(),
                             maybeWhen.definition()});
    }
    Statement insert(std::int64_t n) const {
        return table.insert(
            {id.set(Uuid::random()), text.set("t"), number.set(n), when.set(Instant{})});
    }
};

// The events table as the file holds it, a column a line: name, type, not null, default, key.
// Files written by earlier builds have exactly these columns: the format other builds read.
const std::string eventsColumns = "id TEXT 1 NULL 1\n"
                                  "name TEXT 1 NULL 0\n"
                                  "alias TEXT 0 NULL 0\n"
                                  "date TEXT 1 NULL 0\n"
                                  "schedule INTEGER 1 NULL 0\n"
                                  "method INTEGER 1 NULL 0\n"
                                  "created TEXT 1 NULL 0\n"
                                  "updated TEXT 1 NULL 0\n"
                                  "deleted TEXT 0 NULL 0\n"
                                  "sync_id TEXT 0 NULL 0\n"
                                  "sync_date TEXT 0 NULL 0\n"
                                  "sync_dirty INTEGER 1 0 0\n"
                                  "sync_deleted INTEGER 1 0 0\n";

class LocalRepositoryTest : public ::testing::Test {
  protected:
    // Columns of the event's row as json_array() writes them: texts quoted, integers bare.
    std::string row(const Event& e, const std::string& columns) {
        return scalar(store.connection(), "SELECT json_array(" + columns + ") AS \"value\" " +
                                              "FROM \"events\" WHERE \"id\" = '" +
                                              e.id().uuidString() + "'");
    }

    // The store through its repository, in a folder of its own.
    std::unique_ptr<Repository> openRepository() {
        return std::make_unique<Repository>(
            std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock));
    }
    std::string fileVersion(Repository& r) {
        return scalar(r.local().connection(),
                      "SELECT user_version AS value FROM pragma_user_version");
    }
    // As a build before the version was kept left it: one event, version 0.
    std::string oldStoreWithOneEvent() {
        EXPECT_TRUE(openRepository()->insert(*event("Kept", utc(2024, 3, 5))));
        sql::Connection(db.string()).run("PRAGMA user_version = 0");
        return test::readFile(db);
    }

    test::TempDir dir;
    Signals center;
    FixedClock clock{utc(2025, 1, 10, 8)};
    LocalRepository store{dir / "data" / "Almanor", "EventsV1.db", center, clock};
    LocalSyncLedger ledger{store};
    Instant day = utc(2024, 3, 5);
    std::filesystem::path db = dir / "Almanor/EventsV1.db";
    SettingsFile defaults{dir / "config/settings.ini"};
    const std::string newest = std::to_string(schemaVersions(EventsTable{}).back().version);
};

} // namespace

TEST_F(ConnectionTest, ValuesRoundTripThroughTheFileInTheirEncodings) {
    Uuid u = Uuid::random();
    Instant moon = utc(1969, 7, 20, 20, 17, 40, 5);
    {
        Connection c(path);
        c.run(create());
        c.run(table.insert({id.set(u), text.set(std::string("z\0ß\xE2\x82\xAC", 6)),
                            number.set(-(std::int64_t{1} << 40)), flag.set(true), when.set(moon),
                            maybeText.set(std::nullopt), maybeNumber.set(0)}));
    }
    Connection c(path); // a fresh connection: the values come from the file
    EXPECT_EQ(
        scalar(c,
               R"(SELECT quote("id") || quote("flag") || quote("when") AS "value" FROM "sample")"),
        "'" + u.uuidString() + "'1'1969-07-20T20:17:40.005'");
    auto rows = c.prepare(table.select(flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_EQ(row.get(id), u);
    EXPECT_EQ(row.get(text), std::string("z\0ß\xE2\x82\xAC", 6)); // bound with its length
    EXPECT_EQ(row.get(number), -(std::int64_t{1} << 40));
    EXPECT_EQ(row.get(when), moon);
    EXPECT_EQ(row.get(maybeText), std::nullopt);
    EXPECT_EQ(row.get(maybeNumber), std::optional<std::int64_t>(0)); // 0, not none
    EXPECT_EQ(row.get(maybeWhen), std::nullopt);
}

TEST_F(ConnectionTest, ErrorsNameTheColumnOrCarrySqlitesMessageAndCode) {
    Connection c(path);
    EXPECT_THAT([&] { c.prepare(table.select(flag)); },
                ThrowsMessage<Error>("no such table: sample (code: 1)"));
    c.run(create());
    c.run(
        R"(INSERT INTO "sample" VALUES ('not a uuid', 'x', 'seven', 2, '2023-02-29T00:00:00.000', NULL, NULL, NULL))");
    auto rows = c.prepare(table.select(flag));
    ASSERT_TRUE(rows.next());
    const Row& row = rows.row();
    EXPECT_THAT([&] { row.get(Column<std::string>{"maybe_text"}); },
                ThrowsMessage<Error>("Unexpected null value for column `\"maybe_text\"`"));
    EXPECT_THAT([&] { row.get(Column<std::string>{"missing"}); },
                ThrowsMessage<Error>("No such column `\"missing\"`"));
    EXPECT_THROW(row.get(when), Error);   // an impossible date
    EXPECT_THROW(row.get(id), Error);     // not a UUID
    EXPECT_THROW(row.get(number), Error); // text where an integer belongs
    EXPECT_TRUE(row.get(flag));           // any non-zero integer is true
    auto twice = c.prepare({R"(SELECT 1 AS "a", 2 AS "a")", {}});
    ASSERT_TRUE(twice.next());
    EXPECT_THAT([&] { twice.row().get(Column<std::int64_t>{"a"}); },
                ThrowsMessage<Error>("Ambiguous column `\"a\"`"));
    EXPECT_THROW(c.run(Statement{"SELECT ?, ?", {std::int64_t{1}}}), Error); // a value short
    EXPECT_THAT([&] { Connection((dir / "missing/test.db").string()); },
                ThrowsMessage<Error>("unable to open database file (code: 14)"));
}

TEST_F(ConnectionTest, WaitsForAnotherWriterInsteadOfFailing) {
    Connection c(path);
    c.run(create());
    Connection other(path);
    other.run("BEGIN IMMEDIATE");
    other.run(insert(1));
    std::thread release([&] {
        std::this_thread::sleep_for(300ms);
        other.run("COMMIT");
    });
    EXPECT_NO_THROW(c.run(insert(2)));
    release.join();
    EXPECT_EQ(scalar(c, R"(SELECT count(*) AS "value" FROM "sample")"), "2");
}

// In UTC whatever the process's zone, fixed-width, the day floored before 1970; read back.
TEST(Date, FormatsAndReadsBackUtcWithFixedWidthFieldsAndNothingElse) {
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    const std::pair<Instant, const char*> cases[] = {
        {utc(2024, 2, 29, 23, 59, 59, 999), "2024-02-29T23:59:59.999"},
        {Instant{} - 1ms, "1969-12-31T23:59:59.999"},
        {utc(5, 1, 2, 3, 4, 5, 6), "0005-01-02T03:04:05.006"},
        {utc(12345, 6, 7), "12345-06-07T00:00:00.000"},
        {utc(0, 1, 1), "0000-01-01T00:00:00.000"},
        {utc(32767, 12, 31, 23, 59, 59, 999), "32767-12-31T23:59:59.999"},
    };
    for (auto [instant, text] : cases) {
        EXPECT_EQ(formatDate(instant), text);
        EXPECT_EQ(parseDate(text), instant);
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(parseDate("2024-03-05T10:20:30"), utc(2024, 3, 5, 10, 20, 30));
    EXPECT_THROW(formatDate(utc(-1, 12, 31, 23)), Error);
    EXPECT_THROW(formatDate(Instant{milliseconds::max()}), Error);
    for (const char* text :
         {"", "2024-03-05", "2023-02-29T00:00:00.000", "2024-04-31T00:00:00.000",
          "2024-13-01T00:00:00.000", "2024-00-10T00:00:00.000", "2024-03-05T24:00:00.000",
          "2024-03-05T23:60:00.000", "2024-03-05T23:59:60.000", "2024-03-05 10:20:30.123",
          "2024-03-05T10:20:30.12", "2024-03-05T10:20:30.1234", "2024-3-05T10:20:30.123",
          "024-03-05T10:20:30.123", "123456-03-05T10:20:30.123", "-2024-03-05T10:20:30.123",
          " 2024-03-05T10:20:30.123", "2024-03-05T10:2a:30.123", "40000-01-01T00:00:00.000"}) {
        EXPECT_EQ(parseDate(text), std::nullopt) << text;
    }
}

TEST_F(ConnectionTest, QuotesNamesAndBindsValuesInTheOrderOfTheirPlaceholders) {
    Table weird{R"(we"ird)"};
    Column<std::string> odd{R"(co"l)"};
    EXPECT_EQ(weird.create({odd.definition(Default{std::string("it's")})}).text,
              R"(CREATE TABLE IF NOT EXISTS "we""ird" ("co""l" TEXT NOT NULL DEFAULT 'it''s'))");

    auto update = weird.update(
        {maybeText.set(std::nullopt), flag.setLiteral(true), when.set(Instant{} + 1500ms)},
        maybeText == std::nullopt && number == 7 && !flag);
    EXPECT_EQ(update.text, R"(UPDATE "we""ird" SET "maybe_text" = ?, "flag" = 1, "when" = ? )"
                           R"(WHERE ((("maybe_text" IS ?) AND ("number" = ?)) AND NOT ("flag")))");
    EXPECT_EQ(update.bindings,
              (std::vector<Binding>{nullptr, std::string("1970-01-01T00:00:01.500"), nullptr,
                                    std::int64_t{7}}));
}

TEST_F(LocalRepositoryTest, WritesTheRowInItsEncodingsWithOneNowPerChange) {
    auto e = makeEvent(Uuid::random(), day + 10h + 20min + 30s + 123ms, "Trip", std::nullopt,
                       Schedule::monthly, CountMethod::weekendUsesMondayAfter);
    store.insert(*e);
    EXPECT_EQ(row(*e, "id,name,alias,date,schedule,method,created,updated,deleted,sync_id,"
                      "sync_date,sync_dirty,sync_deleted"),
              R"([")" + e->id().uuidString() +
                  R"(","Trip",null,"2024-03-05T10:20:30.123",2,3,"2025-01-10T08:00:00.000",)"
                  R"("2025-01-10T08:00:00.000",null,null,null,0,0])");
    clock.advance(90min + 1ms);
    e->setAlias(std::string(""));
    store.update(*e);
    // An empty alias stays an empty text; only none is NULL.
    EXPECT_EQ(row(*e, "alias,created,updated,deleted,sync_dirty"),
              R"(["","2025-01-10T08:00:00.000","2025-01-10T09:30:00.001",null,1])");
    clock.advance(1h);
    store.deleteEvent(*e);
    EXPECT_EQ(row(*e, "deleted,updated"),
              R"(["2025-01-10T10:30:00.001","2025-01-10T09:30:00.001"])");
}

TEST_F(LocalRepositoryTest, ListsLiveEventsByDateThenByBinaryNameOrder) {
    auto first = event("z", day - 1ms, std::string("Zed"), Schedule::annually,
                       CountMethod::weekendUsesFridayBefore);
    auto gone = event("A", day);
    for (const auto& e : {event("b", day), event("B", day), first, event("a", day), gone}) {
        store.insert(*e);
    }
    store.deleteEvent(*gone);
    auto events = store.fetchAll();
    std::vector<std::string> names;
    std::ranges::transform(events, std::back_inserter(names), [](auto& e) { return e->name(); });
    EXPECT_EQ(names, (std::vector<std::string>{"z", "B", "a", "b"}));
    const Event& z = *events[0];
    EXPECT_EQ(z.id(), first->id());
    EXPECT_EQ(z.date(), day - 1ms);
    EXPECT_EQ(z.alias(), std::optional<std::string>("Zed"));
    EXPECT_EQ(z.schedule(), Schedule::annually);
    EXPECT_EQ(z.countMethod(), CountMethod::weekendUsesFridayBefore);
}

TEST_F(LocalRepositoryTest, NotifiesOnceAfterEachSuccessfulChangeOnTheWritingThread) {
    std::vector<std::size_t> seen; // the list as an observer reads it, nested in the write
    std::vector<std::thread::id> threads;
    center.connect(std::string(eventChangeNotification), [&] {
        seen.push_back(store.fetchAll().size());
        threads.push_back(std::this_thread::get_id());
    });
    auto e = event("E", day);
    store.insert(*e);
    store.update(*e);
    store.deleteEvent(*e);
    std::thread writer([&] { store.insert(*event("other", day)); });
    auto writerId = writer.get_id();
    writer.join();
    EXPECT_EQ(seen, (std::vector<std::size_t>{1, 1, 0, 1}));
    EXPECT_EQ(threads.back(), writerId);
    EXPECT_THROW(store.insert(*e), StoreError); // the same id again
    store.connection().run(R"(DROP TABLE "events")");
    EXPECT_THROW(store.update(*e), StoreError);
    EXPECT_THROW(store.deleteEvent(*e), StoreError);
    EXPECT_EQ(seen.size(), 4u);
}

using LocalRepositoryDeathTest = LocalRepositoryTest;

TEST_F(LocalRepositoryDeathTest, StopsWhenTheStoreCannotBeOpened) {
    test::writeFile(dir / "file", "not a folder");
    EXPECT_EXIT({ LocalRepository opened(dir / "file", "EventsV1.db", center, clock); },
                ::testing::ExitedWithCode(3),
                "^Almanor/LocalRepository:40: Fatal error: Failed to initialize local database: "
                "/.*/file is not a folder\n$");
    EXPECT_EXIT({ LocalRepository opened(dir / "file" / "Almanor", "EventsV1.db", center, clock); },
                ::testing::ExitedWithCode(3),
                "Failed to initialize local database: Not a directory\n$");
}

TEST_F(LocalRepositoryTest, AKillInsideAPullsTransactionLeavesNothingOfIt) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Events, their records and the token, then the process dies before the commit.
        Signals quiet;
        LocalRepository mine(dir / "data" / "Almanor", "EventsV1.db", quiet, clock);
        LocalSyncLedger childLedger(mine);
        childLedger.transaction([&] {
            for (int i = 0; i < 200; ++i) {
                std::string name = "rec-" + std::to_string(i);
                childLedger.writePulled(*event(name, utc(2030, 5, 1)), clock.now(),
                                        RecordState{name, name + ".ics", "\"1\""}, std::nullopt);
            }
            childLedger.setSyncToken("zone", "token-1");
            ::kill(::getpid(), SIGKILL);
        });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(ledger.syncRows().empty());
    EXPECT_EQ(ledger.syncToken("zone"), "");
    // And the file takes the next pull whole.
    ledger.transaction([&] {
        ledger.writePulled(*event("After", utc(2030, 5, 2)), clock.now(),
                           RecordState{"r", "r.ics", "\"2\""}, std::nullopt);
        ledger.setSyncToken("zone", "token-2");
    });
    EXPECT_EQ(ledger.syncRows().size(), 1u);
    EXPECT_EQ(ledger.syncToken("zone"), "token-2");
}

TEST_F(LocalRepositoryTest, AnotherProcesssChangeMadeMeanwhileIsLeftAlone) {
    auto e = event("Mine", utc(2030, 5, 1));
    store.insert(*e);
    SyncRow seen = ledger.syncRows().at(0);
    // The command line edits the event while the pull is on the network.
    Signals otherCenter;
    clock.advance(1s);
    e->setName("Edited here meanwhile");
    LocalRepository(dir / "data" / "Almanor", "EventsV1.db", otherCenter, clock).update(*e);

    auto theirs = makeEvent(e->id(), e->date(), "The server's", std::nullopt, Schedule::none,
                            CountMethod::standard);
    int notices = 0;
    center.connect(std::string(eventChangeNotification), [&] { ++notices; });
    ledger.transaction([&] {
        EXPECT_TRUE(ledger.attempt([&] {
            ledger.writePulled(*theirs, clock.now(), RecordState{"r", "r.ics", "\"1\""},
                               seen.version());
        }));
        EXPECT_TRUE(ledger.attempt([&] { ledger.writeRemoved(e->id(), seen.version()); }));
        ledger.setSyncToken("zone", "t");
    });
    SyncRow now = ledger.syncRows().at(0);
    EXPECT_EQ(now.event->name(), "Edited here meanwhile");
    EXPECT_TRUE(now.live() && now.dirty);
    EXPECT_FALSE(now.record);
    EXPECT_EQ(ledger.syncToken("zone"), "t");
    EXPECT_EQ(notices, 0);
    // A push's mark after such an edit links the row but leaves it to be sent again.
    ledger.transaction([&] {
        ledger.markPushed(e->id(), RecordState{"r", "r.ics", "\"2\""}, seen.updated);
    });
    now = ledger.syncRows().at(0);
    EXPECT_EQ(now.syncId, "r");
    EXPECT_TRUE(now.dirty && now.pending());
}

TEST_F(LocalRepositoryTest, ANewFileGetsTheTablesAndAVersionAndSoDoesALostOne) {
    test::LogCapture log;
    auto r = openRepository();
    EXPECT_EQ(scalar(r->local().connection(),
                     R"(SELECT group_concat(name || ' ' || type || ' ' || "notnull" || ' ' ||
                        ifnull(dflt_value, 'NULL') || ' ' || pk || char(10), '') AS "value"
                        FROM pragma_table_info('events'))"),
              eventsColumns);
    EXPECT_EQ(fileVersion(*r), newest);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0); // the settings are the migration's
    EXPECT_TRUE(MigrationManager::migrateIfNeeded(*r, defaults));
    EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 1);
    r.reset();
    std::filesystem::remove(db); // the settings still say it was made once
    r = openRepository();
    EXPECT_TRUE(r->tryFetchAll().value().empty());
    auto e = event("Again", utc(2030, 1, 1));
    EXPECT_TRUE(r->insert(*e));
    EXPECT_TRUE(r->update(*e));
    EXPECT_TRUE(r->deleteEvent(*e));
    EXPECT_FALSE(r->insert(*e)); // the deleted row still holds the id
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Failed to insert record: UNIQUE constraint "
                                                    "failed: events.id (code: 19)"});
}

TEST_F(LocalRepositoryTest, AnOldFileGetsAVersionANewerOneIsLeftAsItIs) {
    oldStoreWithOneEvent();
    auto r = openRepository();
    EXPECT_EQ(fileVersion(*r), newest);
    ASSERT_EQ(r->fetchAll().size(), 1u);
    r.reset();
    auto before = test::readFile(db);
    auto stamp = std::filesystem::last_write_time(db);
    EXPECT_TRUE(MigrationManager::migrate(*openRepository(), defaults)); // up to date: only read
    EXPECT_EQ(test::readFile(db), before);
    EXPECT_EQ(std::filesystem::last_write_time(db), stamp);
    sql::Connection(db.string()).run("PRAGMA user_version = 7");
    EXPECT_EQ(fileVersion(*openRepository()), "7");
}

TEST_F(LocalRepositoryTest, ADamagedFileIsReportedNeverWrittenAndNotFatal) {
    std::string full = oldStoreWithOneEvent();
    std::string current = (openRepository(), test::readFile(db)); // the version recorded
    std::string garbage(4096, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {garbage, "file is not a database (code: 26)"},
        {full.substr(0, full.size() / 2), "database disk image is malformed (code: 11)"},
        {full.substr(0, 50), "database disk image is malformed (code: 11)"},
        // Up to date, the schema page overwritten past the header.
        {current.substr(0, 100) + garbage.substr(100) + current.substr(4096),
         "database disk image is malformed (code: 11)"},
    };
    for (const auto& [bytes, reason] : cases) {
        test::writeFile(db, bytes);
        test::LogCapture log;
        auto r = openRepository();
        EXPECT_EQ(r->local().unusable(), "The event store " + db.string() +
                                             " could not be read: " + reason +
                                             "; restore it from a backup, or move it away to "
                                             "start afresh");
        auto e = event("New", utc(2030, 1, 1));
        EXPECT_FALSE(MigrationManager::migrate(*r, defaults));
        EXPECT_TRUE(r->fetchAll().empty());
        EXPECT_EQ(r->tryFetchAll(), std::nullopt);
        EXPECT_FALSE(r->insert(*e));
        EXPECT_FALSE(r->update(*e));
        EXPECT_FALSE(r->deleteEvent(*e));
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"Failed to fetch records: " + reason,
                                                         "Failed to fetch records: " + reason,
                                                         "Failed to insert record: " + reason,
                                                         "Failed to update record: " + reason,
                                                         "Failed to delete record: " + reason}));
        r.reset();
        EXPECT_EQ(test::readFile(db), bytes);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / "Almanor"), {}), 1);
        EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 0);
    }
}
