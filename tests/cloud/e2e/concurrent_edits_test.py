#!/usr/bin/python3
"""A script edits the store while passes run against a real Radicale: for STRESS_SECONDS (40 by
default) one loop adds, edits and deletes events through the command line while another runs
`almanor sync` back to back. No pass crashes, the server refuses no request, and at the end the
store, the server and a second machine pulling from it hold the same events, once each."""
import json
import os
import random
import re
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import servers  # noqa: E402
from servers import APP_ZONE, Machine, Radicale, stored  # noqa: E402

SECONDS = float(os.environ.get("STRESS_SECONDS", "40"))
# How a pass may end while a script edits the store: done, events left for the next pass, the
# store busy (each said in one line).
PASS_ENDS = {0, 1, 3}


class ConcurrentEdits(unittest.TestCase):
    def test_a_script_editing_during_passes_breaks_nothing(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        log = os.path.join(folder.name, "radicale.log")
        server = Radicale(os.path.join(folder.name, "server"), log=log)
        self.addCleanup(server.stop)
        a = Machine(folder.name, "a")
        a.login(server)

        stop = time.monotonic() + SECONDS
        failures = []

        def syncing():
            while time.monotonic() < stop:
                rc, _, err = a.run("sync")
                if rc not in PASS_ENDS:
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
        b = Machine(folder.name, "b")
        b.login(server)
        b.ok("sync")
        self.assertEqual(b.events(), mine)
        texts = stored(server)
        self.assertEqual(len(texts), len(mine), "one resource per event")
        self.assertTrue(all(re.search(r"^UID:.+$", t, re.M) for t in texts))
        self.assertTrue(all(r != ".ics" for r in server.resources(APP_ZONE)))
        server.stop()
        with open(log, encoding="utf-8", errors="replace") as f:
            refused = [line for line in f if re.search(r"Bad \w+ request|ERROR|Traceback", line)]
        self.assertEqual(refused, [], "the server refused requests")
        print(f"{edits} edits, {len(mine)} events at the end", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(servers.main())
