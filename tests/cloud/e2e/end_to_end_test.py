#!/usr/bin/python3
"""Two machines (two XDG homes, each with its own settings and store) on one real CalDAV server,
driven through the almanor binary as a user would. A missing command (the binary's cloud commands,
a server, vdirsyncer, khal) fails the test: scripts/deps.sh installs them."""
import base64
import datetime
import http.client
import http.server
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from servers import FaultProxy, Radicale, Xandikos, home_env  # noqa: E402

ALMANOR = None
APP_ZONE = "com.vostrel.almanor.zone"
LEGACY_ZONE = "com.apple.coredata.cloudkit.zone"
# Bounded waits: connect 10 s, 30 s without progress, a few requests per command.
COMMAND_LIMIT = 300

HOSTILE = [
    "Lunch, then; coffee",
    "back\\slash \\n not a newline",
    'She said "hi" \'twice\'',
    "two\nlines",
    "party 🎉🎂 👩‍👩‍👧",
    "日本語の長い名前" * 40,
    "X-CD-NAME:injected\r\nEND:VEVENT",
]


class Machine:
    def __init__(self, root, name):
        self.home = os.path.join(root, name)
        os.makedirs(self.home)
        self.env = home_env(self.home)

    def run(self, *args, stdin=None):
        p = subprocess.run([ALMANOR, *args], env=self.env, input=stdin, capture_output=True,
                           text=True, timeout=COMMAND_LIMIT)
        return p.returncode, p.stdout, p.stderr

    def ok(self, *args):
        rc, out, err = self.run(*args)
        if rc != 0:
            raise AssertionError(f"almanor {' '.join(args)} -> {rc}\n{out}\n{err}")
        return out

    def login(self, server, password_file):
        return self.ok("cloud", "login", server.url, "--user", server.user,
                       "--password-command", f"cat {password_file}")

    def add(self, name, date="2027-03-14"):
        return self.ok("events", "add", name, "--date", date).strip()

    def names(self):
        return sorted(e["name"] for e in json.loads(self.ok("events", "list", "--json")))

    def events(self):
        return {e["id"]: e["name"] for e in json.loads(self.ok("events", "list", "--json"))}


def dav(server, method, path, body=None, headers=None):
    conn = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
    h = {"Authorization": "Basic " + base64.b64encode(
        f"{server.user}:{server.password}".encode()).decode()}
    h.update(headers or {})
    try:
        conn.request(method, path, body=body, headers=h)
        r = conn.getresponse()
        return r.status, r.read()
    finally:
        conn.close()


class EndToEnd:
    """Shared cases, run once per server kind."""
    server_kind = None

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.server = self.server_kind(os.path.join(self.dir.name, "server"))
        self.addCleanup(self.server.stop)
        self.pwfile = os.path.join(self.dir.name, "pw")
        with open(self.pwfile, "w") as f:
            f.write(self.server.password + "\nsecond line is not the password\n")
        self.a = Machine(self.dir.name, "a")
        self.b = Machine(self.dir.name, "b")
        self.a.login(self.server, self.pwfile)
        self.b.login(self.server, self.pwfile)

    def tearDown(self):
        self.dir.cleanup()

    def zone_path(self, zone):
        home = f"/{self.server.user}/" if self.server_kind is Radicale else "/user/calendars/"
        return home + urllib.parse.quote(zone) + "/"

    def test_add_edit_delete_converge_with_hostile_text(self):
        ids = {self.a.add(name): name for name in HOSTILE}
        self.a.ok("sync")
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(HOSTILE))
        self.b.ok("sync")
        self.assertEqual(self.b.events(), ids)

        some = next(iter(ids))
        self.b.ok("events", "edit", some, "--name", "renamed, on b; \\ 🎉")
        self.b.ok("sync")
        self.a.ok("sync")
        self.assertEqual(self.a.events()[some], "renamed, on b; \\ 🎉")
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(HOSTILE), "edit made a copy")

        self.a.ok("events", "delete", some)
        self.a.ok("sync")
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(HOSTILE) - 1)
        # The deletion reaches b, and b does not send the record back.
        self.b.ok("sync")
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(HOSTILE) - 1, "resurrected")
        self.assertNotIn(some, self.a.events())
        self.assertNotIn(some, self.b.events())

        # Syncing again with nothing changed sends nothing and changes nothing.
        before = self.server.resources(APP_ZONE)
        self.a.ok("sync")
        self.b.ok("sync")
        self.assertEqual(self.server.resources(APP_ZONE), before)
        self.assertEqual(self.a.events(), self.b.events())

    def test_status_names_account_never_password(self):
        out = self.a.ok("cloud", "status", "--json")
        status = json.loads(out)
        self.assertEqual(status["user"], self.server.user)
        self.assertEqual(status["pending"], {"inserted": 0, "updated": 0, "deleted": 0})
        self.a.add("pending one")
        status = json.loads(self.a.ok("cloud", "status", "--json"))
        self.assertEqual(status["pending"]["inserted"], 1)
        for root, _, files in os.walk(self.a.home):
            for f in files:
                with open(os.path.join(root, f), "rb") as fh:
                    self.assertNotIn(b"s3cret", fh.read(), os.path.join(root, f))


class RadicaleEndToEnd(EndToEnd, unittest.TestCase):
    server_kind = Radicale

    def test_legacy_zone_records_migrate_into_app_zone(self):
        # Records in the shape the app writes, moved into the older generation's zone, with the
        # app's zone gone: the state a user of the older generation has.
        names = ["legacy one", "legacy, two; \\ 🎉"]
        for n in names:
            self.a.add(n)
        self.a.ok("sync")
        app, legacy = self.zone_path(APP_ZONE), self.zone_path(LEGACY_ZONE)
        self.assertIn(dav(self.server, "MKCALENDAR", legacy)[0], (201, 409))
        for res in self.server.resources(APP_ZONE):
            status, body = dav(self.server, "GET", app + res)
            self.assertEqual(status, 200)
            status, _ = dav(self.server, "PUT", legacy + res, body,
                            {"Content-Type": "text/calendar; charset=utf-8"})
            self.assertIn(status, (200, 201, 204))
        self.assertIn(dav(self.server, "DELETE", app)[0], (200, 204))

        c = Machine(self.dir.name, "c")
        c.login(self.server, self.pwfile)
        c.ok("sync")
        self.assertEqual(c.names(), sorted(names))
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(names))
        c.ok("sync")
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(names), "migrated twice")
        self.assertEqual(c.names(), sorted(names))

    def test_faults_lose_nothing_and_send_nothing_twice(self):
        proxy = FaultProxy(self.dir.name, self.server.port)
        self.addCleanup(proxy.stop)
        proxied = type("S", (), {"url": proxy.url, "user": self.server.user})
        a, b = Machine(self.dir.name, "pa"), Machine(self.dir.name, "pb")
        a.login(proxied, self.pwfile)
        b.login(proxied, self.pwfile)
        base = a.add("before the faults")
        a.ok("sync")
        b.ok("sync")

        expected = {base: "before the faults"}
        for i, mode in enumerate(["refuse", "503", "refuse-put", "refuse-put close", "hang"]):
            proxy.set(mode)
            on_a = a.add(f"a during {mode}, {i}")
            on_b = b.add(f"b during {mode}; {i}")
            expected[on_a] = f"a during {mode}, {i}"
            expected[on_b] = f"b during {mode}; {i}"
            if i == 2:
                a.ok("events", "edit", base, "--name", "edited offline, on a")
                expected[base] = "edited offline, on a"
            for m in (a, b):
                rc, out, err = m.run("sync")
                self.assertEqual(rc, 1, f"{mode}: {out}{err}")
                self.assertTrue(err.strip(), f"{mode}: no summary line")
            # Nothing that was asked to be added is lost from its own machine.
            self.assertIn(on_a, a.events())
            self.assertIn(on_b, b.events())

        # Adding never touches the network: the proxy sees no request for it.
        seen = len(proxy.seen())
        expected[a.add("offline only")] = "offline only"
        self.assertEqual(len(proxy.seen()), seen)

        proxy.set("pass")
        for m in (a, b, a, b):
            m.ok("sync")
        self.assertEqual(a.events(), expected)
        self.assertEqual(b.events(), expected)
        self.assertEqual(len(self.server.resources(APP_ZONE)), len(expected), "a record sent twice")


class XandikosEndToEnd(EndToEnd, unittest.TestCase):
    server_kind = Xandikos


def one_machine(test, root):
    """A Radicale, one machine's home and the password file, all in `root`."""
    server = Radicale(os.path.join(root, "server"))
    test.addCleanup(server.stop)
    pw = os.path.join(root, "pw")
    with open(pw, "w") as f:
        f.write(server.password + "\n")
    return server, Machine(root, "a"), pw


class CalendarClient(unittest.TestCase):
    """The user's calendar app (khal, fed by vdirsyncer) puts the events on the days counted to."""

    def test_recurring_events_fall_on_their_days(self):
        with tempfile.TemporaryDirectory() as root:
            server, a, pw = one_machine(self, root)
            a.login(server, pw)
            a.ok("events", "add", "Gym", "--date", "2027-01-04", "--schedule", "weekly")
            a.ok("events", "add", "Rent", "--date", "2027-01-31", "--schedule", "monthly")
            a.ok("events", "add", "Payday", "--date", "2027-01-30", "--schedule", "monthly")
            a.ok("events", "add", "Leap day", "--date", "2024-02-29", "--schedule", "annually")
            a.ok("events", "add", "Trip; with, text", "--date", "2027-03-14")
            a.ok("sync")

            local = os.path.join(root, "calendars")
            with open(os.path.join(root, "vdirsyncer"), "w") as f:
                f.write(f"""[general]
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
url = "{server.url}"
username = "{server.user}"
password.fetch = ["command", "cat", "{pw}"]
""")
            with open(os.path.join(root, "khal"), "w") as f:
                f.write(f"""[calendars]
[[almanor]]
path = {local}/{APP_ZONE}
type = calendar
[locale]
timeformat = %H:%M
dateformat = %Y-%m-%d
longdateformat = %Y-%m-%d
datetimeformat = %Y-%m-%d %H:%M
longdatetimeformat = %Y-%m-%d %H:%M
""")
            env = dict(a.env)
            os.makedirs(os.path.join(local, APP_ZONE))
            for command in (["discover"], ["sync"]):
                subprocess.run(["vdirsyncer", "-c", os.path.join(root, "vdirsyncer"), *command], env=env,
                               check=True, capture_output=True, text=True, timeout=COMMAND_LIMIT)

            def days(first, last):
                out = subprocess.run(["khal", "-c", os.path.join(root, "khal"), "list", first, last,
                                      "--format", "{start-date} {title}", "--day-format", ""], env=env,
                                     check=True, capture_output=True, text=True).stdout
                found = {}
                for line in filter(None, out.splitlines()):
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
            self.assertEqual(leap["Leap day"], ["2028-02-29"])
            self.assertEqual(leap["Rent"], ["2028-02-29"])


DEFAULT_RECORD = """BEGIN:VCALENDAR\r
VERSION:2.0\r
PRODID:-//test//test//EN\r
BEGIN:VEVENT\r
UID:REC-1\r
DTSTAMP:20260101T000000Z\r
DTSTART;VALUE=DATE:20270314\r
SUMMARY:From the default calendar\r
X-CD-RECORD-TYPE:CD_Event\r
X-CD-NAME;X-CD-KEY=CD_name;X-CD-TYPE=TEXT:From the default calendar\r
X-CD-EVENTID;X-CD-KEY=CD_eventId;X-CD-TYPE=TEXT:0B1C2D3E-0000-4000-8000-000000000001\r
X-CD-DATE;X-CD-KEY=CD_date;X-CD-TYPE=TIMESTAMP:1805011200000\r
END:VEVENT\r
END:VCALENDAR\r
"""


class ScriptedDav(http.server.BaseHTTPRequestHandler):
    """A server whose principal names a default calendar that is not the first of the home,
    which neither Radicale nor Xandikos does."""
    seen = []

    def log_message(self, *args):
        pass

    def answer(self, status, body=""):
        data = body.encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/xml; charset=utf-8")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def multistatus(self, *responses):
        self.answer(207, '<?xml version="1.0"?><d:multistatus xmlns:d="DAV:" '
                    'xmlns:c="urn:ietf:params:xml:ns:caldav">' + "".join(
                        f"<d:response><d:href>{href}</d:href><d:propstat><d:prop>{props}</d:prop>"
                        "<d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response>"
                        for href, props in responses) + "</d:multistatus>")

    def handle_any(self):
        length = int(self.headers.get("Content-Length") or 0)
        self.rfile.read(length)
        ScriptedDav.seen.append(f"{self.command} {self.path}")
        calendar = "<d:resourcetype><d:collection/><c:calendar/></d:resourcetype>"
        if self.command == "PROPFIND" and self.path in ("/", "/.well-known/caldav"):
            self.multistatus((self.path, "<d:current-user-principal><d:href>/p/</d:href></d:current-user-principal>"))
        elif self.command == "PROPFIND" and self.path == "/p/":
            self.multistatus(("/p/", "<c:calendar-home-set><d:href>/h/</d:href></c:calendar-home-set>"
                              "<c:schedule-default-calendar-URL><d:href>/h/work/</d:href>"
                              "</c:schedule-default-calendar-URL>"))
        elif self.command == "PROPFIND" and self.path == "/h/":
            self.multistatus(("/h/", "<d:resourcetype><d:collection/></d:resourcetype>"),
                             ("/h/personal/", calendar), ("/h/work/", calendar))
        elif self.command == "REPORT" and self.path == "/h/work/":
            self.multistatus(("/h/work/REC-1.ics", "<c:calendar-data>" + DEFAULT_RECORD + "</c:calendar-data>"))
        elif self.command == "REPORT":
            self.multistatus()
        elif self.command in ("MKCALENDAR", "PUT"):
            self.answer(201)
        else:
            self.answer(404)

    do_PROPFIND = do_REPORT = do_MKCALENDAR = do_PUT = do_GET = do_DELETE = handle_any


class DefaultCalendar(unittest.TestCase):
    def test_records_of_the_default_calendar_are_pulled_then_moved_into_the_app_zone(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), ScriptedDav)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        with tempfile.TemporaryDirectory() as root:
            a = Machine(root, "a")
            pw = os.path.join(root, "pw")
            with open(pw, "w") as f:
                f.write("pw\n")
            url = f"http://127.0.0.1:{server.server_address[1]}/"
            a.ok("cloud", "login", url, "--user", "u", "--password-command", f"cat {pw}")
            # The older generation left its records in the database's default zone.
            with open(os.path.join(a.env["XDG_CONFIG_HOME"], "Almanor", "settings.ini"), "a") as f:
                f.write("recordZone=_default\n")
            a.ok("sync")
            self.assertEqual(a.names(), ["From the default calendar"])
            # The default calendar is read once; the app's own zone is asked what changed.
            reports = [r for r in ScriptedDav.seen if r.startswith("REPORT") and APP_ZONE not in r]
            self.assertEqual(reports, ["REPORT /h/work/"])
            self.assertTrue(any(r.startswith(f"PUT /h/{APP_ZONE}/") for r in ScriptedDav.seen), ScriptedDav.seen)


class KeyringLogin(unittest.TestCase):
    """The password kept in a real Secret Service in a private D-Bus session."""

    def test_login_through_keyring_then_sync(self):
        with tempfile.TemporaryDirectory() as root:
            server, a, pw = one_machine(self, root)
            script = os.path.join(root, "session.sh")
            with open(script, "w") as f:
                f.write(f"""set -e
eval "$(printf unlock-pass | gnome-keyring-daemon --unlock --components=secrets --daemonize)"
export GNOME_KEYRING_CONTROL
"$1" cloud login {server.url} --user {server.user} < {pw}
"$1" events add "kept in the keyring" --date 2027-01-01 >/dev/null
"$1" sync
"$1" cloud logout
! "$1" sync 2>/dev/null
""")
            p = subprocess.run(["dbus-run-session", "--", "bash", script, ALMANOR], env=a.env,
                               capture_output=True, text=True, timeout=COMMAND_LIMIT)
            self.assertEqual(p.returncode, 0, p.stdout + p.stderr)
            self.assertEqual(len(server.resources(APP_ZONE)), 1)
            self.assertNotIn(server.password, p.stdout + p.stderr)


def main():
    global ALMANOR
    ALMANOR = os.path.abspath(sys.argv.pop(1))
    help_text = subprocess.run([ALMANOR, "--help"], capture_output=True, text=True).stdout
    if "cloud login" not in help_text:
        print("FAIL: almanor has no cloud commands")
        return 1
    missing = [c for c in ("xandikos", "vdirsyncer", "khal", "dbus-run-session", "gnome-keyring-daemon")
               if shutil.which(c) is None]
    if missing:
        print("FAIL: not installed: " + ", ".join(missing) + " (scripts/deps.sh installs them)")
        return 1
    result = unittest.main(exit=False).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
