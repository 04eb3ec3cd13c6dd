#!/usr/bin/python3
"""Live sync end to end, through the almanor binary on real servers: deletions and conflicts
spread between machines, kills and lost answers in the middle of a push leave one resource per
event and every edit kept, bad records are skipped, calendar apps' changes are followed, a store
of the previous version carries on, and a pull with nothing to do costs one request."""
import json
import os
import random
import re
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import end_to_end_test as e2e  # noqa: E402
from end_to_end_test import APP_ZONE, Machine, dav  # noqa: E402
from servers import FaultProxy, Radicale, Xandikos  # noqa: E402


def stored(server):
    """Each resource of the app's zone as the server keeps it, folded lines joined."""
    texts = []
    for res in server.resources(APP_ZONE):
        with open(server.resource_path(APP_ZONE, res), encoding="utf-8") as f:
            texts.append(f.read().replace("\r\n ", "").replace("\n ", ""))
    return texts


def event_ids(server):
    """The event id of every resource the server holds in the app's zone."""
    ids = []
    for text in stored(server):
        found = re.search(r"X-CD-EVENTID[^:]*:([0-9A-Fa-f-]{36})", text)
        ids.append(found.group(1).upper() if found else None)
    return ids


def summaries(server):
    return [re.search(r"^SUMMARY:(.*?)\r?$", t, re.M).group(1) for t in stored(server)]


class LiveSync:
    server_kind = None

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)
        self.server = self.server_kind(os.path.join(self.dir.name, "server"))
        self.addCleanup(self.server.stop)
        self.pw = os.path.join(self.dir.name, "pw")
        with open(self.pw, "w") as f:
            f.write(self.server.password + "\n")
        self.a = self.machine("a")
        self.b = self.machine("b")

    def machine(self, name, server=None):
        m = Machine(self.dir.name, name)
        m.login(server or self.server, self.pw)
        return m

    def zone_url(self):
        home = f"/{self.server.user}/" if self.server_kind is Radicale else "/user/calendars/"
        return home + urllib.parse.quote(APP_ZONE) + "/"

    def test_deletions_and_conflicts_spread_and_the_loser_is_named(self):
        gone = self.a.add("Gone soon")
        both = self.a.add("Edited on both")
        back = self.a.add("Comes back")
        self.a.ok("sync")
        self.b.ok("sync")

        # A deletion on a reaches b, once, and is never sent back.
        self.a.ok("events", "delete", gone)
        self.a.ok("sync")
        self.b.ok("sync")
        self.assertNotIn(gone, self.b.events())
        self.b.ok("sync")
        self.assertEqual(len(self.server.resources(APP_ZONE)), 2)

        # Both edit one event; the later edit wins on both, and the earlier is named.
        self.a.ok("events", "edit", both, "--name", "a's edit")
        time.sleep(1.1)  # LAST-MODIFIED counts seconds
        self.b.ok("events", "edit", both, "--name", "b's edit")
        self.a.ok("sync")
        rc, _, err = self.b.run("sync")
        self.assertEqual(rc, 0, err)
        self.assertRegex(err, r'Conflict on "b\'s edit" \(' + both + r"\): kept this machine's version")
        self.a.ok("sync")
        self.assertEqual(self.a.events()[both], "b's edit")
        self.assertEqual(self.b.events()[both], "b's edit")

        # A deletion against a later edit: the edited event comes back where it was deleted.
        self.a.ok("events", "delete", back)
        time.sleep(1.1)
        self.b.ok("events", "edit", back, "--name", "edited after the deletion")
        self.b.ok("sync")
        rc, _, err = self.a.run("sync")
        self.assertEqual(rc, 0, err)
        self.assertIn("kept the server's edit", err)
        self.assertEqual(self.a.events().get(back), "edited after the deletion")
        self.assertEqual(sorted(event_ids(self.server)), sorted([both, back]))

    def test_a_pull_with_nothing_changed_costs_one_request(self):
        proxy = FaultProxy(self.dir.name, self.server.port)
        self.addCleanup(proxy.stop)
        proxied = type("S", (), {"url": proxy.url, "user": self.server.user})
        c = self.machine("c", proxied)
        for i in range(30):
            c.add(f"event {i}")
        c.ok("sync")
        c.ok("sync")
        before = len(proxy.seen())
        c.ok("sync")
        requests = proxy.seen()[before:]
        self.assertLessEqual(len(requests), 2, requests)
        self.assertTrue(all(r.split(" ")[1] in ("REPORT", "PROPFIND") for r in requests), requests)

        # Ten changes elsewhere: ten bodies, not thirty.
        self.b.ok("sync")
        ids = list(self.b.events())[:10]
        for i, ident in enumerate(ids):
            self.b.ok("events", "edit", ident, "--name", f"changed {i}")
        self.b.ok("sync")
        before = len(proxy.seen())
        c.ok("sync")
        self.assertEqual(sorted(n for n in c.names() if n.startswith("changed")),
                         sorted(f"changed {i}" for i in range(10)))
        gets = [r for r in proxy.seen()[before:] if " GET " in r]
        self.assertLessEqual(len(proxy.seen()[before:]), 4, proxy.seen()[before:])
        self.assertEqual(gets, [])


class RadicaleLiveSync(LiveSync, unittest.TestCase):
    server_kind = Radicale

    def kill_during_syncs(self, machine, times):
        """Starts `almanor sync` and kills it with SIGKILL at a random moment, `times` times."""
        rng = random.Random(4711)
        for _ in range(times):
            p = subprocess.Popen([e2e.ALMANOR, "sync"], env=machine.env,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.05, 1.5))
            p.send_signal(signal.SIGKILL)
            p.wait()

    def test_kills_in_the_middle_of_pushes_leave_one_resource_per_event_and_every_edit(self):
        for i in range(50):
            self.a.add(f"first {i}")
        self.a.ok("sync")
        added = {self.a.add(f"added {i}") for i in range(200)}
        self.kill_during_syncs(self.a, 10)
        for _ in range(3):
            if self.a.run("sync")[0] == 0:
                break
        ids = event_ids(self.server)
        self.assertEqual(len(ids), 250, "copies or losses after killed pushes")
        self.assertEqual(len(set(ids)), 250, "one event in several resources")
        self.assertTrue(added <= set(ids))

        # Every event renamed, the pushes killed again: nothing reverted anywhere.
        events = self.a.events()
        for ident in events:
            self.a.ok("events", "edit", ident, "--name", "renamed " + events[ident])
        # Right after a kill, every edit is on the server or still waiting to be sent (or both,
        # when the kill came between the server's answer and its mark).
        self.kill_during_syncs(self.a, 1)
        waiting = json.loads(self.a.ok("cloud", "status", "--json"))["pending"]["updated"]
        on_server = sum(1 for n in summaries(self.server) if n.startswith("renamed "))
        self.assertGreaterEqual(waiting + on_server, 250,
                                "an edit counted as sent that the server lacks")
        self.kill_during_syncs(self.a, 5)
        self.a.ok("sync")
        expected = {i: "renamed " + n for i, n in events.items()}
        self.assertEqual(self.a.events(), expected)
        fresh = self.machine("fresh")
        fresh.ok("sync")
        self.assertEqual(fresh.events(), expected)
        self.b.ok("sync")
        self.assertEqual(self.b.events(), expected)
        self.assertEqual(len(self.server.resources(APP_ZONE)), 250)

    def test_an_answer_lost_after_the_server_applied_a_put_leaves_no_copy(self):
        proxy = FaultProxy(self.dir.name, self.server.port)
        self.addCleanup(proxy.stop)
        proxied = type("S", (), {"url": proxy.url, "user": self.server.user})
        c = self.machine("c", proxied)
        ids = {c.add(f"lost answer {i}") for i in range(5)}
        proxy.set("drop-put-answer")
        rc, _, err = c.run("sync")
        self.assertEqual(rc, 1, err)
        self.assertIn("push did not complete", err)
        proxy.set("pass")
        c.ok("sync")
        self.assertEqual(sorted(event_ids(self.server)), sorted(ids))
        self.assertIn('"inserted":0', c.ok("cloud", "status", "--json").replace(" ", ""))

    def test_bad_records_are_skipped_and_app_made_records_map_to_one_event(self):
        for i in range(12):
            self.a.add(f"good {i}")
        dup = self.a.add("has a copy")
        self.a.ok("sync")
        zone = self.zone_url()
        # A copy of one event under another name, a date no store can hold, and an event that a
        # calendar app made without any of Almanor's properties.
        status, body = dav(self.server, "GET", zone + [r for r in self.server.resources(APP_ZONE)
                                                      if dup in open(self.server.resource_path(
                                                          APP_ZONE, r)).read().replace("\n ", "")][0])
        self.assertEqual(status, 200)
        body = body.replace(b"\r\n ", b"").replace(b"\n ", b"")  # unfolded, to edit by line
        copy = re.sub(rb"UID:[^\r\n]+", b"UID:the-copy", body)
        dav(self.server, "PUT", zone + "the-copy.ics", copy, {"Content-Type": "text/calendar"})
        far = re.sub(rb"X-CD-DATE([^:]*):\d+", rb"X-CD-DATE\1:999999999999999", copy)
        far = re.sub(rb"UID:[^\r\n]+", b"UID:far-future", far)
        far = re.sub(rb"X-CD-EVENTID([^:]*):[0-9A-F-]+", rb"X-CD-EVENTID\1:0B1C2D3E-0000-4000-8000-00000000FA12", far)
        dav(self.server, "PUT", zone + "far-future.ics", far, {"Content-Type": "text/calendar"})
        plain = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//app//app//EN\r\nBEGIN:VEVENT\r\n"
                 "UID:made-by-an-app@example.org\r\nDTSTAMP:20261101T100000Z\r\n"
                 "DTSTART;VALUE=DATE:20271224\r\nSUMMARY:Dentist\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n")
        dav(self.server, "PUT", zone + "app-event.ics", plain.encode(), {"Content-Type": "text/calendar"})

        fresh = self.machine("fresh")
        errors = ""
        for _ in range(3):
            errors += fresh.run("sync")[2]
        names = fresh.names()
        self.assertEqual(len([n for n in names if n.startswith("good")]), 12, errors)
        self.assertEqual(names.count("has a copy"), 1)
        self.assertEqual(names.count("Dentist"), 1)
        # Each bad record is named once, by the pull that first met it.
        self.assertEqual(errors.count("Skipping record far-future.ics"), 1, errors)
        self.assertEqual(errors.count("a copy of record"), 1, errors)

    def test_a_calendar_apps_edits_are_followed(self):
        import caldav
        ident = self.a.add("Dinner", "2027-05-01")
        self.a.ok("sync")
        client = caldav.DAVClient(url=self.server.url, username=self.server.user,
                                  password=self.server.password)
        calendar = client.calendar(url=self.server.url.rstrip("/") + self.zone_url())
        (item,) = calendar.events()
        vevent = item.vobject_instance.vevent
        vevent.summary.value = "Dinner with friends"
        import datetime
        vevent.dtstart.value = datetime.date(2027, 5, 3)
        item.save()
        self.a.ok("sync")
        listed = {e["id"]: e for e in json.loads(self.a.ok("events", "list", "--json"))}
        self.assertEqual(listed[ident]["name"], "Dinner with friends")
        self.assertTrue(listed[ident]["date"].startswith("2027-05-03"), listed[ident]["date"])
        calendar.save_event("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//app//app//EN\r\n"
                            "BEGIN:VEVENT\r\nUID:by-the-app\r\nDTSTAMP:20261101T100000Z\r\n"
                            "DTSTART;VALUE=DATE:20270601\r\nSUMMARY:Made in the app\r\n"
                            "END:VEVENT\r\nEND:VCALENDAR\r\n")
        for _ in range(3):
            self.a.ok("sync")
        self.assertEqual(self.a.names().count("Made in the app"), 1)

    def test_a_store_synced_by_the_previous_version_sends_nothing_again(self):
        proxy = FaultProxy(self.dir.name, self.server.port)
        self.addCleanup(proxy.stop)
        proxied = type("S", (), {"url": proxy.url, "user": self.server.user})
        c = self.machine("c", proxied)
        for i in range(20):
            c.add(f"old {i}")
        c.ok("sync")
        # What the previous version kept: the events table with its record names, nothing more.
        db = sqlite3.connect(os.path.join(c.env["XDG_DATA_HOME"], "Almanor", "EventsV1.db"))
        db.executescript('DROP TABLE "sync_records"; DROP TABLE "sync_zones"; '
                         "PRAGMA user_version = 1;")
        db.close()
        before_files = self.server.resources(APP_ZONE)
        before = len(proxy.seen())
        c.ok("sync")
        writes = [r for r in proxy.seen()[before:] if r.split(" ")[1] in ("PUT", "DELETE")]
        self.assertEqual(writes, [])
        self.assertEqual(self.server.resources(APP_ZONE), before_files)
        self.assertEqual(len(c.names()), 20)


class XandikosLiveSync(LiveSync, unittest.TestCase):
    server_kind = Xandikos


def main():
    e2e.ALMANOR = os.path.abspath(sys.argv.pop(1))
    result = unittest.main(exit=False).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
