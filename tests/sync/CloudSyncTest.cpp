// Passes as the tray and the command line run them: over the real store file, one worker each,
// two processes' worth of them on one store, an older layout's zone, and quitting mid-pass.
#include "sync/CloudSync.h"

#include "FakeCloudService.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "cloud/RecordMapping.h"
#include "platform/FileLock.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/StorageTesting.h"

#include <atomic>
#include <condition_variable>
#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace almanor {
namespace {

using namespace std::chrono;
using test::at;
using test::event;
using test::FakeCloudService;
using Op = FakeCloudService::Op;

const std::string zone{appZoneName};

// One process's view of the store: its connection, its ledger, its sync.
struct Process {
    Process(const std::filesystem::path& dir, Signals& center, const Clock& clock,
            SettingsFile& defaults, CloudServiceProvider provider)
        : repository(std::make_unique<LocalRepository>(dir, "EventsV1.db", center, clock)),
          ledger((repository.local().connection().run(
                      MigrationManager::createTableStatement(repository.local().events())),
                  repository.local())),
          sync(ledger, std::move(provider), defaults, clock, dir / "EventsV1.db.sync-lock") {}

    Repository repository;
    LocalSyncLedger ledger;
    CloudSync sync;
};

class CloudSyncTest : public ::testing::Test {
  protected:
    CloudSyncTest() { defaults.setBoolean(Settings::appZoneUsed, true); }

    std::unique_ptr<Process> open() {
        return std::make_unique<Process>(dir / "Almanor", center, clock, defaults, [this] {
            return std::static_pointer_cast<CloudService>(fake);
        });
    }
    std::vector<std::string> serverNames() {
        std::vector<std::string> names;
        for (const auto& [resource, remote] : fake->stored(zone))
            names.push_back(eventFromRecord(remote.record, clock).event->name());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::size_t pending(Process& p) {
        std::size_t n = 0;
        for (const auto& row : p.ledger.syncRows())
            n += row.pending();
        return n;
    }

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2026y / November / 22)};
    SettingsFile defaults{dir / "settings.ini"};
    std::shared_ptr<FakeCloudService> fake = std::make_shared<FakeCloudService>();
};

TEST_F(CloudSyncTest, WithoutAnAccountEverythingStaysPending) {
    fake->setAccountStatus(AccountStatus::noAccount);
    auto p = open();
    p->repository.insert(*event("A", at(2030y / May / 1)));
    test::LogCapture log;
    p->sync.populateFromCloud();
    PassResult r = p->sync.waitForSync();
    EXPECT_FALSE(r.pulled || r.pushed);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"No CalDAV account configured",
                                                     "Cloud not available for syncing"}));
    EXPECT_EQ(pending(*p), 1u);
    EXPECT_EQ(fake->requests(), 0);
}

TEST_F(CloudSyncTest, OnlyAStoreThatNeverPulledHoldsItsFirstTitleForThePull) {
    fake->seed(
        recordFromEvent(CloudEvent{RecordId{"first", zone}, event("First", at(2030y / May / 1))}));
    auto p = open();
    p->sync.populateFromCloud();
    ASSERT_EQ(p->repository.fetchAll().size(), 1u) << "a new machine's first title waits";
    p->sync.waitForSync();

    // In step before: a slow server holds neither the start nor the change it brings.
    fake->seed(
        recordFromEvent(CloudEvent{RecordId{"later", zone}, event("Later", at(2030y / May / 2))}));
    std::promise<void> answer;
    std::shared_future<void> answered = answer.get_future().share();
    fake->setOnCall([answered](const FakeCloudService::Call&) { answered.wait(); });
    std::atomic<int> posts{0};
    auto token = center.connect(std::string(eventChangeNotification), [&] { ++posts; });
    auto before = steady_clock::now();
    p->sync.populateFromCloud();
    EXPECT_LT(steady_clock::now() - before, 1s);
    EXPECT_EQ(p->repository.fetchAll().size(), 1u);
    answer.set_value();
    p->sync.waitForSync();
    EXPECT_EQ(p->repository.fetchAll().size(), 2u);
    EXPECT_GT(posts.load(), 0) << "the pull's change is posted for the title";
    center.disconnect(token);
}

TEST_F(CloudSyncTest, QuittingCutsOffAServiceStillAskingForItsPassword) {
    // As a password command that hangs: the account's status waits until the service is cut off.
    fake->setOnCall([this](const FakeCloudService::Call& call) {
        while (call.op == Op::accountStatus && !fake->cancelled())
            std::this_thread::sleep_for(5ms);
    });
    auto p = open();
    p->sync.sync();
    while (fake->calls(Op::accountStatus) == 0)
        std::this_thread::sleep_for(5ms);
    auto before = steady_clock::now();
    p->sync.stop();
    EXPECT_LT(steady_clock::now() - before, 2s) << "quitting waited for the password";
    EXPECT_TRUE(fake->cancelled());
}

TEST_F(CloudSyncTest, OlderLayoutsZoneArrivesUnlinkedAndMovesToTheAppZone) {
    defaults.setBoolean(Settings::appZoneUsed, false);
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
    auto p = open();
    test::LogCapture log;
    p->sync.populateFromCloud();
    p->sync.waitForSync();
    // The discovery's lines, then one summary line; no line per record.
    EXPECT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines().back(), "Synced: 1 received, 1 sent");
    auto events = p->repository.fetchAll();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]->countMethod(), CountMethod::excludeWeekends);
    // Pushed into the app's zone; the older zone is left alone.
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Old"});
    EXPECT_TRUE(fake->stored(std::string(legacyZoneName), "legacy-1.ics"));
    EXPECT_EQ(pending(*p), 0u);

    // The next start finds the app's zone, remembers it, and reads the older one no more.
    p->sync.populateFromCloud();
    p->sync.waitForSync();
    EXPECT_TRUE(defaults.boolean(Settings::appZoneUsed));
    fake->resetCounts();
    p->sync.sync();
    p->sync.waitForSync();
    EXPECT_EQ(fake->calls(Op::query), 0);
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Old"});
}

TEST_F(CloudSyncTest, ARecordTheStoreRefusesIsSkippedAndThePullGoesOn) {
    auto p = open();
    p->repository.local().connection().run(
        "CREATE TRIGGER refuse BEFORE INSERT ON events WHEN NEW.name = 'Bad' "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    for (const char* name : {"Good", "Bad", "Also good"})
        fake->seed(
            recordFromEvent(CloudEvent{RecordId{name, zone}, event(name, at(2030y / May / 1))}));
    test::LogCapture log;
    p->sync.populateFromCloud();
    PassResult r = p->sync.waitForSync();
    EXPECT_TRUE(r.pulled);
    std::vector<std::string> names;
    for (const auto& e : p->repository.fetchAll())
        names.push_back(e->name());
    EXPECT_EQ(names, (std::vector<std::string>{"Also good", "Good"}));
    int skipped = 0;
    for (const auto& line : log.lines())
        skipped += line.rfind("Skipping record Bad.ics: ", 0) == 0;
    EXPECT_EQ(skipped, 1);
    // Nothing of the refused record is sent back, and the store takes writes again.
    EXPECT_EQ(fake->stored(zone).size(), 3u);
    EXPECT_TRUE(p->repository.insert(*event("Later", at(2030y / May / 2))));
}

TEST_F(CloudSyncTest, TwoProcessesOnOneStoreNeverSendARowTwice) {
    constexpr int count = 8;
    auto first = open();
    auto second = open();
    for (int i = 0; i < count; ++i)
        first->repository.insert(*event("E" + std::to_string(i), at(2030y / May / 1)));
    // A slow server widens the window in which overlapping passes would both see a row as new.
    fake->setOnCall([](const FakeCloudService::Call&) { std::this_thread::sleep_for(2ms); });
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t)
        callers.emplace_back([&, t] {
            for (int k = 0; k < 5; ++k)
                (t % 2 ? second : first)->sync.sync();
        });
    for (auto& c : callers)
        c.join();
    first->sync.waitForSync();
    second->sync.waitForSync();
    EXPECT_EQ(fake->stored(zone).size(), std::size_t{count});
    EXPECT_EQ(fake->calls(Op::create), count);
}

TEST_F(CloudSyncTest, APassAskedForDuringOneRunsOnceAfterIt) {
    fake->seedZone(zone);
    auto p = open();
    p->repository.insert(*event("First", at(2030y / May / 1)));
    std::mutex gate;
    std::condition_variable opened;
    bool entered = false, open = false;
    fake->setOnCall([&](const FakeCloudService::Call& call) {
        if (call.op != Op::create)
            return;
        std::unique_lock lock(gate);
        entered = true;
        opened.notify_all();
        opened.wait(lock, [&] { return open; });
    });
    p->sync.sync();
    {
        std::unique_lock lock(gate);
        opened.wait(lock, [&] { return entered; });
    }
    // The running pass has read its work already; this change is for the next one.
    p->repository.insert(*event("Second", at(2030y / May / 2)));
    p->sync.sync();
    p->sync.sync();
    {
        std::lock_guard lock(gate);
        open = true;
    }
    opened.notify_all();
    p->sync.waitForSync();
    EXPECT_EQ(serverNames(), (std::vector<std::string>{"First", "Second"}));
    EXPECT_EQ(fake->calls(Op::create), 2);
    EXPECT_EQ(fake->calls(Op::fetchChanges), 2) << "the two asks while one ran make one pass";
}

TEST_F(CloudSyncTest, QuittingCutsThePassOffAndTheNextFinishesItWithoutCopies) {
    auto p = open();
    for (int i = 0; i < 50; ++i)
        p->repository.insert(*event("E" + std::to_string(i), at(2030y / May / 1)));
    // Each request takes a while, as over a slow link, unless cut off: the whole push would take
    // minutes.
    fake->setOnCall([this](const FakeCloudService::Call&) {
        for (int i = 0; i < 300 && !fake->cancelled(); ++i)
            std::this_thread::sleep_for(10ms);
    });
    p->sync.sync();
    while (fake->calls(Op::create) < 3)
        std::this_thread::sleep_for(10ms);
    auto before = steady_clock::now();
    p->sync.stop();
    EXPECT_LT(steady_clock::now() - before, 2s) << "quitting waited for the network";
    std::size_t sent = fake->stored(zone).size();
    EXPECT_GE(sent, 2u);
    EXPECT_LT(sent, 50u);

    // The next start: a fresh process (and service) on the same store and server.
    p.reset();
    fake->setOnCall({});
    fake->resume();
    auto next = open();
    next->sync.populateFromCloud();
    PassResult r = next->sync.waitForSync();
    EXPECT_TRUE(r.pulled && r.pushed) << r.problem;
    EXPECT_EQ(fake->stored(zone).size(), 50u);
    EXPECT_EQ(pending(*next), 0u);
}

TEST_F(CloudSyncTest, APassWaitsForAnotherProcessesPassButNotWhenQuitting) {
    auto p = open();
    p->repository.insert(*event("A", at(2030y / May / 1)));
    {
        FileLock other(dir / "Almanor" / "EventsV1.db.sync-lock");
        ASSERT_TRUE(other.held());
        p->sync.sync();
        std::this_thread::sleep_for(250ms);
        EXPECT_EQ(fake->requests(), 0) << "ran beside another process's pass";
    }
    p->sync.waitForSync();
    EXPECT_EQ(serverNames(), std::vector<std::string>{"A"});

    FileLock other(dir / "Almanor" / "EventsV1.db.sync-lock");
    p->repository.insert(*event("B", at(2030y / May / 2)));
    p->sync.sync();
    auto before = steady_clock::now();
    p->sync.stop();
    EXPECT_LT(steady_clock::now() - before, 2s) << "quitting waited for another process";
}

TEST_F(CloudSyncTest, NetworkComingBackLetsTheNextPassTryAgain) {
    auto p = open();
    p->repository.insert(*event("A", at(2030y / July / 1)));
    fake->failAll(Op::accountStatus, "no route to host");
    p->sync.sync();
    p->sync.waitForSync();
    fake->clearFailures();
    p->sync.sync();
    EXPECT_FALSE(p->sync.waitForSync().pushed) << "gave up until the network comes back";
    p->sync.networkCameBack();
    EXPECT_TRUE(p->sync.waitForSync().pushed);
    EXPECT_EQ(serverNames(), std::vector<std::string>{"A"});
}

} // namespace
} // namespace almanor
