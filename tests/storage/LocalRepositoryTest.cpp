// The store in its real file: the rows in their encodings, the notices, the tables made and
// versioned, damaged files, and the sync's bookkeeping.
#include "storage/LocalRepository.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/StoreSchema.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using almanor::test::scalar;

namespace {

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
    // Columns of the event's row as SQLite's quote() writes them, joined by "|".
    std::string row(const Event& e, const std::string& columns) {
        std::string select = "quote(\"" + columns + "\")";
        for (auto at = select.find(','); at != std::string::npos; at = select.find(',', at)) {
            select.replace(at, 1, "\") || '|' || quote(\"");
        }
        return scalar(store.connection(), "SELECT " + select + " AS \"value\" FROM \"events\" " +
                                              "WHERE \"id\" = '" + e.id().uuidString() + "'");
    }

    // The store as another process opens it.
    std::unique_ptr<LocalRepository> open(Signals& notices) {
        return std::make_unique<LocalRepository>(dir / "data" / "Almanor", "EventsV1.db", notices,
                                                 clock);
    }

    // The store through its repository, in a folder of its own.
    std::unique_ptr<Repository> openRepository() {
        return std::make_unique<Repository>(
            std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock));
    }
    std::string tableColumns(Repository& r) {
        return scalar(r.local().connection(),
                      R"(SELECT group_concat(name || ' ' || type || ' ' || "notnull" || ' ' ||
                         ifnull(dflt_value, 'NULL') || ' ' || pk || char(10), '') AS "value"
                         FROM pragma_table_info('events'))");
    }
    std::string fileVersion(Repository& r) {
        return scalar(r.local().connection(),
                      "SELECT user_version AS value FROM pragma_user_version");
    }
    // As a build before the version was kept left it: one event, version 0.
    std::string oldStoreWithOneEvent() {
        EXPECT_TRUE(openRepository()->insert(*event("Kept", at(2024y / March / 5))));
        sql::Connection(db.string()).run("PRAGMA user_version = 0");
        return test::readFile(db);
    }

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2025y / January / 10, 8h)};
    LocalRepository store{dir / "data" / "Almanor", "EventsV1.db", center, clock};
    LocalSyncLedger ledger{store};
    Instant day = at(2024y / March / 5);
    std::filesystem::path db = dir / "Almanor/EventsV1.db";
    SettingsFile defaults{dir / "config/settings.ini"};
    const std::string newest = std::to_string(schemaVersions(EventsTable{}).back().version);
};

} // namespace

TEST_F(LocalRepositoryTest, WritesTheRowInItsEncodingsWithOneNowPerChange) {
    auto e = makeEvent(Uuid::random(), day + 10h + 20min + 30s + 123ms, "Trip", std::nullopt,
                       Schedule::monthly, CountMethod::weekendUsesMondayAfter);
    store.insert(*e);
    EXPECT_EQ(row(*e, "id,name,alias,date,schedule,method,created,updated,deleted,sync_id,"
                      "sync_date,sync_dirty,sync_deleted"),
              "'" + e->id().uuidString() +
                  "'|'Trip'|NULL|'2024-03-05T10:20:30.123'|2|3|'2025-01-10T08:00:00.000'|"
                  "'2025-01-10T08:00:00.000'|NULL|NULL|NULL|0|0");
    clock.advance(90min + 1ms);
    e->setAlias(std::string(""));
    store.update(*e);
    // An empty alias stays an empty text; only none is NULL.
    EXPECT_EQ(row(*e, "alias,created,updated,deleted,sync_dirty"),
              "''|'2025-01-10T08:00:00.000'|'2025-01-10T09:30:00.001'|NULL|1");
    clock.advance(1h);
    store.deleteEvent(*e);
    EXPECT_EQ(row(*e, "deleted,updated"), "'2025-01-10T10:30:00.001'|'2025-01-10T09:30:00.001'");
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
    for (const auto& e : events) {
        names.push_back(e->name());
    }
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

TEST(LocalRepositoryDeathTest, StopsWhenTheStoreCannotBeOpened) {
    test::TempDir dir;
    test::writeFile(dir / "file", "not a folder");
    Signals center;
    SystemClock clock;
    EXPECT_EXIT({ LocalRepository store(dir / "file", "EventsV1.db", center, clock); },
                ::testing::ExitedWithCode(3),
                "^Almanor/LocalRepository:40: Fatal error: Failed to initialize local database: "
                "/.*/file is not a folder\n$");
    EXPECT_EXIT({ LocalRepository store(dir / "file" / "Almanor", "EventsV1.db", center, clock); },
                ::testing::ExitedWithCode(3),
                "Failed to initialize local database: Not a directory\n$");
}

// Failures are logged and swallowed; successes reach the store quietly.
TEST_F(LocalRepositoryTest, TheRepositoryLogsAndSwallowsFailures) {
    auto repository = openRepository();
    test::LogCapture log;
    auto e = event("E", day);
    EXPECT_TRUE(repository->tryFetchAll());
    EXPECT_TRUE(repository->insert(*e));
    EXPECT_TRUE(repository->update(*e));
    EXPECT_TRUE(repository->deleteEvent(*e));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(repository->insert(*e)); // the deleted row still holds the id
    // Another file, which is no database: the store opens it and every call fails.
    test::writeFile(dir / "Other/EventsV1.db", std::string(4096, 'x'));
    Repository damaged(
        std::make_unique<LocalRepository>(dir / "Other", "EventsV1.db", center, clock));
    EXPECT_TRUE(damaged.fetchAll().empty());
    EXPECT_EQ(damaged.tryFetchAll(), std::nullopt);
    EXPECT_FALSE(damaged.update(*e));
    EXPECT_FALSE(damaged.deleteEvent(*e));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Failed to insert record: UNIQUE constraint failed: events.id (code: 19)",
                  "Failed to fetch records: file is not a database (code: 26)",
                  "Failed to fetch records: file is not a database (code: 26)",
                  "Failed to update record: file is not a database (code: 26)",
                  "Failed to delete record: file is not a database (code: 26)"}));
}

// The sync's bookkeeping in the real file: what a kill in the middle leaves, and what another
// process's change in the middle is spared.
TEST_F(LocalRepositoryTest, AKillInsideAPullsTransactionLeavesNothingOfIt) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Events, their records and the token, then the process dies before the commit.
        Signals quiet;
        auto mine = open(quiet);
        LocalSyncLedger childLedger(*mine);
        childLedger.transaction([&] {
            for (int i = 0; i < 200; ++i) {
                std::string name = "rec-" + std::to_string(i);
                childLedger.writePulled(*event(name, at(2030y / May / 1)), clock.now(),
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
        ledger.writePulled(*event("After", at(2030y / May / 2)), clock.now(),
                           RecordState{"r", "r.ics", "\"2\""}, std::nullopt);
        ledger.setSyncToken("zone", "token-2");
    });
    EXPECT_EQ(ledger.syncRows().size(), 1u);
    EXPECT_EQ(ledger.syncToken("zone"), "token-2");
}

TEST_F(LocalRepositoryTest, AnotherProcesssChangeMadeMeanwhileIsLeftAlone) {
    auto e = event("Mine", at(2030y / May / 1));
    store.insert(*e);
    SyncRow seen = ledger.syncRows().at(0);
    // The command line edits the event while the pull is on the network.
    Signals otherCenter;
    clock.advance(1s);
    e->setName("Edited here meanwhile");
    open(otherCenter)->update(*e);

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
    auto r = openRepository();
    EXPECT_EQ(tableColumns(*r), eventsColumns);
    EXPECT_EQ(fileVersion(*r), newest);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0); // the settings are the migration's
    EXPECT_TRUE(MigrationManager::migrateIfNeeded(*r, defaults));
    EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 1);
    r.reset();
    std::filesystem::remove(db); // the settings still say it was made once
    r = openRepository();
    ASSERT_TRUE(r->tryFetchAll());
    EXPECT_TRUE(r->tryFetchAll()->empty());
    EXPECT_TRUE(r->insert(*event("Again", at(2030y / January / 1))));
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
    std::string garbage(4096, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = char((i * 7919 + 13) % 251);
    }
    const std::pair<std::string, const char*> cases[] = {
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
        EXPECT_FALSE(MigrationManager::migrate(*r, defaults));
        EXPECT_FALSE(r->insert(*event("New", at(2030y / January / 1))));
        EXPECT_EQ(log.lines().size(), 1u);
        r.reset();
        EXPECT_EQ(test::readFile(db), bytes);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / "Almanor"), {}), 1);
        EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 0);
    }
}
