#include "FakeCloudService.h"
#include "LogCapture.h"
#include "StorageTesting.h"
#include "TempDir.h"
#include "cloud/RecordMapping.h"
#include "platform/Settings.h"
#include "platform/UserDefaults.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <thread>

using namespace almanor;
using namespace std::chrono;
using almanor::test::at;
using almanor::test::event;
using test::FakeCloudService;
using Op = FakeCloudService::Op;
using Lines = std::vector<std::string>;

namespace {

const std::string appZone{appZoneName};

class RepositorySync : public ::testing::Test {
  protected:
    RepositorySync() { repository = open(); }

    // Another Repository over the same file and the same cloud, as a second process would have.
    std::unique_ptr<Repository> open() {
        auto r = std::make_unique<Repository>(
            std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock),
            [this] { return std::static_pointer_cast<CloudService>(fake); }, &defaults);
        // Harmless over the table that the first one created.
        r->local().connection().run(MigrationManager::createTableStatement(r->local().events()));
        return r;
    }

    void push() {
        repository->sync();
        repository->waitForSync();
    }

    // The event a record in the cloud stands for.
    static EventPtr eventOf(const CloudRecord& record) { return eventFromRecord(record).event; }

    std::vector<std::string> cloudNames() {
        std::vector<std::string> names;
        for (const auto& r : fake->stored(appZone))
            names.push_back(eventOf(r)->name());
        std::sort(names.begin(), names.end());
        return names;
    }

    test::TempDir dir;
    NotificationCenter center;
    FixedClock clock{at(2026y / November / 22)};
    UserDefaults defaults{dir / "settings.ini"};
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
    std::unique_ptr<Repository> repository;
};

TEST_F(RepositorySync, WithoutAnAccountEverythingStaysPending) {
    Repository none(std::make_unique<LocalRepository>(dir / "Other", "EventsV1.db", center, clock));
    none.local().connection().run(MigrationManager::createTableStatement(none.local().events()));
    none.insert(*event("E", at(2030y / January / 1)));
    test::LogCapture log;
    none.populateFromCloud();
    none.sync();
    none.waitForSync();
    none.sync();
    none.waitForSync();
    none.finishCloudWork();
    EXPECT_EQ(
        log.lines(),
        (Lines{"No zone found in the cloud, no need to migrate", "No cloudkit account available",
               "Cloud not available for syncing", "Cloud not available for syncing"}));
    EXPECT_EQ(none.local().pendingChanges().inserted.size(), 1u);
}

TEST_F(RepositorySync, PushSendsEachListAndMarksOnlyWhatWentThrough) {
    auto a = event("A", at(2030y / January / 1));
    auto b = event("B", at(2030y / January / 2));
    auto c = event("C", at(2030y / January / 3));
    for (const auto& e : {a, b, c})
        repository->insert(*e);
    const std::string bad = b->id().uuidString();
    fake->setFailureHook([&](const FakeCloudService::Call& call) -> std::optional<std::string> {
        if (call.op == Op::saveRecord &&
            std::get<std::string>(call.record->fields.at("CD_eventId")) == bad)
            return "HTTP 503";
        return std::nullopt;
    });
    test::LogCapture log;
    push();
    EXPECT_EQ(log.lines(), Lines{"Unable to insert record " + bad + ": HTTP 503"});
    EXPECT_EQ(cloudNames(), (std::vector<std::string>{"A", "C"}));
    auto pending = repository->local().pendingChanges();
    ASSERT_EQ(pending.inserted.size(), 1u);
    EXPECT_EQ(pending.inserted[0].event->id(), b->id());

    // The failed one goes again as an insert; an edit and a delete of pushed rows follow.
    fake->clearFailures();
    a->setName("A2");
    repository->update(*a);
    repository->deleteEvent(*c);
    push();
    fake->waitForBackgroundWork();
    EXPECT_EQ(cloudNames(), (std::vector<std::string>{"A2", "B"}));
    pending = repository->local().pendingChanges();
    EXPECT_TRUE(pending.inserted.empty());
    EXPECT_TRUE(pending.updated.empty());
    EXPECT_TRUE(pending.deleted.empty());
    EXPECT_EQ(fake->stored(appZone).size(), 2u) << "nothing pushed twice";
}

TEST_F(RepositorySync, PullLogsEachRecordAndKeepsUnpushedLocalEdits) {
    auto same = event("Same", at(2030y / March / 1));
    auto changed = event("Local", at(2030y / March / 2));
    auto edited = event("Edited here", at(2030y / March / 3));
    for (const auto& e : {same, changed, edited})
        repository->insert(*e);
    push();
    ASSERT_EQ(fake->stored(appZone).size(), 3u);
    // Another machine changes two records; this one edits the third without pushing it.
    for (auto record : fake->stored(appZone)) {
        auto e = eventOf(record);
        if (e->id() == same->id())
            continue;
        record.fields["CD_name"] = std::string("From cloud");
        fake->seed(record);
    }
    edited->setName("Edited again");
    repository->update(*edited);
    auto fresh = makeEvent(Uuid::random(), at(2030y / April / 1), "New", std::nullopt,
                           Schedule::none, CountMethod::standard);
    CloudRecord freshRecord = recordFromEvent(CloudEvent{std::nullopt, fresh});
    fake->seed(freshRecord);
    defaults.setBoolean(Settings::appZoneUsed, true);

    std::map<std::string, std::string> expected; // id -> what the pull says about it
    expected[same->id().uuidString()] = "  skipping...";
    expected[changed->id().uuidString()] = "  updating...";
    expected[edited->id().uuidString()] = "  keeping local change...";
    expected[fresh->id().uuidString()] = "  inserting...";
    test::LogCapture log;
    repository->populateFromCloud();
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 8u);
    for (std::size_t i = 0; i < lines.size(); i += 2) {
        // "Populating <id> <record name> <zone>"
        auto id = lines[i].substr(std::string("Populating ").size(), 36);
        auto record = fake->stored(appZone);
        ASSERT_EQ(lines[i].rfind("Populating " + id + " ", 0), 0u) << lines[i];
        EXPECT_EQ(lines[i].substr(lines[i].size() - appZone.size() - 1), " " + appZone);
        EXPECT_EQ(lines[i + 1], expected[id]) << id;
    }

    std::map<Uuid, std::string> names;
    for (const auto& e : repository->fetchAll())
        names[e->id()] = e->name();
    EXPECT_EQ(names[changed->id()], "From cloud");
    EXPECT_EQ(names[edited->id()], "Edited again");
    EXPECT_EQ(names[fresh->id()], "New");

    // The inserted row is linked to its record: the next push sends no new record for it, and
    // sends the kept local edit.
    push();
    fake->waitForBackgroundWork();
    EXPECT_EQ(fake->stored(appZone).size(), 4u);
    auto keptInCloud = fake->stored(*[&] {
        for (const auto& r : fake->stored(appZone))
            if (eventOf(r)->id() == edited->id())
                return std::optional<RecordId>(r.recordId);
        return std::optional<RecordId>();
    }());
    ASSERT_TRUE(keptInCloud);
    EXPECT_EQ(eventOf(*keptInCloud)->name(), "Edited again");
}

TEST_F(RepositorySync, LegacyRecordsArriveUnlinkedAndMoveToTheAppZone) {
    auto old = makeEvent(Uuid::random(), at(2019y / June / 1), "Old", std::nullopt,
                         Schedule::annually, CountMethod::standard);
    CloudRecord legacy{"CD_Event",
                       RecordId{"legacy-1", std::string(legacyZoneName)},
                       {{"CD_eventId", old->id().uuidString()},
                        {"CD_name", std::string("Old")},
                        {"CD_date", old->date()},
                        {"CD_recurring", std::int64_t{3}},
                        {"CD_excludeWeekends", std::int64_t{1}}}};
    fake->seed(legacy);
    test::LogCapture log;
    repository->populateFromCloud();
    auto lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[lines.size() - 2],
              "Populating " + old->id().uuidString() + " legacy-1 " + std::string(legacyZoneName));
    EXPECT_EQ(lines.back(), "  inserting...");
    auto pending = repository->local().pendingChanges();
    ASSERT_EQ(pending.inserted.size(), 1u);
    EXPECT_EQ(pending.inserted[0].event->countMethod(), CountMethod::excludeWeekends);

    push();
    ASSERT_EQ(fake->stored(appZone).size(), 1u);
    EXPECT_TRUE(repository->local().pendingChanges().inserted.empty());
    EXPECT_TRUE(fake->stored(RecordId{"legacy-1", std::string(legacyZoneName)}))
        << "legacy left alone";

    // The next start reads the legacy zone again (the app zone is not remembered until seen)
    // and finds the row unchanged.
    log.lines();
    test::LogCapture again;
    repository->populateFromCloud();
    EXPECT_TRUE(defaults.boolean(Settings::appZoneUsed));
    EXPECT_EQ(again.lines().back(), "  skipping...");
}

TEST_F(RepositorySync, AFailingLocalWriteEndsThePullKeepingWhatCameBefore) {
    repository->local().connection().run(
        "CREATE TRIGGER refuse BEFORE INSERT ON events WHEN NEW.name = 'Bad' "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    std::vector<EventPtr> events;
    for (const char* name : {"Good", "Bad", "Never"}) {
        events.push_back(makeEvent(Uuid::random(), at(2030y / May / 1), name, std::nullopt,
                                   Schedule::none, CountMethod::standard));
        // Record names fix the order in which the cloud lists them.
        fake->seed(recordFromEvent(
            CloudEvent{RecordId{std::to_string(events.size()), appZone}, events.back()}));
    }
    defaults.setBoolean(Settings::appZoneUsed, true);
    test::LogCapture log;
    repository->populateFromCloud();
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[3], "  inserting...");
    EXPECT_EQ(lines[4].rfind("Failed to insert record: refused", 0), 0u) << lines[4];
    auto stored = repository->fetchAll();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0]->name(), "Good");
    // Written and linked for good, and the store takes writes again.
    EXPECT_TRUE(repository->local().pendingChanges().inserted.empty());
    EXPECT_TRUE(repository->insert(*events[2]));
}

TEST_F(RepositorySync, PullEndsWhenTheStoreCannotBeRead) {
    fake->seed(recordFromEvent(CloudEvent{std::nullopt, event("E", at(2030y / May / 1))}));
    defaults.setBoolean(Settings::appZoneUsed, true);
    repository->local().connection().run("DROP TABLE events");
    test::LogCapture log;
    repository->populateFromCloud();
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind("Failed to fetch records: no such table", 0), 0u)
        << log.lines()[0];
}

TEST_F(RepositorySync, ConcurrentSyncCallsNeverPushARowTwice) {
    constexpr int count = 8;
    for (int i = 0; i < count; ++i)
        repository->insert(*event("E" + std::to_string(i), at(2030y / May / 1)));
    // A slow server widens the window in which overlapping passes would both see a row as new.
    fake->setFailureHook([](const FakeCloudService::Call&) -> std::optional<std::string> {
        std::this_thread::sleep_for(milliseconds(2));
        return std::nullopt;
    });
    auto second = open();
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int k = 0; k < 5; ++k)
                (t % 2 ? *second : *repository).sync();
        });
    }
    for (auto& c : callers)
        c.join();
    repository->waitForSync();
    second->waitForSync();
    EXPECT_EQ(fake->stored(appZone).size(), std::size_t{count});
    EXPECT_EQ(fake->calls(Op::saveRecord), count);
}

TEST_F(RepositorySync, APushAskedForDuringOneRunsAfterIt) {
    repository->insert(*event("First", at(2030y / May / 1)));
    std::mutex gate;
    std::condition_variable opened;
    bool entered = false, open = false;
    fake->setFailureHook([&](const FakeCloudService::Call& call) -> std::optional<std::string> {
        if (call.op == Op::saveRecord) {
            std::unique_lock lock(gate);
            entered = true;
            opened.notify_all();
            opened.wait(lock, [&] { return open; });
        }
        return std::nullopt;
    });
    repository->sync();
    {
        std::unique_lock lock(gate);
        opened.wait(lock, [&] { return entered; });
    }
    // The running pass has read its work already; this change is for the next one.
    repository->insert(*event("Second", at(2030y / May / 2)));
    repository->sync();
    repository->sync();
    {
        std::lock_guard lock(gate);
        open = true;
    }
    opened.notify_all();
    repository->waitForSync();
    EXPECT_EQ(cloudNames(), (std::vector<std::string>{"First", "Second"}));
    EXPECT_EQ(fake->calls(Op::saveRecord), 2);
}

TEST_F(RepositorySync, UpdatesThatNeverWentThroughAreDirtyAgainAtTheEnd) {
    auto a = event("A", at(2030y / July / 1));
    repository->insert(*a);
    push();
    a->setName("Offline edit");
    repository->update(*a);
    fake->failAll(Op::modify, "connection refused");
    push();
    EXPECT_TRUE(repository->local().pendingChanges().updated.empty()) << "marked on enqueue";
    repository->finishCloudWork();
    auto pending = repository->local().pendingChanges();
    ASSERT_EQ(pending.updated.size(), 1u);
    EXPECT_EQ(pending.updated[0].event->name(), "Offline edit");

    // The next pass first sends what was left, then its own work.
    fake->clearFailures();
    push();
    repository->finishCloudWork();
    EXPECT_EQ(cloudNames(), Lines{"Offline edit"});
    EXPECT_TRUE(repository->local().pendingChanges().updated.empty());
}

TEST_F(RepositorySync, NetworkComingBackLetsTheNextPassTryAgain) {
    repository->insert(*event("A", at(2030y / July / 1)));
    fake->failAll(Op::accountStatus, "no route to host");
    test::LogCapture log;
    push();
    push();
    fake->clearFailures();
    push();
    EXPECT_EQ(log.lines(),
              (Lines{"Failed to check status of cloud: no route to host",
                     "Cloud not available for syncing", "Cloud not available for syncing",
                     "Cloud not available for syncing"}));
    repository->networkCameBack();
    push();
    EXPECT_EQ(cloudNames(), Lines{"A"});
}

} // namespace
