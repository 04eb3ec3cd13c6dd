#!/usr/bin/python3
"""Machines (a home each) on real CalDAV servers, driven through the almanor binary as a user
would: edits converge, kills in the middle of pushes lose and copy nothing, and a script editing
the store while passes run breaks nothing. A missing server fails the test: scripts/deps.sh
installs them. Usage: end_to_end_test.py ALMANOR [unittest arguments]"""
import json
import os
import random
import re
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
import harness  # noqa: E402
from harness import Home, Radicale, Xandikos  # noqa: E402

HOSTILE = [
    "Lunch, then; coffee",
    "back\\slash \\n not a newline",
    'She said "hi" \'twice\'',
    "two\nlines",
    "party 🎉🎂 👩‍👩‍👧",
    "日本語の長い名前" * 40,
    "X-CD-NAME:injected\r\nEND:VEVENT",
]


class Machines:
    """Two machines on one account of a server of `server_kind`."""
    server_kind = Radicale

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)
        self.log = os.path.join(self.dir.name, "server.log")
        self.server = self.server_kind(os.path.join(self.dir.name, "server"), log=self.log)
        self.addCleanup(self.server.stop)
        self.a, self.b = Home(os.path.join(self.dir.name, "a")), Home(os.path.join(self.dir.name, "b"))
        for machine in (self.a, self.b):
            machine.login(self.server)


class Sync(Machines):
    # Edits and deletions are the sync rules' tests' business, over the same store; here, text a
    # calendar format or a server may mangle, and what stays out of a user's files.
    def test_hostile_text_converges_and_the_password_stays_out_of_files(self):
        ids = {self.a.add(name): name for name in HOSTILE}
        self.a.ok("sync")
        self.b.ok("sync")
        self.assertEqual(self.b.events(), ids)
        status = json.loads(self.a.ok("cloud", "status", "--json"))
        self.assertEqual((status["user"], status["pending"]),
                         (self.server.user, {"inserted": 0, "updated": 0, "deleted": 0}))
        for root, _, files in os.walk(self.a.home):
            for f in files:
                if f != "pw":
                    with open(os.path.join(root, f), "rb") as fh:
                        self.assertNotIn(self.server.password.encode(), fh.read(), f)


class RadicaleSync(Sync, unittest.TestCase):
    def kill_during_syncs(self, times, rng):
        for _ in range(times):
            p = subprocess.Popen([harness.BIN_DIR + "/almanor", "sync"], env=self.a.env,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.05, 1.5))
            p.kill()
            p.wait()

    def test_kills_in_the_middle_of_pushes_leave_one_resource_per_event_and_every_edit(self):
        rng = random.Random(4711)
        for i in range(50):
            self.a.add(f"first {i}")
        self.a.ok("sync")
        added = {self.a.add(f"added {i}") for i in range(200)}
        self.kill_during_syncs(10, rng)
        self.a.run("sync")
        self.a.ok("sync")
        found = (re.search(r"X-CD-EVENTID[^:]*:([0-9A-Fa-f-]{36})", t) for t in self.server.stored())
        ids = [m.group(1).upper() if m else None for m in found]
        self.assertEqual((len(ids), len(set(ids))), (250, 250), "copies or losses after kills")
        self.assertTrue(added <= set(ids))

        events = self.a.events()
        for ident in events:
            self.a.ok("events", "edit", ident, "--name", "renamed " + events[ident])
        # Right after a kill every edit is on the server or still waiting (or both, when the kill
        # came between the server's answer and its mark).
        self.kill_during_syncs(1, rng)
        waiting = json.loads(self.a.ok("cloud", "status", "--json"))["pending"]["updated"]
        on_server = sum("SUMMARY:renamed " in t for t in self.server.stored())
        self.assertGreaterEqual(waiting + on_server, 250, "an edit marked sent that the server lacks")
        self.kill_during_syncs(5, rng)
        self.a.ok("sync")
        expected = {i: "renamed " + n for i, n in events.items()}
        self.assertEqual(self.a.events(), expected)
        self.b.ok("sync")
        self.assertEqual(self.b.events(), expected)
        self.assertEqual(len(self.server.resources()), 250)


class XandikosSync(Sync, unittest.TestCase):
    server_kind = Xandikos


# Its own ctest entry: STRESS_SECONDS (40 by default) of edits through the command line while
# another loop runs `almanor sync` back to back.
class ConcurrentEdits(Machines, unittest.TestCase):
    def test_a_script_editing_during_passes_breaks_nothing(self):
        a, server = self.a, self.server
        stop = time.monotonic() + float(os.environ.get("STRESS_SECONDS", "40"))
        failures = []

        def syncing():
            while time.monotonic() < stop:
                rc, _, err = a.run("sync")
                # Done, events left for the next pass, the store busy: each said in one line.
                if rc not in (0, 1, 3):
                    failures.append(f"sync -> {rc}: {err[-2000:]}")
                    return

        rng = random.Random(20)
        ids = []
        passes = threading.Thread(target=syncing)
        passes.start()
        edits = 0
        while time.monotonic() < stop and not failures:
            roll = rng.random()
            if roll < 0.45 or len(ids) < 3:
                rc, out, err = a.run("events", "add", f"Event {edits}", "--date", "2031-05-10")
                if rc == 0:
                    ids.append(out.strip())
            elif roll < 0.8:
                rc, _, err = a.run("events", "edit", rng.choice(ids), "--name",
                                   f"Renamed {edits}", "--alias", f"R{edits}")
            else:
                rc, _, err = a.run("events", "delete", ids.pop(rng.randrange(len(ids))))
            # A store busy with a pass is a said failure, never a crash.
            if rc not in (0, 3):
                failures.append(f"edit -> {rc}: {err}")
            edits += 1
        passes.join()
        self.assertEqual(failures, [])

        a.ok("sync")
        mine = a.events()
        self.b.ok("sync")
        self.assertEqual(self.b.events(), mine)
        texts = server.stored()
        self.assertEqual(len(texts), len(mine), "one resource per event")
        self.assertTrue(all(re.search(r"^UID:.+$", t, re.M) for t in texts))
        self.assertTrue(all(r != ".ics" for r in server.resources()))
        server.stop()
        with open(self.log, encoding="utf-8", errors="replace") as f:
            refused = [line for line in f if re.search(r"Bad \w+ request|ERROR|Traceback", line)]
        self.assertEqual(refused, [], "the server refused requests")
        print(f"{edits} edits, {len(mine)} events at the end", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(harness.main())
