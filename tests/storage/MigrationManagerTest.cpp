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

#include <gtest/gtest.h>

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

class MigrationManagerTest : public ::testing::Test {
  protected:
    std::unique_ptr<Repository> open() {
        return std::make_unique<Repository>(
            std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock));
    }
    std::string columns(Repository& r) {
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
        EXPECT_TRUE(open()->insert(*event("Kept", at(2024y / March / 5))));
        sql::Connection(db.string()).run("PRAGMA user_version = 0");
        return test::readFile(db);
    }

    test::TempDir dir;
    std::filesystem::path db = dir / "Almanor/EventsV1.db";
    Signals center;
    SystemClock clock;
    SettingsFile defaults{dir / "config/settings.ini"};
    const std::string newest = std::to_string(schemaVersions(EventsTable{}).back().version);
};

} // namespace

TEST_F(MigrationManagerTest, ANewFileGetsTheTablesAndAVersionAndSoDoesALostOne) {
    auto r = open();
    EXPECT_EQ(columns(*r), eventsColumns);
    EXPECT_EQ(fileVersion(*r), newest);
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 0); // the settings are the migration's
    EXPECT_TRUE(MigrationManager::migrateIfNeeded(*r, defaults));
    EXPECT_EQ(SettingsFile(dir / "config/settings.ini").integer(Settings::buildVersion), 1);
    r.reset();
    std::filesystem::remove(db); // the settings still say it was made once
    r = open();
    ASSERT_TRUE(r->tryFetchAll());
    EXPECT_TRUE(r->tryFetchAll()->empty());
    EXPECT_TRUE(r->insert(*event("Again", at(2030y / January / 1))));
}

TEST_F(MigrationManagerTest, AnOldFileGetsAVersionANewerOneIsLeftAsItIs) {
    oldStoreWithOneEvent();
    auto r = open();
    EXPECT_EQ(fileVersion(*r), newest);
    ASSERT_EQ(r->fetchAll().size(), 1u);
    r.reset();
    auto before = test::readFile(db);
    auto stamp = std::filesystem::last_write_time(db);
    EXPECT_TRUE(MigrationManager::migrate(*open(), defaults)); // up to date: only read
    EXPECT_EQ(test::readFile(db), before);
    EXPECT_EQ(std::filesystem::last_write_time(db), stamp);
    sql::Connection(db.string()).run("PRAGMA user_version = 7");
    EXPECT_EQ(fileVersion(*open()), "7");
}

TEST_F(MigrationManagerTest, ADamagedFileIsReportedNeverWrittenAndNotFatal) {
    std::string full = oldStoreWithOneEvent();
    std::string current = (open(), test::readFile(db)); // the version recorded
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
        auto r = open();
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
