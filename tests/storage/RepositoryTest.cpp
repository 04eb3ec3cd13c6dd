#include "storage/Repository.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;

namespace {

class RepositoryTest : public ::testing::Test {
  protected:
    RepositoryTest() {
        token = center.connect(std::string(eventChangeNotification), [this] { ++notifications; });
    }
    ~RepositoryTest() override { center.disconnect(token); }

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2025y / May / 1)};
    Repository repository{
        std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock)};
    Signals::Token token;
    int notifications = 0;
};

} // namespace

TEST_F(RepositoryTest, FailuresAreLoggedAndSwallowed) {
    // Another file, which is no database: the store opens it and every call fails.
    std::filesystem::create_directories(dir / "Other");
    std::ofstream(dir / "Other/EventsV1.db") << std::string(4096, 'x');
    Repository damaged(
        std::make_unique<LocalRepository>(dir / "Other", "EventsV1.db", center, clock));
    auto e = event("E", at(2024y / March / 5));
    test::LogCapture log;
    EXPECT_TRUE(damaged.fetchAll().empty());
    EXPECT_EQ(damaged.tryFetchAll(), std::nullopt);
    EXPECT_FALSE(damaged.insert(*e));
    EXPECT_FALSE(damaged.update(*e));
    EXPECT_FALSE(damaged.deleteEvent(*e));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Failed to fetch records: file is not a database (code: 26)",
                               "Failed to fetch records: file is not a database (code: 26)",
                               "Failed to insert record: file is not a database (code: 26)",
                               "Failed to update record: file is not a database (code: 26)",
                               "Failed to delete record: file is not a database (code: 26)",
                           }));
    EXPECT_EQ(notifications, 0);
}

TEST_F(RepositoryTest, SuccessesReachTheStoreQuietly) {
    test::LogCapture log;
    auto tried = repository.tryFetchAll();
    ASSERT_TRUE(tried); // an empty list, which is not a failure
    EXPECT_TRUE(tried->empty());

    auto e = event("E", at(2024y / March / 5));
    EXPECT_TRUE(repository.insert(*e));
    e->setName("F");
    EXPECT_TRUE(repository.update(*e));
    auto events = repository.fetchAll();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->name(), "F");
    EXPECT_TRUE(repository.deleteEvent(*e));
    EXPECT_TRUE(repository.fetchAll().empty());
    EXPECT_EQ(notifications, 3);
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(repository.insert(*e)); // the soft-deleted row still holds the id
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0],
              "Failed to insert record: UNIQUE constraint failed: events.id (code: 19)");
}
