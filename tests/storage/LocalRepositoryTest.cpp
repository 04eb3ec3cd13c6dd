#include "storage/LocalRepository.h"

#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"
#include "platform/Settings.h"
#include "storage/MigrationManager.h"
#include "storage/sql/Error.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using almanor::test::scalar;

namespace {

const std::string zone = "events";

std::vector<std::string> names(const std::vector<EventPtr>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) {
        out.push_back(e->name());
    }
    return out;
}

class LocalRepositoryTest : public ::testing::Test {
  protected:
    LocalRepositoryTest() {
        store.connection().run(MigrationManager::createTableStatement(store.events()));
    }

    // The columns of one row as SQLite's quote() writes them, joined by "|".
    std::string row(const Event& e, const std::string& columns) {
        std::string select;
        std::size_t start = 0;
        while (start <= columns.size()) {
            auto end = std::min(columns.find(',', start), columns.size());
            if (!select.empty()) {
                select += " || '|' || ";
            }
            select += "quote(\"" + columns.substr(start, end - start) + "\")";
            start = end + 1;
        }
        return scalar(store.connection(), "SELECT " + select +
                                              " AS \"value\" FROM \"events\" WHERE \"id\" = '" +
                                              e.id().uuidString() + "'");
    }

    std::string count() {
        return scalar(store.connection(), R"(SELECT count(*) AS "value" FROM "events")");
    }

    test::TempDir dir;
    Signals center;
    Instant t0 = at(2025y / January / 10, 8h);
    FixedClock clock{t0};
    LocalRepository store{dir / "data" / "Almanor", "EventsV1.db", center, clock};
    Instant day = at(2024y / March / 5);
};

} // namespace

TEST_F(LocalRepositoryTest, CreatesTheDirectoryWithItsParentsAndStartsEmpty) {
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "data/Almanor/EventsV1.db"));
    EXPECT_TRUE(store.fetchAll().empty());
}

TEST_F(LocalRepositoryTest, WritesTheRowInItsEncodingsWithOneNowPerChange) {
    auto date = floor<milliseconds>(sys_days{2024y / March / 5} + 10h + 20min + 30s + 123456us);
    auto e = makeEvent(Uuid::random(), date, "Trip", std::nullopt, Schedule::monthly,
                       CountMethod::weekendUsesMondayAfter);
    store.insert(*e);
    const std::string all = "id,name,alias,date,schedule,method,created,updated,deleted,sync_id,"
                            "sync_date,sync_dirty,sync_deleted";
    EXPECT_EQ(row(*e, all),
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
    EXPECT_EQ(row(*e, "name,deleted,updated"),
              "'Trip'|'2025-01-10T10:30:00.001'|'2025-01-10T09:30:00.001'");
}

TEST_F(LocalRepositoryTest, ListsLiveEventsByDateThenByBinaryNameOrder) {
    auto lower = event("b", day, std::string(""), Schedule::weekly, CountMethod::excludeWeekends);
    auto upper = event("B", day);
    auto first = event("z", day - 1ms, std::string("Zed"), Schedule::annually,
                       CountMethod::weekendUsesFridayBefore);
    auto a = event("a", day);
    auto gone = event("A", day);
    for (const auto& e : {lower, upper, first, a, gone}) {
        store.insert(*e);
    }
    store.deleteEvent(*gone);

    auto events = store.fetchAll();
    EXPECT_EQ(names(events), (std::vector<std::string>{"z", "B", "a", "b"}));
    // A deleted event is hidden at once but stays in the file.
    EXPECT_EQ(count(), "5");

    const Event& z = *events[0];
    EXPECT_EQ(z.id(), first->id());
    EXPECT_EQ(z.date(), day - 1ms);
    EXPECT_EQ(z.alias(), std::optional<std::string>("Zed"));
    EXPECT_EQ(z.schedule(), Schedule::annually);
    EXPECT_EQ(z.countMethod(), CountMethod::weekendUsesFridayBefore);
    EXPECT_EQ(events[1]->alias(), std::nullopt);
    EXPECT_EQ(events[3]->alias(), std::optional<std::string>(""));
    EXPECT_EQ(events[3]->countMethod(), CountMethod::excludeWeekends);
}

TEST_F(LocalRepositoryTest, StoredCodesOutOfRangeLoadAsTheFirstCase) {
    auto bad = event("bad", day);
    auto good = event("good", day, {}, Schedule::annually, CountMethod::weekendUsesMondayAfter);
    store.insert(*bad);
    store.insert(*good);
    store.connection().run(
        R"(UPDATE "events" SET "schedule" = 7, "method" = -1 WHERE "name" = 'bad')");
    auto events = store.fetchAll();
    ASSERT_EQ(names(events), (std::vector<std::string>{"bad", "good"}));
    EXPECT_EQ(events[0]->schedule(), Schedule::none);
    EXPECT_EQ(events[0]->countMethod(), CountMethod::standard);
    EXPECT_EQ(events[1]->schedule(), Schedule::annually);
    EXPECT_EQ(events[1]->countMethod(), CountMethod::weekendUsesMondayAfter);
}

TEST_F(LocalRepositoryTest, NotifiesOnceAfterEachSuccessfulChangeOnTheWritingThread) {
    std::vector<std::size_t> seen; // the list as an observer reads it, nested in the write
    std::vector<std::thread::id> threads;
    auto token = center.connect(std::string(eventChangeNotification), [&] {
        seen.push_back(store.fetchAll().size());
        threads.push_back(std::this_thread::get_id());
    });

    auto e = event("E", day);
    store.insert(*e);
    store.update(*e);
    store.deleteEvent(*e);
    EXPECT_EQ(seen, (std::vector<std::size_t>{1, 1, 0}));

    auto other = event("other", day);
    std::thread writer([&] { store.insert(*other); });
    auto writerId = writer.get_id();
    writer.join();
    ASSERT_EQ(threads.size(), 4u);
    EXPECT_EQ(threads.back(), writerId);

    EXPECT_THROW(store.insert(*other), StoreError); // the same id again
    store.connection().run(R"(DROP TABLE "events")");
    EXPECT_THROW(store.update(*other), StoreError);
    EXPECT_THROW(store.deleteEvent(*other), StoreError);
    EXPECT_EQ(threads.size(), 4u);
    center.disconnect(token);
}

TEST(LocalRepositoryDeathTest, StopsWhenTheStoreCannotBeOpened) {
    test::TempDir dir;
    std::ofstream(dir / "file") << "not a folder";
    Signals center;
    SystemClock clock;
    EXPECT_EXIT(
        { LocalRepository store(dir / "file", "EventsV1.db", center, clock); },
        ::testing::ExitedWithCode(3),
        "^Almanor/LocalRepository:[0-9]+: Fatal error: Failed to initialize local database: "
        "/.*/file is not a folder\n$");
    EXPECT_EXIT(
        { LocalRepository store(dir / "file" / "Almanor", "EventsV1.db", center, clock); },
        ::testing::ExitedWithCode(3),
        "^Almanor/LocalRepository:[0-9]+: Fatal error: Failed to initialize local database: "
        "Not a directory\n$");
}
