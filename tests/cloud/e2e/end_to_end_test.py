#!/usr/bin/python3
"""Machines (a home each) on real CalDAV servers, driven through the almanor binary as a user
would: edits converge, kills in the middle of pushes lose and copy nothing, an older generation's
zone moves over, and a calendar client puts the events on the days counted to. A missing program
(a server, vdirsyncer, khal) fails the test: scripts/deps.sh installs them."""
import datetime
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import servers  # noqa: E402
from servers import APP_ZONE, Machine, Radicale, Xandikos, dav, stored  # noqa: E402

HOSTILE = [
    "Lunch, then; coffee",
    "back\\slash \\n not a newline",
    'She said "hi" \'twice\'',
    "two\nlines",
    "party 🎉🎂 👩‍👩‍👧",
    "日本語の長い名前" * 40,
    "X-CD-NAME:injected\r\nEND:VEVENT",
]


class Sync:
    server_kind = None

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)
        self.server = self.server_kind(os.path.join(self.dir.name, "server"))
        self.addCleanup(self.server.stop)
        self.a, self.b = self.machine("a"), self.machine("b")

    def machine(self, name):
        m = Machine(self.dir.name, name)
        m.login(self.server)
        return m

    def test_edits_with_hostile_text_converge_and_the_password_stays_out_of_files(self):
        ids = {self.a.add(name): name for name in HOSTILE}
        self.a.ok("sync")
        self.b.ok("sync")
        self.assertEqual(self.b.events(), ids)
        some = next(iter(ids))
        self.b.ok("events", "edit", some, "--name", "renamed, on b; \\ 🎉")
        self.b.ok("sync")
        self.a.ok("sync")
        self.assertEqual(self.a.events()[some], "renamed, on b; \\ 🎉")
        self.a.ok("events", "delete", some)
        self.a.ok("sync")
        self.b.ok("sync")
        # Neither machine sends the deleted record back, nor an edited one as a copy.
        before = self.server.resources(APP_ZONE)
        self.assertEqual(len(before), len(HOSTILE) - 1)
        self.a.ok("sync")
        self.assertEqual(self.server.resources(APP_ZONE), before)
        self.assertEqual(self.a.events(), self.b.events())
        self.assertNotIn(some, self.b.events())
        status = json.loads(self.a.ok("cloud", "status", "--json"))
        self.assertEqual((status["user"], status["pending"]),
                         (self.server.user, {"inserted": 0, "updated": 0, "deleted": 0}))
        for root, _, files in os.walk(self.a.home):
            for f in files:
                if f != "pw":
                    with open(os.path.join(root, f), "rb") as fh:
                        self.assertNotIn(self.server.password.encode(), fh.read(), f)


class RadicaleSync(Sync, unittest.TestCase):
    server_kind = Radicale

    def kill_during_syncs(self, machine, times, rng):
        for _ in range(times):
            p = subprocess.Popen([servers.ALMANOR, "sync"], env=machine.env,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.05, 1.5))
            p.send_signal(signal.SIGKILL)
            p.wait()

    def event_ids(self):
        found = (re.search(r"X-CD-EVENTID[^:]*:([0-9A-Fa-f-]{36})", t) for t in stored(self.server))
        return [m.group(1).upper() if m else None for m in found]

    def test_kills_in_the_middle_of_pushes_leave_one_resource_per_event_and_every_edit(self):
        rng = random.Random(4711)
        for i in range(50):
            self.a.add(f"first {i}")
        self.a.ok("sync")
        added = {self.a.add(f"added {i}") for i in range(200)}
        self.kill_during_syncs(self.a, 10, rng)
        self.a.run("sync")
        self.a.ok("sync")
        ids = self.event_ids()
        self.assertEqual((len(ids), len(set(ids))), (250, 250), "copies or losses after kills")
        self.assertTrue(added <= set(ids))

        events = self.a.events()
        for ident in events:
            self.a.ok("events", "edit", ident, "--name", "renamed " + events[ident])
        # Right after a kill every edit is on the server or still waiting (or both, when the kill
        # came between the server's answer and its mark).
        self.kill_during_syncs(self.a, 1, rng)
        waiting = json.loads(self.a.ok("cloud", "status", "--json"))["pending"]["updated"]
        on_server = sum("SUMMARY:renamed " in t for t in stored(self.server))
        self.assertGreaterEqual(waiting + on_server, 250, "an edit marked sent that the server lacks")
        self.kill_during_syncs(self.a, 5, rng)
        self.a.ok("sync")
        expected = {i: "renamed " + n for i, n in events.items()}
        self.assertEqual(self.a.events(), expected)
        self.b.ok("sync")
        self.assertEqual(self.b.events(), expected)
        self.assertEqual(len(self.server.resources(APP_ZONE)), 250)

    def test_an_older_generations_zone_moves_into_the_apps_zone_once(self):
        names = {"legacy one", "legacy, two; \\ 🎉"}
        for n in names:
            self.a.add(n)
        self.a.ok("sync")
        home = f"/{self.server.user}/"
        app, legacy = (home + urllib.parse.quote(z) + "/"
                       for z in (APP_ZONE, "com.apple.coredata.cloudkit.zone"))
        self.assertEqual(dav(self.server, "MKCALENDAR", legacy)[0], 201)
        for res in self.server.resources(APP_ZONE):
            body = dav(self.server, "GET", app + res)[1]
            dav(self.server, "PUT", legacy + res, body, {"Content-Type": "text/calendar"})
        self.assertIn(dav(self.server, "DELETE", app)[0], (200, 204))
        c = self.machine("c")
        for _ in range(2):
            c.ok("sync")
            self.assertEqual(set(c.events().values()), names)
            self.assertEqual(len(self.server.resources(APP_ZONE)), len(names))

    def test_a_calendar_client_puts_the_events_on_their_days(self):
        for args in (("Gym", "2027-01-04", "weekly"), ("Rent", "2027-01-31", "monthly"),
                     ("Payday", "2027-01-30", "monthly"), ("Leap day", "2024-02-29", "annually"),
                     ("Trip; with, text", "2027-03-14", "none")):
            self.a.ok("events", "add", args[0], "--date", args[1], "--schedule", args[2])
        self.a.ok("sync")
        root, local = self.dir.name, os.path.join(self.dir.name, "calendars")
        config = {"vdirsyncer": f"""[general]
status_path = "{root}/status/"
[pair mine]
a = "local"
b = "remote"
collections = ["{APP_ZONE}"]
[storage local]
type = "filesystem"
path = "{local}/"
fileext = ".ics"
[storage remote]
type = "caldav"
url = "{self.server.url}"
username = "{self.server.user}"
password.fetch = ["command", "head", "-1", "{self.a.home}/pw"]
""", "khal": f"""[calendars]
[[almanor]]
path = {local}/{APP_ZONE}
type = calendar
[locale]
dateformat = %Y-%m-%d
longdateformat = %Y-%m-%d
timeformat = %H:%M
datetimeformat = %Y-%m-%d %H:%M
longdatetimeformat = %Y-%m-%d %H:%M
"""}
        for name, text in config.items():
            with open(os.path.join(root, name), "w") as f:
                f.write(text)
        os.makedirs(os.path.join(local, APP_ZONE))

        def run(*args):
            return subprocess.run(args, env=self.a.env, check=True, capture_output=True,
                                  text=True, timeout=servers.COMMAND_LIMIT).stdout
        for command in ("discover", "sync"):
            run("vdirsyncer", "-c", os.path.join(root, "vdirsyncer"), command)

        def days(first, last):
            found = {}
            for line in run("khal", "-c", os.path.join(root, "khal"), "list", first, last,
                            "--format", "{start-date} {title}", "--day-format", "").splitlines():
                if line:
                    day, title = line.split(" ", 1)
                    found.setdefault(title, []).append(day)
            return found

        spring = days("2027-02-01", "2027-04-30")
        self.assertEqual(spring["Rent"], ["2027-02-28", "2027-03-31", "2027-04-30"])
        self.assertEqual(spring["Payday"], ["2027-02-28", "2027-03-30", "2027-04-30"])
        self.assertEqual(spring["Leap day"], ["2027-02-28"])
        self.assertEqual(spring["Trip; with, text"], ["2027-03-14"])
        self.assertEqual(len(spring["Gym"]), 13)
        self.assertTrue(all(datetime.date.fromisoformat(d).weekday() == 0 for d in spring["Gym"]))
        leap = days("2028-02-01", "2028-03-01")
        self.assertEqual((leap["Leap day"], leap["Rent"]), (["2028-02-29"], ["2028-02-29"]))


class XandikosSync(Sync, unittest.TestCase):
    server_kind = Xandikos


if __name__ == "__main__":
    sys.exit(servers.main())
