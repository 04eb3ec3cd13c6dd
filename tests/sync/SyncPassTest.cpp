// The sync's rules over the in-memory cloud and the real SQLite file: two machines share one
// server; each case arranges one event on both sides and checks where every side ends.
#include "sync/SyncPass.h"

#include "FakeCloudService.h"
#include "Instants.h"
#include "LogCapture.h"
#include "TempDir.h"
#include "cloud/CloudRepository.h"
#include "cloud/RecordMapping.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"

#include <gtest/gtest.h>
#include <set>

namespace almanor {
namespace {

using test::FakeCloudService;
using Op = FakeCloudService::Op;
using Failure = FakeCloudService::Failure;
using namespace std::chrono_literals;

const std::string zone(appZoneName);

// One machine: its store (the SQLite file) and its settings.
class Machine {
  public:
    Machine(const std::filesystem::path& home, FixedClock& clock)
        : defaults_(home / "settings.ini"),
          local_(std::make_unique<LocalRepository>(home, "EventsV1.db", center_, clock)) {
        // The app's zone is known: discovery of older zones is another suite's.
        defaults_.setBoolean(Settings::appZoneUsed, true);
        local_->connection().run(MigrationManager::createTableStatement(local_->events()));
        sqlLedger_ = std::make_unique<LocalSyncLedger>(*local_);
    }

    SyncLedger& ledger() { return *sqlLedger_; }
    SettingsFile& defaults() { return defaults_; }
    LocalRepository* local() { return local_.get(); }

    void add(const Event& e) { local_->insert(e); }
    void edit(const Event& e) { local_->update(e); }
    void remove(const Uuid& id) {
        local_->deleteEvent(
            *makeEvent(id, Instant{}, "x", std::nullopt, Schedule::none, CountMethod::standard));
    }
    std::optional<SyncRow> row(const Uuid& id) {
        for (auto& r : ledger().syncRows())
            if (r.event->id() == id)
                return r;
        return std::nullopt;
    }
    std::vector<std::string> liveNames() {
        std::vector<std::string> names;
        for (auto& r : ledger().syncRows())
            if (r.live())
                names.push_back(r.event->name());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::size_t pending() {
        std::size_t n = 0;
        for (auto& r : ledger().syncRows())
            n += r.pending() ? 1 : 0;
        return n;
    }

  private:
    Signals center_;
    SettingsFile defaults_;
    std::unique_ptr<LocalRepository> local_;
    std::unique_ptr<LocalSyncLedger> sqlLedger_;
};

EventPtr event(const std::string& name, Instant date = test::utc(2030, 5, 1),
               Uuid id = Uuid::random()) {
    return makeEvent(id, date, name, std::nullopt, Schedule::none, CountMethod::standard);
}

EventPtr renamed(const SyncRow& row, const std::string& name) {
    const Event& e = *row.event;
    return makeEvent(e.id(), e.date(), name, e.alias(), e.schedule(), e.countMethod());
}

class SyncRules : public ::testing::Test {
  protected:
    PassResult sync(Machine& m) {
        std::atomic<bool> stopping{false};
        CloudRepository cloud(server);
        SyncPass pass(cloud, m.ledger(), m.defaults(), clock, stopping);
        PassResult r;
        r.pulled = pass.pull();
        r.pushed = pass.push();
        r.problem = pass.problem();
        clock.advance(1s);
        return r;
    }
    std::vector<std::string> serverNames() {
        std::vector<std::string> names;
        for (const auto& [resource, remote] : server->stored(zone))
            names.push_back(eventFromRecord(remote.record, clock).event->name());
        std::sort(names.begin(), names.end());
        return names;
    }
    // Both machines hold `e`, in step with the server.
    void share(const Event& e) {
        a.add(e);
        ASSERT_TRUE(sync(a).pushed);
        ASSERT_TRUE(sync(b).pulled);
        ASSERT_EQ(b.liveNames(), a.liveNames());
        clock.advance(10s);
    }
    int writes() const {
        return server->calls(Op::create) + server->calls(Op::replace) + server->calls(Op::remove);
    }

    test::TempDir dir;
    FixedClock clock{test::utc(2026, 11, 23, 9)};
    std::shared_ptr<FakeCloudService> server = std::make_shared<FakeCloudService>();
    Machine a{dir / "a", clock};
    Machine b{dir / "b", clock};
    test::LogCapture log;

    bool conflictLogged(const std::string& name, const std::string& kept) {
        for (const auto& line : log.lines())
            if (line.rfind("Conflict on \"" + name + "\"", 0) == 0 &&
                line.find("kept " + kept) != std::string::npos)
                return true;
        return false;
    }
    bool conflictKept(const std::string& kept) {
        for (const auto& line : log.lines())
            if (line.rfind("Conflict on \"", 0) == 0 &&
                line.find("kept " + kept) != std::string::npos)
                return true;
        return false;
    }
};

// Remote (changed on machine b, or not) against local (machine a): the server's side of each
// case, then where a ends after one pass, and whether anything was sent.
TEST_F(SyncRules, RemoteAgainstLocalTable) {
    enum class Remote { unchanged, changed, deleted };
    enum class Local { clean, changed, deleted };
    struct Case {
        Remote remote;
        Local local;
        bool localIsLater;                  // when both changed
        std::vector<std::string> aEnds;     // a's live names after a's pass
        std::vector<std::string> serverEnd; // the server's names after a's pass
        bool sends;                         // a wrote to the server
        const char* conflictKept;           // a conflict line keeping this, or null
    };
    const std::vector<Case> cases = {
        {Remote::unchanged, Local::clean, false, {"E"}, {"E"}, false, nullptr},
        {Remote::unchanged, Local::changed, false, {"E-a"}, {"E-a"}, true, nullptr},
        {Remote::unchanged, Local::deleted, false, {}, {}, true, nullptr},
        {Remote::changed, Local::clean, false, {"E-b"}, {"E-b"}, false, nullptr},
        {Remote::changed, Local::changed, true, {"E-a"}, {"E-a"}, true, "this machine's version"},
        {Remote::changed, Local::changed, false, {"E-b"}, {"E-b"}, false, "the server's version"},
        {Remote::changed, Local::deleted, true, {}, {}, true, "this machine's deletion"},
        {Remote::changed, Local::deleted, false, {"E-b"}, {"E-b"}, false, "the server's edit"},
        {Remote::deleted, Local::clean, false, {}, {}, false, nullptr},
        {Remote::deleted, Local::changed, false, {"E-a"}, {"E-a"}, true, nullptr},
        {Remote::deleted, Local::deleted, false, {}, {}, false, nullptr},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE("case " + std::to_string(n++));
        server = std::make_shared<FakeCloudService>();
        test::TempDir caseDir;
        Machine ma{caseDir / "a", clock};
        Machine mb{caseDir / "b", clock};
        auto e = event("E");
        ma.add(*e);
        ASSERT_TRUE(sync(ma).pushed);
        ASSERT_TRUE(sync(mb).pulled);
        clock.advance(10s);

        // The earlier of the two changes is made first.
        auto remoteChange = [&] {
            if (c.remote == Remote::changed)
                mb.edit(*renamed(*mb.row(e->id()), "E-b"));
            if (c.remote == Remote::deleted)
                mb.remove(e->id());
            if (c.remote != Remote::unchanged) {
                ASSERT_TRUE(sync(mb).pushed);
            }
        };
        auto localChange = [&] {
            if (c.local == Local::changed)
                ma.edit(*renamed(*ma.row(e->id()), "E-a"));
            if (c.local == Local::deleted)
                ma.remove(e->id());
            clock.advance(5s);
        };
        if (c.localIsLater) {
            remoteChange();
            clock.advance(5s);
            localChange();
        } else {
            localChange();
            remoteChange();
        }
        server->resetCounts();
        PassResult r = sync(ma);
        EXPECT_TRUE(r.pulled && r.pushed) << r.problem;
        EXPECT_EQ(ma.liveNames(), c.aEnds);
        std::vector<std::string> names;
        for (const auto& [resource, remote] : server->stored(zone))
            names.push_back(eventFromRecord(remote.record, clock).event->name());
        EXPECT_EQ(names, c.serverEnd);
        int sent =
            server->calls(Op::create) + server->calls(Op::replace) + server->calls(Op::remove);
        EXPECT_EQ(sent > 0, c.sends);
        EXPECT_EQ(ma.pending(), 0u);
        if (c.conflictKept) {
            EXPECT_TRUE(conflictKept(c.conflictKept)) << "no line keeping " << c.conflictKept;
        }
        // The other machine follows, and nothing is left to send anywhere.
        EXPECT_TRUE(sync(mb).pulled);
        EXPECT_EQ(mb.liveNames(), c.aEnds);
        EXPECT_EQ(mb.pending(), 0u);
        EXPECT_EQ(server->stored(zone).size(), c.serverEnd.size());
    }
}

TEST_F(SyncRules, ANewEventReachesTheOtherMachineAndNothingIsSentTwice) {
    auto e = event("Trip");
    share(*e);
    server->resetCounts();
    // Nothing changed anywhere: one listing, nothing written.
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_TRUE(sync(b).pushed);
    EXPECT_EQ(server->requests(), 2);
    EXPECT_EQ(writes(), 0);
    EXPECT_EQ(server->stored(zone).size(), 1u);
}

TEST_F(SyncRules, PreconditionFailuresSettleByTheLaterChange) {
    // Between a's pull and a's write another client changes the record: a's conditional write
    // is refused and a settles with what the server then holds.
    auto e = event("Rent");
    share(*e);
    a.edit(*renamed(*a.row(e->id()), "Rent-a"));
    clock.advance(5s);
    b.edit(*renamed(*b.row(e->id()), "Rent-b"));
    bool once = false;
    server->setOnCall([&](const FakeCloudService::Call& call) {
        if (call.op == Op::replace && !once) {
            once = true;
            ASSERT_TRUE(sync(b).pushed); // b's later edit lands first
        }
    });
    EXPECT_TRUE(sync(a).pushed);
    server->setOnCall({});
    EXPECT_EQ(a.liveNames(), std::vector<std::string>{"Rent-b"});
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Rent-b"});
    EXPECT_TRUE(conflictLogged("Rent-b", "the server's version"));

    // A deletion refused because the record changed: the later edit comes back.
    a.remove(e->id());
    clock.advance(5s);
    b.edit(*renamed(*b.row(e->id()), "Rent-c"));
    once = false;
    server->setOnCall([&](const FakeCloudService::Call& call) {
        if (call.op == Op::remove && !once) {
            once = true;
            ASSERT_TRUE(sync(b).pushed);
        }
    });
    EXPECT_TRUE(sync(a).pushed);
    server->setOnCall({});
    EXPECT_EQ(a.liveNames(), std::vector<std::string>{"Rent-c"});
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Rent-c"});

    // A create that meets a resource of its name: another machine's copy of the same event
    // under that name is adopted, never made twice.
    auto f = event("Gym");
    a.add(*f);
    server->setOnCall([&](const FakeCloudService::Call& call) {
        if (call.op == Op::create) {
            auto row = a.row(f->id());
            CloudRecord record = recordFromEvent(
                CloudEvent{RecordId{row->record->recordName, zone}, row->event, row->updated});
            server->setOnCall({});
            server->seed(record, call.resource);
        }
    });
    server->resetCounts();
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->stored(zone).size(), 2u);
    EXPECT_EQ(a.pending(), 0u);
    // The same event is no conflict: nothing more is written and no line says otherwise.
    EXPECT_EQ(writes(), 1);
    EXPECT_FALSE(conflictLogged("Gym", "the server's version"));
    EXPECT_FALSE(conflictLogged("Gym", "this machine's version"));
}

TEST_F(SyncRules, TiesGoToTheServer) {
    auto e = event("Tie");
    share(*e);
    // Both edits in the same second: LAST-MODIFIED cannot tell them apart.
    b.edit(*renamed(*b.row(e->id()), "Tie-b"));
    a.edit(*renamed(*a.row(e->id()), "Tie-a"));
    ASSERT_TRUE(sync(b).pushed);
    ASSERT_TRUE(sync(a).pushed);
    EXPECT_EQ(a.liveNames(), std::vector<std::string>{"Tie-b"});
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Tie-b"});
}

TEST_F(SyncRules, AnswersLostAfterTheServerActedNeverDuplicateOrRevert) {
    // Every write is applied by the server and its answer lost; then a pass with a good
    // connection finds the server already in step.
    server->setFailureHook([](const FakeCloudService::Call& c) {
        return c.op == Op::create || c.op == Op::replace || c.op == Op::remove ? Failure::after
                                                                               : Failure::none;
    });
    auto e = event("Lost");
    auto f = event("Doomed");
    a.add(*e);
    a.add(*f);
    EXPECT_FALSE(sync(a).pushed);
    server->clearFailures();
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->stored(zone).size(), 2u);
    EXPECT_EQ(a.pending(), 0u);

    server->setFailureHook([](const FakeCloudService::Call& c) {
        return c.op == Op::replace || c.op == Op::remove ? Failure::after : Failure::none;
    });
    a.edit(*renamed(*a.row(e->id()), "Lost-renamed"));
    a.remove(f->id());
    clock.advance(2s);
    EXPECT_FALSE(sync(a).pushed);
    server->clearFailures();
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Lost-renamed"});
    EXPECT_EQ(a.liveNames(), std::vector<std::string>{"Lost-renamed"});
    EXPECT_EQ(a.pending(), 0u);
    // No edit reverted on a machine that pulls afresh.
    EXPECT_TRUE(sync(b).pulled);
    EXPECT_EQ(b.liveNames(), std::vector<std::string>{"Lost-renamed"});
}

TEST_F(SyncRules, BadRecordsAreSkippedWithTheirLineAndThePullGoesOn) {
    auto good = event("Good");
    // Two records carrying one event id (copies left by older versions), a record without any
    // event id (a calendar app's), and a good one.
    auto dup = event("Dup");
    for (const char* name : {"copy-1", "copy-2"})
        server->seed(recordFromEvent(CloudEvent{RecordId{name, zone}, dup}));
    CloudRecord foreign = recordFromEvent(CloudEvent{RecordId{"app-made", zone}, event("Dentist")});
    foreign.fields.erase("CD_eventId");
    server->seed(foreign);
    server->seed(recordFromEvent(CloudEvent{RecordId{"good", zone}, good}));

    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(sync(a).pulled);
    EXPECT_EQ(a.liveNames(), (std::vector<std::string>{"Dentist", "Dup", "Good"}));
    int skipped = 0;
    for (const auto& line : log.lines())
        skipped += line.find("a copy of record") != std::string::npos;
    EXPECT_EQ(skipped, 1);
    EXPECT_EQ(server->stored(zone).size(), 4u);
    EXPECT_EQ(a.pending(), 0u);
}

TEST_F(SyncRules, AStoreSyncedBeforeRecordsWereKeptSendsNothingAgain) {
    // Rows with record names but no record state and no token, as the previous version left them.
    std::vector<EventPtr> events;
    for (int i = 0; i < 5; ++i) {
        events.push_back(event("Old " + std::to_string(i)));
        a.add(*events.back());
        std::string name = "rec-" + std::to_string(i);
        server->seed(recordFromEvent(CloudEvent{RecordId{name, zone}, events.back()}));
        a.ledger().transaction([&] {
            a.ledger().markPushed(events.back()->id(), RecordState{name, name + ".ics", ""},
                                  a.row(events.back()->id())->updated);
            a.ledger().dropRecord(events.back()->id());
        });
    }
    // One of them was deleted on the server meanwhile.
    server->unseed(zone, "rec-4.ics");
    server->resetCounts();
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->calls(Op::fetchChanges), 1);
    EXPECT_EQ(writes(), 0);
    EXPECT_EQ(a.liveNames().size(), 4u);
    EXPECT_EQ(a.pending(), 0u);
    EXPECT_TRUE(a.row(events[0]->id())->record);
}

TEST_F(SyncRules, AZoneLostOnTheServerIsFilledAgainNotEmptiedHere) {
    auto e = event("Keep me");
    share(*e);
    server->dropZone(zone);
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(a.liveNames(), std::vector<std::string>{"Keep me"});
    EXPECT_EQ(serverNames(), std::vector<std::string>{"Keep me"});
    EXPECT_TRUE(sync(b).pulled);
    EXPECT_EQ(b.liveNames(), std::vector<std::string>{"Keep me"});
}

TEST_F(SyncRules, AnExpiredTokenFallsBackToOneFullListing) {
    for (int i = 0; i < 3; ++i)
        a.add(*event("E" + std::to_string(i)));
    ASSERT_TRUE(sync(a).pushed);
    ASSERT_TRUE(sync(b).pulled);
    server->expireTokens();
    b.remove(b.row(a.ledger().syncRows()[0].event->id())->event->id());
    ASSERT_TRUE(sync(b).pushed);
    server->resetCounts();
    EXPECT_TRUE(sync(a).pulled);
    EXPECT_EQ(a.liveNames().size(), 2u);
    EXPECT_EQ(server->bodiesFetched(), 0);
}

// Another process adds an event after the push named its creates and before it read the rows
// again (a trigger stands in for it): that row is sent by the next pass, under a name of its own.
TEST_F(SyncRules, ARowAddedDuringThePushWaitsForTheNextPass) {
    Machine& m = a;
    auto pass = [&] {
        PassResult r = sync(m);
        return r.pulled && r.pushed;
    };
    m.add(*event("Named"));
    m.ledger().syncRows();
    const Uuid added = Uuid::random();
    m.local()->connection().run(
        "CREATE TEMP TRIGGER meanwhile AFTER INSERT ON sync_records WHEN (SELECT count(*) FROM "
        "events) = 1 BEGIN INSERT INTO events (id, name, date, schedule, method, created, updated) "
        "SELECT '" +
        added.uuidString() +
        "', 'Meanwhile', date, schedule, method, created, updated FROM events; END");
    EXPECT_TRUE(pass());
    EXPECT_EQ(server->stored(zone).size(), 1u);
    EXPECT_TRUE(pass());
    std::set<std::string> resources;
    for (const auto& [resource, remote] : server->stored(zone))
        resources.insert(remote.record.recordId.recordName + ".ics");
    EXPECT_EQ(resources.size(), 2u);
    EXPECT_EQ(resources.count(m.row(added)->record->resource), 1u);
    EXPECT_EQ(m.pending(), 0u);
}

// A pass whose marks cannot be written (a full disk; a trigger stands in for it) sent its changes
// all the same: the next pass finds them on the server and sends nothing twice.
TEST_F(SyncRules, AFailedMarkTransactionDuplicatesNothing) {
    Machine& m = a;
    auto pass = [&] {
        PassResult r = sync(m);
        return r.pulled && r.pushed;
    };
    auto e = event("Full disk");
    m.add(*e);
    m.local()->connection().run("CREATE TEMP TRIGGER full BEFORE UPDATE OF sync_id ON events "
                                "BEGIN SELECT RAISE(FAIL, 'disk full'); END");
    EXPECT_FALSE(pass());
    EXPECT_EQ(server->stored(zone).size(), 1u);
    EXPECT_TRUE(m.row(e->id())->pending());
    EXPECT_EQ(log.lines().back().rfind("Failed to sync inserted: disk full", 0), 0u)
        << log.lines().back();

    m.local()->connection().run("DROP TRIGGER full");
    EXPECT_TRUE(pass());
    EXPECT_EQ(server->stored(zone).size(), 1u);
    EXPECT_EQ(server->calls(Op::create), 1);
    EXPECT_FALSE(m.row(e->id())->pending());
}

} // namespace
} // namespace almanor
