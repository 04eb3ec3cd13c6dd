// The sync's rules over the CalDAV adapter and the real SQLite file: two machines share one
// server; each case arranges one event on both sides and checks where every side ends.
#include "sync/SyncPass.h"

#include "LogCapture.h"
#include "Machine.h"
#include "TempDir.h"
#include "cloud/CloudRepository.h"

#include <gtest/gtest.h>
#include <regex>

namespace almanor {
namespace {

using test::event;
using test::HookedCalDav;
using test::Machine;
using test::Names;
using Op = HookedCalDav::Op;
using Failure = HookedCalDav::Failure;
using namespace std::chrono_literals;

const std::string zone(appZoneName);

class SyncRules : public ::testing::Test {
  protected:
    PassResult sync(Machine& m) {
        std::atomic<bool> stopping{false};
        CloudRepository cloud(server);
        SyncPass pass(cloud, m.ledger, m.defaults, clock, stopping);
        PassResult r{pass.pull(), pass.push(), pass.problem()};
        clock.advance(1s);
        return r;
    }
    static bool writing(Op op) { return op == Op::create || op == Op::replace || op == Op::remove; }
    int writes() const {
        return server->calls(Op::create) + server->calls(Op::replace) + server->calls(Op::remove);
    }
    // "kept K, dropped D" of the conflict lines logged: their times left out.
    static Names conflicts(const test::LogCapture& log) {
        Names out;
        for (const auto& line : log.lines())
            if (line.rfind("Conflict on \"", 0) == 0)
                out.push_back(std::regex_replace(line.substr(line.find("kept ")),
                                                 std::regex(" of [^,]*"), ""));
        return out;
    }

    test::TempDir dir;
    FixedClock clock{test::utc(2026, 11, 23, 9)};
    std::shared_ptr<HookedCalDav> server = std::make_shared<HookedCalDav>();
    Machine a{dir / "a", clock};
};

// Both machines hold one event; b changes it (or not), a too, the later change second (or both in
// one second: LAST-MODIFIED cannot tell them apart, and the server wins). Then a syncs, then b.
// Each case runs four ways: b's change reaches the server before a's pass; during it, between a's
// pull and a's write, which the server then refuses; before it, with the answers to a's writes
// lost after the server acted, and a second pass of a; or b changes nothing and the server loses
// the zone, which a fills again. The later change wins everywhere, the loser is named, and
// nothing is sent twice.
TEST_F(SyncRules, TheLaterChangeWinsHoweverThePassMeetsIt) {
    enum Change { none, edit, remove };
    enum Timing { before, during, answersLost, zoneLost };
    struct Case {
        Change b, a;
        int aLater;       // 1: a's change is the later, 0: b's, -1: both in one second
        Names ends;       // the live names on both machines and the server
        const char* kept; // the conflict line a logs: "kept K, dropped D", or none
    };
    const std::vector<Case> cases = {
        {none, none, 0, {"E"}, nullptr},
        {none, edit, 0, {"E-a"}, nullptr},
        {none, remove, 0, {}, nullptr},
        {edit, none, 0, {"E-b"}, nullptr},
        {edit, edit, 1, {"E-a"}, "kept this machine's version, dropped the server's version"},
        {edit, edit, 0, {"E-b"}, "kept the server's version, dropped this machine's version"},
        {edit, edit, -1, {"E-b"}, "kept the server's version, dropped this machine's version"},
        {edit, remove, 1, {}, "kept this machine's deletion, dropped the server's edit"},
        {edit, remove, 0, {"E-b"}, "kept the server's edit, dropped this machine's deletion"},
        {remove, none, 0, {}, nullptr},
        {remove, edit, 0, {"E-a"}, nullptr},
        {remove, remove, 0, {}, nullptr},
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
        for (Timing timing : {before, during, answersLost, zoneLost}) {
            const Case& c = cases[i];
            if ((timing == during && (c.a == none || c.b == none)) ||
                (timing == answersLost && c.a == none) || (timing == zoneLost && c.b != none))
                continue;
            SCOPED_TRACE("case " + std::to_string(i) + ", timing " + std::to_string(timing));
            test::TempDir caseDir;
            server = std::make_shared<HookedCalDav>(server->server); // a clean zone
            server->send("DELETE", zone);
            Machine ma{caseDir / "a", clock}, mb{caseDir / "b", clock};
            auto e = event("E");
            ma.store.insert(*e);
            ASSERT_TRUE(sync(ma).pushed);
            ASSERT_TRUE(sync(mb).pulled);
            clock.advance(10s);
            auto change = [&](Machine& m, Change what, const std::string& name) {
                if (what == edit)
                    m.rename(e->id(), name);
                if (what == remove)
                    m.remove(e->id());
                if (c.aLater >= 0)
                    clock.advance(5s);
            };
            if (c.aLater == 1) {
                change(mb, c.b, "E-b");
                change(ma, c.a, "E-a");
            } else {
                change(ma, c.a, "E-a");
                change(mb, c.b, "E-b");
            }
            bool landed = false;
            if (timing == during)
                server->onCall([&](Op op) {
                    if (!landed && writing(op)) {
                        landed = true;
                        ASSERT_TRUE(sync(mb).pushed);
                    }
                });
            else
                ASSERT_TRUE(sync(mb).pushed);
            if (timing == zoneLost)
                server->send("DELETE", zone);
            if (timing == answersLost)
                server->setHook([](Op op) { return writing(op) ? Failure::after : Failure::none; });
            const Names serverBefore = timing == zoneLost ? Names{} : server->names();
            server->resetCounts();
            test::LogCapture log;
            PassResult r = sync(ma);
            if (timing == answersLost) {
                server->setHook({});
                server->resetCounts();
                r = sync(ma);
                EXPECT_EQ(writes(), 0) << "sent twice";
            } else if (timing == before) {
                EXPECT_EQ(writes() > 0, serverBefore != c.ends) << "sent what needs no sending";
                EXPECT_EQ(server->requests(), 1 + writes()) << "asked more than one listing";
            }
            EXPECT_TRUE(r.pulled && r.pushed) << r.problem;
            EXPECT_EQ(conflicts(log), c.kept ? Names{c.kept} : Names{});
            EXPECT_TRUE(sync(mb).pulled);
            for (Machine* m : {&ma, &mb}) {
                EXPECT_EQ(m->liveNames(), c.ends);
                EXPECT_EQ(m->pending(), 0u);
            }
            EXPECT_EQ(server->names(), c.ends);
        }
}

// A create meeting a record of its name that another copy of the same event made between the pull
// and the push: adopted, never made twice, and no conflict.
TEST_F(SyncRules, ACreateTheServerAlreadyHoldsIsAdopted) {
    auto raced = event("Raced");
    a.store.insert(*raced);
    server->onCall([&](Op op) {
        if (op == Op::create) {
            server->setHook({});
            auto row = a.row(raced->id());
            server->seed(recordFromEvent(CloudEvent{RecordId{row->record->recordName, zone},
                                                    row->event, row->updated}),
                         row->record->resource);
        }
    });
    test::LogCapture log;
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->names(), Names{"Raced"});
    EXPECT_EQ(server->calls(Op::create), 1);
    EXPECT_EQ(a.pending(), 0u);
    EXPECT_EQ(conflicts(log), Names{});
}

TEST_F(SyncRules, BadRecordsAreSkippedWithTheirLineAndThePullGoesOn) {
    // Two records carrying one event id (copies left by older versions), a record without any
    // event id (a calendar app's), one the store refuses, and a good one.
    auto dup = event("Dup");
    for (const char* name : {"copy-1", "copy-2"})
        server->seed(recordFromEvent(CloudEvent{RecordId{name, zone}, dup}));
    CloudRecord foreign = recordFromEvent(CloudEvent{RecordId{"app-made", zone}, event("Dentist")});
    foreign.fields.erase("CD_eventId");
    server->seed(foreign);
    server->seed(recordFromEvent(CloudEvent{RecordId{"bad", zone}, event("Bad")}));
    server->seed(recordFromEvent(CloudEvent{RecordId{"good", zone}, event("Good")}));
    a.store.connection().run("CREATE TRIGGER refuse BEFORE INSERT ON events WHEN NEW.name = 'Bad' "
                             "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    test::LogCapture log;
    EXPECT_TRUE(sync(a).pulled);
    EXPECT_EQ(log.lines(), (Names{"Skipping record bad.ics: refused (code: 19)",
                                  "Skipping record copy-2.ics: a copy of record copy-1.ics"}));
    EXPECT_TRUE(sync(a).pulled);
    EXPECT_EQ(a.liveNames(), (Names{"Dentist", "Dup", "Good"}));
    // Nothing of the skipped records is sent back, and the store takes writes again.
    EXPECT_EQ(server->names().size(), 5u);
    EXPECT_EQ(a.pending(), 0u);
    EXPECT_NO_THROW(a.store.insert(*event("Later")));
}

TEST_F(SyncRules, AStoreSyncedBeforeRecordsWereKeptSendsNothingAgain) {
    // Rows with record names but no record state and no token, as the previous version left them.
    std::vector<EventPtr> events;
    for (int i = 0; i < 5; ++i) {
        events.push_back(event("Old " + std::to_string(i)));
        a.store.insert(*events.back());
        std::string name = "rec-" + std::to_string(i);
        server->seed(recordFromEvent(CloudEvent{RecordId{name, zone}, events.back()}));
        a.ledger.transaction([&] {
            a.ledger.markPushed(events.back()->id(), RecordState{name, name + ".ics", ""},
                                a.row(events.back()->id())->updated);
            a.ledger.dropRecord(events.back()->id());
        });
    }
    // One of them was deleted on the server meanwhile.
    server->other.deleteRecord(zone, "rec-4.ics", {});
    server->resetCounts();
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->calls(Op::changes), 1);
    EXPECT_EQ(writes(), 0);
    EXPECT_EQ(a.liveNames().size(), 4u);
    EXPECT_EQ(a.pending(), 0u);
    EXPECT_TRUE(a.row(events[0]->id())->record);
}

// Another process adds an event after the push named its creates and before it read the rows
// again (a trigger stands in for it): that row is sent by the next pass, under a name of its own.
TEST_F(SyncRules, ARowAddedDuringThePushWaitsForTheNextPass) {
    a.store.insert(*event("Named"));
    const Uuid added = Uuid::random();
    a.store.connection().run(
        "CREATE TEMP TRIGGER meanwhile AFTER INSERT ON sync_records WHEN (SELECT count(*) FROM "
        "events) = 1 BEGIN INSERT INTO events (id, name, date, schedule, method, created, updated) "
        "SELECT '" +
        added.uuidString() +
        "', 'Meanwhile', date, schedule, method, created, updated FROM events; END");
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->names(), Names{"Named"});
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->names(), (Names{"Meanwhile", "Named"}));
    EXPECT_TRUE(server->other.fetchRecord(zone, a.row(added)->record->resource));
    EXPECT_EQ(a.pending(), 0u);
}

// A pass whose marks cannot be written (a full disk; a trigger stands in for it) sent its changes
// all the same: the next pass finds them on the server and sends nothing twice.
TEST_F(SyncRules, AFailedMarkTransactionDuplicatesNothing) {
    auto e = event("Full disk");
    a.store.insert(*e);
    a.store.connection().run("CREATE TEMP TRIGGER full BEFORE UPDATE OF sync_id ON events "
                             "BEGIN SELECT RAISE(FAIL, 'disk full'); END");
    test::LogCapture log;
    EXPECT_FALSE(sync(a).pushed);
    EXPECT_EQ(server->names().size(), 1u);
    EXPECT_TRUE(a.row(e->id())->pending());
    EXPECT_EQ(log.lines().back().rfind("Failed to sync inserted: disk full", 0), 0u)
        << log.lines().back();

    a.store.connection().run("DROP TRIGGER full");
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(server->calls(Op::create), 1);
    EXPECT_FALSE(a.row(e->id())->pending());
}

// An edit here meets a server copy that carries no change time (a calendar app's): the copy is
// taken as the later change. The push forgets the deletion of a row whose first save never
// reached the server, rather than marking it sent.
TEST_F(SyncRules, AnUndatedServerCopyWinsAndANeverSentDeletionIsForgotten) {
    auto e = event("E");
    a.store.insert(*e);
    ASSERT_TRUE(sync(a).pushed);
    a.rename(e->id(), "E-a");
    const RecordState state = *a.row(e->id())->record;
    server->send(
        "PUT", zone, state.resource,
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//an app//EN\r\nBEGIN:VEVENT\r\nUID:" +
            state.recordName +
            "\r\nSUMMARY:E-b\r\nDTSTART;VALUE=DATE:20300501\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
    EXPECT_TRUE(sync(a).pushed);
    EXPECT_EQ(a.liveNames(), Names{"E-b"});

    auto unsent = event("Unsent");
    a.store.insert(*unsent);
    server->failAll(Op::create);
    EXPECT_FALSE(sync(a).pushed);
    a.remove(unsent->id());
    server->failAll(Op::changes); // a listing would count it as deleted on both sides
    EXPECT_FALSE(sync(a).pulled);
    const auto row = a.row(unsent->id());
    ASSERT_TRUE(row);
    EXPECT_FALSE(row->record);
    EXPECT_FALSE(row->deletionSent);
}

} // namespace
} // namespace almanor
