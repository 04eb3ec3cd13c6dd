// The sync's bookkeeping in the real file: what a kill in the middle leaves, and what another
// process's change in the middle is spared.
#include "storage/LocalSyncLedger.h"

#include "StorageTesting.h"
#include "TempDir.h"
#include "storage/LocalRepository.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace almanor {
namespace {

using namespace std::chrono;
using test::at;
using test::event;

class LocalSyncLedgerTest : public ::testing::Test {
  protected:
    std::unique_ptr<LocalRepository> open(Signals& notices) {
        return std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", notices, clock);
    }

    test::TempDir dir;
    Signals center;
    FixedClock clock{at(2026y / November / 23, 9h)};
    std::unique_ptr<LocalRepository> store = open(center);
    LocalSyncLedger ledger{*store};
};

TEST_F(LocalSyncLedgerTest, AKillInsideAPullsTransactionLeavesNothingOfIt) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Events, their records and the token, then the process dies before the commit.
        Signals quiet;
        auto mine = open(quiet);
        LocalSyncLedger childLedger(*mine);
        childLedger.transaction([&] {
            for (int i = 0; i < 200; ++i) {
                std::string name = "rec-" + std::to_string(i);
                childLedger.writePulled(*event(name, at(2030y / May / 1)), clock.now(),
                                        RecordState{name, name + ".ics", "\"1\""}, std::nullopt);
            }
            childLedger.setSyncToken("zone", "token-1");
            ::kill(::getpid(), SIGKILL);
        });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(ledger.syncRows().empty());
    EXPECT_EQ(ledger.syncToken("zone"), "");
    // And the file takes the next pull whole.
    ledger.transaction([&] {
        ledger.writePulled(*event("After", at(2030y / May / 2)), clock.now(),
                           RecordState{"r", "r.ics", "\"2\""}, std::nullopt);
        ledger.setSyncToken("zone", "token-2");
    });
    EXPECT_EQ(ledger.syncRows().size(), 1u);
    EXPECT_EQ(ledger.syncToken("zone"), "token-2");
}

TEST_F(LocalSyncLedgerTest, AnotherProcesssChangeMadeMeanwhileIsLeftAlone) {
    auto e = event("Mine", at(2030y / May / 1));
    store->insert(*e);
    SyncRow seen = ledger.syncRows().at(0);
    // The command line edits the event while the pull is on the network.
    Signals otherCenter;
    clock.advance(1s);
    e->setName("Edited here meanwhile");
    open(otherCenter)->update(*e);

    auto theirs = makeEvent(e->id(), e->date(), "The server's", std::nullopt, Schedule::none,
                            CountMethod::standard);
    int notices = 0;
    center.connect(std::string(eventChangeNotification), [&] { ++notices; });
    ledger.transaction([&] {
        EXPECT_TRUE(ledger.attempt([&] {
            ledger.writePulled(*theirs, clock.now(), RecordState{"r", "r.ics", "\"1\""},
                               seen.version());
        }));
        EXPECT_TRUE(ledger.attempt([&] { ledger.writeRemoved(e->id(), seen.version()); }));
        ledger.setSyncToken("zone", "t");
    });
    SyncRow now = ledger.syncRows().at(0);
    EXPECT_EQ(now.event->name(), "Edited here meanwhile");
    EXPECT_TRUE(now.live() && now.dirty);
    EXPECT_FALSE(now.record);
    EXPECT_EQ(ledger.syncToken("zone"), "t");
    EXPECT_EQ(notices, 0);
    // A push's mark after such an edit links the row but leaves it to be sent again.
    ledger.transaction([&] {
        ledger.markPushed(e->id(), RecordState{"r", "r.ics", "\"2\""}, seen.updated);
    });
    now = ledger.syncRows().at(0);
    EXPECT_EQ(now.syncId, "r");
    EXPECT_TRUE(now.dirty && now.pending());
}

} // namespace
} // namespace almanor
