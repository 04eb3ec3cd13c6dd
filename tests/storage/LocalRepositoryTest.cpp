#include "storage/LocalRepository.h"

#include "StorageTesting.h"
#include "TempDir.h"

#include <gtest/gtest.h>
#include <thread>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using almanor::test::scalar;

namespace {

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

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2025y / January / 10, 8h)};
    LocalRepository store{dir / "data" / "Almanor", "EventsV1.db", center, clock};
    Instant day = at(2024y / March / 5);
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
