#include "storage/MigrationManager.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"
#include "platform/Settings.h"
#include "platform/UserDefaults.h"
#include "storage/Repository.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using almanor::test::scalar;

namespace {

const std::string createEvents =
    R"(CREATE TABLE IF NOT EXISTS "events" ("id" TEXT PRIMARY KEY NOT NULL, "name" TEXT NOT NULL, "alias" TEXT, "date" TEXT NOT NULL, "schedule" INTEGER NOT NULL, "method" INTEGER NOT NULL, "created" TEXT NOT NULL, "updated" TEXT NOT NULL, "deleted" TEXT, "sync_id" TEXT, "sync_date" TEXT, "sync_dirty" INTEGER NOT NULL DEFAULT 0, "sync_deleted" INTEGER NOT NULL DEFAULT 0))";

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

class MigrationManagerTest : public ::testing::Test {
  protected:
    Repository& repository() {
        if (!repository_) {
            repository_ = std::make_unique<Repository>(
                std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center));
        }
        return *repository_;
    }
    std::string tableSql() {
        return scalar(repository().local().connection(),
                      R"(SELECT "sql" AS "value" FROM "sqlite_master" WHERE "name" = 'events')");
    }

    test::TempDir dir;
    NotificationCenter center;
    UserDefaults defaults{dir / "config/settings.ini"};
    std::unique_ptr<Repository> repository_;
};

} // namespace

TEST_F(MigrationManagerTest, BuildsTheTableFromItsColumns) {
    auto statement = MigrationManager::createTableStatement(EventsTable{});
    EXPECT_EQ(statement.text, createEvents);
    EXPECT_TRUE(statement.bindings.empty());
}

TEST_F(MigrationManagerTest, FirstStartCreatesFolderFileAndTableAndRecordsIt) {
    MigrationManager::migrateIfNeeded(repository(), defaults);
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "Almanor/EventsV1.db"));
    // SQLite keeps the text it ran, without IF NOT EXISTS.
    EXPECT_EQ("CREATE TABLE IF NOT EXISTS " + tableSql().substr(13), createEvents);
    EXPECT_EQ(UserDefaults(dir / "config/settings.ini").integer(Settings::buildVersion), 1);
}

TEST_F(MigrationManagerTest, AMigratedStoreWhoseFileWentMissingIsLeftWithoutTable) {
    defaults.setInteger(Settings::buildVersion, 1);
    MigrationManager::migrateIfNeeded(repository(), defaults);
    EXPECT_EQ(tableSql(), "<no row>");
    test::LogCapture log;
    EXPECT_EQ(repository().tryFetchAll(), std::nullopt);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"Failed to fetch records: no such table: events (code: 1)"});
}

TEST_F(MigrationManagerTest, RunningAgainOverAPopulatedTableChangesNothing) {
    MigrationManager::migrate(repository(), defaults);
    auto e = event("Kept", at(2024y / March / 5));
    ASSERT_TRUE(repository().insert(*e));
    auto before = contents(dir / "Almanor/EventsV1.db");

    defaults.setInteger(Settings::buildVersion, 0); // the preferences were deleted
    MigrationManager::migrateIfNeeded(repository(), defaults);
    EXPECT_EQ(contents(dir / "Almanor/EventsV1.db"), before);
    auto events = repository().fetchAll();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->id(), e->id());
    EXPECT_EQ(defaults.integer(Settings::buildVersion), 1);
}

TEST_F(MigrationManagerTest, ATableThatCannotBeCreatedStopsTheProcessAndKeepsBuildVersion) {
    std::filesystem::create_directories(dir / "Almanor");
    std::ofstream(dir / "Almanor/EventsV1.db") << std::string(4096, 'x');
    EXPECT_EXIT(MigrationManager::migrateIfNeeded(repository(), defaults),
                ::testing::ExitedWithCode(3),
                "^Almanor/MigrationManager:36: Fatal error: Failed to create local database: file "
                "is not a database \\(code: 26\\)\n$");
    EXPECT_EQ(UserDefaults(dir / "config/settings.ini").integer(Settings::buildVersion), 0);
}
