// The store's tables: made whenever an opened file lacks them, recorded in the file's
// user_version, and never written into a file that cannot be read.
#include "storage/MigrationManager.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/Repository.h"
#include "storage/StoreSchema.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using almanor::test::scalar;

namespace {

// The events table as the file holds it, one column a line: name, type, not null, default, key.
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

std::string columnsOf(sql::Connection& connection) {
    return scalar(connection,
                  R"(SELECT group_concat(name || ' ' || type || ' ' || "notnull" || ' ' ||
                                 ifnull(dflt_value, 'NULL') || ' ' || pk || char(10), '') AS "value"
                                 FROM pragma_table_info('events'))");
}

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void write(const std::filesystem::path& file, const std::string& bytes) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
}

std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Runs SQL on the file with a connection of its own, as another program would.
void runOnFile(const std::filesystem::path& file, const std::string& sql) {
    sql::Connection other(file.string());
    other.run(sql);
}

class MigrationManagerTest : public ::testing::Test {
  protected:
    std::unique_ptr<Repository> open() {
        return std::make_unique<Repository>(
            std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock));
    }
    static std::string fileVersion(Repository& r) {
        return scalar(r.local().connection(),
                      "SELECT user_version AS value FROM pragma_user_version");
    }
    // A store with one event, as a build before the version was kept left it: version 0.
    std::string oldStoreWithOneEvent() {
        {
            auto r = open();
            EXPECT_TRUE(r->insert(*event("Kept", at(2024y / March / 5))));
        }
        runOnFile(db, "PRAGMA user_version = 0");
        return contents(db);
    }

    test::TempDir dir;
    std::filesystem::path db = dir / "Almanor/EventsV1.db";
    Signals center;
    SystemClock clock;
    SettingsFile defaults{dir / "config/settings.ini"};
};

} // namespace

TEST_F(MigrationManagerTest, BuildsTheTableFromItsColumns) {
    sql::Connection scratch(":memory:");
    scratch.run(MigrationManager::createTableStatement(EventsTable{}));
    EXPECT_EQ(columnsOf(scratch), eventsColumns);
    scratch.run(MigrationManager::createTableStatement(EventsTable{})); // again: no harm
    // The first schema step makes that table: files made before the version was kept have it.
    auto versions = schemaVersions(EventsTable{});
    ASSERT_FALSE(versions.empty());
    EXPECT_EQ(versions.front().version, 1);
    sql::Connection first(":memory:");
    for (const auto& statement : versions.front().statements) {
        first.run(statement);
    }
    EXPECT_EQ(columnsOf(first), eventsColumns);
    for (std::size_t i = 1; i < versions.size(); ++i) {
        EXPECT_GT(versions[i].version, versions[i - 1].version) << "steps run in this order";
    }
}

TEST_F(MigrationManagerTest, OpeningANewFileMakesTheTableAndTheMigrationRecordsIt) {
    auto r = open();
    EXPECT_TRUE(std::filesystem::is_regular_file(db));
    EXPECT_EQ(columnsOf(r->local().connection()), eventsColumns);
    EXPECT_EQ(fileVersion(*r), std::to_string(schemaVersions(EventsTable{}).back().version));
    EXPECT_EQ(r->local().unusable(), std::nullopt);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0); // the settings are the migration's
    EXPECT_TRUE(MigrationManager::migrateIfNeeded(*r, defaults));
    EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 1);
}

TEST_F(MigrationManagerTest, ADatabaseFileLostAfterTheMigrationStartsEmptyAndTakesTheNextAdd) {
    ASSERT_TRUE(MigrationManager::migrateIfNeeded(*open(), defaults));
    std::filesystem::remove(db);
    test::LogCapture log;
    auto r = open();
    ASSERT_TRUE(MigrationManager::migrateIfNeeded(*r, defaults)); // skipped: buildVersion is 1
    auto listed = r->tryFetchAll();
    ASSERT_TRUE(listed);
    EXPECT_TRUE(listed->empty());
    auto e = event("Again", at(2030y / January / 1));
    EXPECT_TRUE(r->insert(*e));
    ASSERT_EQ(r->fetchAll().size(), 1u);
    EXPECT_EQ(r->fetchAll()[0]->id(), e->id());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MigrationManagerTest, AFileWithoutAVersionGetsOneAndKeepsItsRows) {
    oldStoreWithOneEvent();
    auto r = open();
    EXPECT_EQ(fileVersion(*r), std::to_string(schemaVersions(EventsTable{}).back().version));
    ASSERT_EQ(r->fetchAll().size(), 1u);
    EXPECT_EQ(r->fetchAll()[0]->name(), "Kept");
    // The preferences were deleted: the migration runs again and changes nothing in the file.
    auto before = contents(db);
    EXPECT_TRUE(MigrationManager::migrate(*r, defaults));
    EXPECT_EQ(contents(db), before);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 1);
}

TEST_F(MigrationManagerTest, AnUpToDateFileIsOnlyReadAndANewerOneLeftAsItIs) {
    open();
    auto before = contents(db);
    auto stamp = std::filesystem::last_write_time(db);
    open();
    EXPECT_EQ(contents(db), before);
    EXPECT_EQ(std::filesystem::last_write_time(db), stamp);

    // A later build has moved the file on: this one neither downgrades nor re-runs its steps.
    runOnFile(db, "PRAGMA user_version = 7");
    auto r = open();
    EXPECT_EQ(fileVersion(*r), "7");
    EXPECT_EQ(r->local().unusable(), std::nullopt);
}

TEST_F(MigrationManagerTest, AZeroByteFileIsANewStore) {
    write(db, "");
    auto r = open();
    EXPECT_EQ(r->local().unusable(), std::nullopt);
    EXPECT_TRUE(r->insert(*event("E", at(2030y / January / 1))));
}

TEST_F(MigrationManagerTest, StoresOpeningOneNewFileTogetherAllGetTheTable) {
    std::vector<std::thread> openers;
    std::vector<std::optional<std::string>> problems(4);
    for (std::size_t i = 0; i < problems.size(); ++i) {
        openers.emplace_back([&, i] {
            LocalRepository store(dir / "Almanor", "EventsV1.db", center, clock);
            problems[i] = store.unusable();
            if (!problems[i]) {
                store.insert(*event("E" + std::to_string(i), at(2030y / January / 1)));
            }
        });
    }
    for (auto& t : openers) {
        t.join();
    }
    for (const auto& p : problems) {
        EXPECT_EQ(p, std::nullopt);
    }
    EXPECT_EQ(open()->fetchAll().size(), problems.size());
}

TEST_F(MigrationManagerTest, ADamagedFileIsReportedNeverWrittenAndNotFatal) {
    std::string full = oldStoreWithOneEvent();
    std::string current = (open(), contents(db)); // the version recorded
    std::string garbage(4096, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = char((i * 7919 + 13) % 251);
    }
    struct Case {
        const char* what;
        std::string bytes;
        const char* reason;
    };
    for (const auto& c :
         {Case{"garbage", garbage, "file is not a database (code: 26)"},
          Case{"half a store", full.substr(0, full.size() / 2),
               "database disk image is malformed (code: 11)"},
          Case{"a cut header", full.substr(0, 50), "database disk image is malformed (code: 11)"},
          Case{"an up-to-date store, its schema page overwritten",
               current.substr(0, 100) + garbage.substr(100) + current.substr(4096),
               "database disk image is malformed (code: 11)"}}) {
        SCOPED_TRACE(c.what);
        write(db, c.bytes);
        test::LogCapture log;
        auto r = open();
        EXPECT_EQ(r->local().unusable(),
                  "The event store " + db.string() + " could not be read: " + c.reason +
                      "; restore it from a backup, or move it away to start afresh");
        EXPECT_FALSE(MigrationManager::migrate(*r, defaults));
        EXPECT_EQ(r->tryFetchAll(), std::nullopt);
        EXPECT_FALSE(r->insert(*event("New", at(2030y / January / 1))));
        EXPECT_EQ(log.lines().size(), 2u); // the repository's own two
        r.reset();
        EXPECT_EQ(contents(db), c.bytes);
        EXPECT_EQ(filesIn(dir / "Almanor"), std::vector<std::string>{"EventsV1.db"});
        EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 0);
    }
    // Put back, the store is whole again.
    write(db, full);
    EXPECT_EQ(open()->fetchAll().size(), 1u);
}
