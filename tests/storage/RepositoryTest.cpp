#include "storage/Repository.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"

#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;

// Failures are logged and swallowed; successes reach the store quietly.
TEST(RepositoryTest, FailuresAreLoggedAndSwallowed) {
    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2025y / May / 1)};
    Repository repository{
        std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock)};
    test::LogCapture log;
    auto e = event("E", at(2024y / March / 5));
    EXPECT_TRUE(repository.tryFetchAll());
    EXPECT_TRUE(repository.insert(*e));
    EXPECT_TRUE(repository.update(*e));
    EXPECT_TRUE(repository.deleteEvent(*e));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(repository.insert(*e)); // the deleted row still holds the id
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
