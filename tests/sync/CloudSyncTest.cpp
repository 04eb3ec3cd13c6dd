// Passes as the tray and the command line run them: over the real store file, one worker each,
// taking turns with another process's, an older layout's zone, and quitting mid-pass.
#include "sync/CloudSync.h"

#include "LogCapture.h"
#include "Machine.h"
#include "TempDir.h"
#include "platform/FileLock.h"

#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace almanor {
namespace {

using namespace std::chrono;
using test::event;
using test::HookedCalDav;
using test::Names;
using Op = HookedCalDav::Op;

// One process: its store and its sync, over the one server.
struct Process : test::Machine {
    Process(const std::filesystem::path& home, const Clock& clock,
            std::shared_ptr<HookedCalDav> cloud)
        : Machine(home, clock),
          sync(
              ledger, [cloud] { return cloud; }, defaults, clock, home / "EventsV1.db.sync-lock") {}
    CloudSync sync;
};

class CloudSyncTest : public ::testing::Test {
  protected:
    std::unique_ptr<Process> open() { return std::make_unique<Process>(dir.path(), clock, cloud); }
    // Whether `done` holds within three seconds.
    static bool eventually(const std::function<bool()>& done) {
        for (int i = 0; i < 600 && !done(); ++i)
            std::this_thread::sleep_for(5ms);
        return done();
    }
    // The calls that `stalls` picks wait until the service is cut off, three seconds at most.
    void stallWhile(std::function<bool(Op)> stalls) {
        cloud->onCall([this, stalls](Op op) {
            eventually([&] { return !stalls(op) || cloud->cancelled(); });
        });
    }
    static bool stopsPromptly(Process& p) {
        auto before = steady_clock::now();
        p.sync.stop();
        return steady_clock::now() - before < 2s;
    }

    test::TempDir dir;
    FixedClock clock{test::utc(2026, 11, 22)};
    std::shared_ptr<HookedCalDav> cloud = std::make_shared<HookedCalDav>();
};

TEST_F(CloudSyncTest, OnlyAStoreThatNeverPulledHoldsItsFirstTitleForThePull) {
    cloud->seed(
        recordFromEvent(CloudEvent{RecordId{"first", std::string(appZoneName)}, event("First")}));
    auto p = open();
    p->sync.populateFromCloud();
    ASSERT_EQ(p->liveNames(), Names{"First"}) << "a new machine's first title waits";
    p->sync.waitForSync();

    // In step before: a slow server holds neither the start nor the change it brings.
    cloud->seed(
        recordFromEvent(CloudEvent{RecordId{"later", std::string(appZoneName)}, event("Later")}));
    std::promise<void> answer;
    std::shared_future<void> answered = answer.get_future().share();
    cloud->onCall([answered](Op) { answered.wait(); });
    std::atomic<int> posts{0};
    auto token = p->center.connect(std::string(eventChangeNotification), [&] { ++posts; });
    auto before = steady_clock::now();
    p->sync.populateFromCloud();
    EXPECT_LT(steady_clock::now() - before, 1s);
    EXPECT_EQ(p->liveNames(), Names{"First"});
    answer.set_value();
    p->sync.waitForSync();
    EXPECT_EQ(p->liveNames(), (Names{"First", "Later"}));
    EXPECT_GT(posts.load(), 0) << "the pull's change is posted for the title";
    p->center.disconnect(token);
}

// Quitting ends a pass at once, while its service asks for the password (a command that hangs)
// or in the middle of the push (a dead link from the third create on); the next start sends what
// was not acknowledged, without copies.
TEST_F(CloudSyncTest, QuittingCutsThePassOffAndTheNextFinishesItWithoutCopies) {
    auto p = open();
    for (int i = 0; i < 10; ++i)
        p->store.insert(*event("E" + std::to_string(i)));
    stallWhile([](Op op) { return op == Op::status; });
    p->sync.sync();
    ASSERT_TRUE(eventually([&] { return cloud->calls(Op::status) > 0; }));
    EXPECT_TRUE(stopsPromptly(*p)) << "quitting waited for the password";

    cloud = std::make_shared<HookedCalDav>(cloud->server); // the next process's, to the same server
    p = open();
    stallWhile([this](Op op) { return op == Op::create && cloud->calls(Op::create) >= 3; });
    p->sync.sync();
    ASSERT_TRUE(eventually([&] { return cloud->calls(Op::create) >= 3; }));
    EXPECT_TRUE(stopsPromptly(*p)) << "quitting waited for the network";
    EXPECT_EQ(cloud->names().size(), 2u);

    cloud = std::make_shared<HookedCalDav>(cloud->server);
    p = open();
    p->sync.populateFromCloud();
    PassResult r = p->sync.waitForSync();
    EXPECT_TRUE(r.pulled && r.pushed) << r.problem;
    EXPECT_EQ(cloud->names().size(), 10u);
    EXPECT_EQ(p->pending(), 0u);
}

// A pass waits for an account, for the network once the cloud was out of reach, and for another
// process's pass, which quitting does not wait for.
TEST_F(CloudSyncTest, APassWaitsForTheCloudAndForAnotherProcessesPassButQuittingDoesNot) {
    cloud->setAccountStatus(AccountStatus::noAccount);
    auto p = open();
    p->store.insert(*event("A"));
    test::LogCapture log;
    p->sync.populateFromCloud();
    EXPECT_FALSE(p->sync.waitForSync().pushed);
    EXPECT_TRUE(log.lines().empty()); // nothing a user without an account could act on
    cloud->setAccountStatus(AccountStatus::available);
    p->sync.sync();
    EXPECT_FALSE(p->sync.waitForSync().pushed) << "gave up until the network comes back";
    EXPECT_EQ(p->pending(), 1u);
    auto other = std::make_optional<FileLock>(dir / "EventsV1.db.sync-lock");
    ASSERT_TRUE(other->held());
    p->sync.networkCameBack();
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(cloud->requests(), 0) << "ran before the network came back or beside another pass";
    other.reset();
    EXPECT_TRUE(p->sync.waitForSync().pushed);
    EXPECT_EQ(cloud->names(), Names{"A"});

    other.emplace(dir / "EventsV1.db.sync-lock");
    p->store.insert(*event("B"));
    p->sync.sync();
    std::this_thread::sleep_for(250ms);
    auto stopped = std::async(std::launch::async, [&] { return stopsPromptly(*p); });
    if (stopped.wait_for(3s) == std::future_status::timeout)
        other.reset();
    EXPECT_TRUE(stopped.get()) << "quitting waited for another process";
}

TEST_F(CloudSyncTest, APassAskedForDuringOneRunsOnceAfterIt) {
    cloud->other.saveZone(std::string(appZoneName));
    auto p = open();
    p->store.insert(*event("First"));
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    cloud->onCall([&, released](Op op) {
        if (op == Op::create && cloud->calls(Op::create) == 1) {
            entered.set_value();
            released.wait();
        }
    });
    p->sync.sync();
    const bool reached = entered.get_future().wait_for(3s) == std::future_status::ready;
    // The running pass has read its work already; this change is for the next one.
    p->store.insert(*event("Second"));
    p->sync.sync();
    p->sync.sync();
    release.set_value();
    ASSERT_TRUE(reached);
    p->sync.waitForSync();
    EXPECT_EQ(cloud->names(), (Names{"First", "Second"}));
    EXPECT_EQ(cloud->calls(Op::create), 2);
    EXPECT_EQ(cloud->calls(Op::changes), 2) << "the two asks while one ran make one pass";
}

// Besides a record of its own, the older layout's zone holds the copies of two rows linked to
// it, one edited here since and one deleted (the deletion sent): they bring back neither.
TEST_F(CloudSyncTest, OlderLayoutsZoneArrivesUnlinkedAndMovesToTheAppZone) {
    const std::string legacy(legacyZoneName);
    auto p = open();
    p->defaults.setBoolean(Settings::appZoneUsed, false);
    cloud->seed(recordFromEvent(CloudEvent{RecordId{"old", legacy}, event("Old")}));
    auto edited = event("Edited"), deleted = event("Deleted");
    for (const auto& e : {edited, deleted}) {
        p->store.insert(*e);
        cloud->seed(recordFromEvent(CloudEvent{RecordId{e->name(), legacy}, e}));
        p->ledger.markPushed(e->id(), RecordState{e->name(), e->name() + ".ics", ""},
                             p->row(e->id())->updated);
        p->ledger.dropRecord(e->id()); // as the older layout left them: a name, no record state
        p->rename(e->id(), e->name() + " here");
    }
    p->remove(deleted->id());
    p->ledger.markDeletionSent(deleted->id());
    test::LogCapture log;
    p->sync.populateFromCloud();
    p->sync.waitForSync();
    // One summary line: none for the discovery, none per record.
    EXPECT_EQ(log.lines(), Names{"Synced: 1 received, 2 sent"});
    EXPECT_EQ(p->liveNames(), (Names{"Edited here", "Old"}));
    // Pushed into the app's zone; the older zone is left alone.
    EXPECT_EQ(cloud->names(), (Names{"Edited here", "Old"}));
    EXPECT_EQ(cloud->names(legacy), (Names{"Deleted", "Edited", "Old"}));
    EXPECT_EQ(p->pending(), 0u);
}

} // namespace
} // namespace almanor
