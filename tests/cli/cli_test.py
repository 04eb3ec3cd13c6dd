#!/usr/bin/env python3
"""The command line as scripts, status bars and shells use it: the real binary over a real store
and settings file in a temporary home.
Usage: cli_test.py ALMANOR LOCALES COMPLETIONS [unittest arguments]"""
import datetime
import glob
import json
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest
import zoneinfo

ALMANOR, LOCALES, COMPLETIONS = sys.argv[1:4]
NEW_YORK = "America/New_York"
DAMAGED = ("almanor: The event store {} could not be read: database disk image is malformed "
           "(code: 11); restore it from a backup, or move it away to start afresh\n")
# An account whose server is not there: nothing listens on port 9.
ACCOUNT = "cloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo pw\n"


def local_date(plus_days, zone=NEW_YORK):
    today = datetime.datetime.now(zoneinfo.ZoneInfo(zone)).date()
    return (today + datetime.timedelta(days=plus_days)).isoformat()


class Home(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = folder.name
        self.db = self.home + "/data/Almanor/EventsV1.db"
        self.settings = self.home + "/config/Almanor/settings.ini"
        self.today = local_date(0)

    def tearDown(self):
        # Counting relative to today breaks if midnight passes during the test.
        if self.today != local_date(0):
            self.skipTest("midnight passed during the test")

    def cli(self, *args, tz=NEW_YORK, language=("LANG=C.UTF-8",), env=(), program=ALMANOR):
        """(status, stdout, stderr) of almanor (or the program) in the temporary home."""
        environment = {k: v for k, v in os.environ.items() if k.startswith(("ASAN_", "UBSAN_", "LSAN_"))}
        environment.update(HOME=self.home, XDG_CONFIG_HOME=self.home + "/config",
                           XDG_DATA_HOME=self.home + "/data", TZ=tz, LOCPATH=LOCALES,
                           PATH=os.path.dirname(ALMANOR) + ":/usr/bin:/bin")
        environment.update(v.split("=", 1) for v in (*language, *env))
        r = subprocess.run([program, *args], env=environment, capture_output=True, timeout=60)
        return r.returncode, r.stdout.decode(errors="surrogateescape"), r.stderr.decode(errors="replace")

    def add(self, *args):
        status, out, err = self.cli("events", "add", *args)
        self.assertEqual(status, 0, err)
        self.assertEqual(len(out), 37)
        return out[:36]

    def list(self, tz=NEW_YORK):
        status, out, err = self.cli("events", "list", "--json", tz=tz)
        self.assertEqual(status, 0, err)
        return json.loads(out)

    def has(self, event, **fields):
        self.assertEqual({k: event[k] for k in fields}, fields)

    def one_line(self, result, status, err):
        self.assertEqual(result[0], status, result[2])
        self.assertEqual(result[1], "", err)
        self.assertTrue(result[2].startswith(err), result[2])
        self.assertEqual(result[2].count("\n"), 1, result[2])

    def write(self, name, text, mode="w"):
        path = os.path.join(self.home, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, mode) as f:
            f.write(text)
        return path



class CommandTest(Home):
    def test_add_list_and_edit_as_a_user_would(self):
        trip = self.add("  Trip to Prague \n", "--date", local_date(12), "--alias", " Two\nlines\t ")
        rent = self.add("Rent", "--date", "2024-01-31", "--schedule", "monthly", "--count",
                        "monday-after", "--alias", "   ")
        # 23:30 UTC: already the next day in Tokyo, still that day in Los Angeles.
        now = datetime.datetime.now(datetime.timezone.utc)
        launch = datetime.datetime.combine(now.date() + datetime.timedelta(days=40),
                                           datetime.time(23, 30), datetime.timezone.utc)
        self.add("Launch", "--date", launch.strftime("%Y-%m-%dT%H:%MZ"))

        events = self.list()
        self.assertEqual(len(events), 3)
        # By date: Rent's first date lies in the past.
        self.has(events[0], id=rent, alias=None, date="2024-01-31T05:00:00.000Z", schedule="monthly",
                 count="monday-after")
        self.assertGreater(events[0]["days"], 0)
        self.has(events[1], name="Trip to Prague", alias="Two\nlines", title="Two lines 12 days",
                 occurrence=events[1]["date"])
        for zone in ("Asia/Tokyo", "America/Los_Angeles"):
            local = zoneinfo.ZoneInfo(zone)
            days = (launch.astimezone(local).date() - now.astimezone(local).date()).days
            self.has(self.list(zone)[2], date=launch.strftime("%Y-%m-%dT%H:%M:00.000Z"), days=days)
        # One line per event: line breaks and controls escaped.
        out = self.cli("events", "list")[1]
        self.assertEqual(out.count("\n"), 3)
        self.assertIn(trip + "  " + local_date(12), out)
        self.assertIn("Trip to Prague (Two\\nlines): Two lines 12 days\n", out)

        self.assertEqual(self.cli("events", "edit", trip, "--alias", "", "--date", local_date(-1)),
                         (0, "", ""))
        self.assertEqual(self.list()[1]["title"], "Trip to Prague 2 days ago")  # yesterday counts two

    def test_status_and_select_follow_the_displayed_event_rules_in_the_users_language(self):
        self.assertEqual(self.cli("status")[1], "Almanor  \U0001F389\n")
        self.assertEqual(json.loads(self.cli("status", "--json")[1])["class"], "none")
        later = self.add("Later", "--date", local_date(30))
        self.add("Soon\r\nnow", "--date", local_date(3))
        self.add("Past", "--date", local_date(-3))
        self.assertEqual(self.cli("status")[1], "Past 4 days ago\n")  # the nil selection: the first
        self.assertEqual(self.cli("select", "next"), (0, "Soon  now 3 days\n", ""))
        waybar = json.loads(self.cli("status", "--json")[1])
        self.has(waybar, text="Soon  now 3 days", tooltip="Soon\r\nnow: " + local_date(3))
        self.assertEqual(waybar["class"], "upcoming")
        # The language as GNU programs choose it: LANGUAGE's list unless the locale is C, then
        # LC_MESSAGES before LANG; the catalogues found beside the binary.
        for language, title in [(["LANG=de_DE.UTF-8"], "Soon  now 3 Tage\n"),
                                (["LANG=de_DE.UTF-8", "LC_MESSAGES=cs_CZ.UTF-8"], "Soon  now 3 dny\n"),
                                (["LANG=cs_CZ.UTF-8", "LANGUAGE=fr:de"], "Soon  now 3 Tage\n"),
                                (["LANG=C", "LANGUAGE=de"], "Soon  now 3 days\n")]:
            self.assertEqual(self.cli("status", language=language)[1], title, language)
        self.assertEqual(self.cli("events", "delete", "abcd", language=["LANG=de_DE.UTF-8"])[2],
                         "kein Ereignis mit der Kennung ABCD\n")
        self.assertEqual(self.cli("select", later)[1], "Later 30 days\n")
        self.assertEqual(self.cli("events", "delete", later)[0], 0)
        self.assertEqual(self.cli("select", "rotate")[1], "Soon  now 3 days\n")  # the only upcoming

    def test_exit_statuses_and_their_one_line(self):
        missing = "3f2504e0-4f89-41d3-9a0c-0305e82c3301"
        bad_input = [
            (["events", "add", "   ", "--date", "2030-01-01"], "almanor: the event name must not be blank\n"),
            (["events", "add", "X", "--date", "2030-02-30"], "almanor: invalid date '2030-02-30'"),
            (["events", "add", "X"], "almanor: "),
            (["events", "add", "X", "--date", "2030-01-01", "--schedule", "daily"], "almanor: "),
            (["events", "add", "X", "--date", "2030-01-01", "--count", "weekdays"], "almanor: "),
            (["events", "edit", "not-a-uuid", "--name", "X"], "almanor: 'not-a-uuid' is not an event id"),
            (["events", "edit", missing], "almanor: nothing to change"),
            (["events", "edit", missing, "--name", " "], "almanor: the event name must not be"),
            (["select", "soonest"], "almanor: 'soonest' is not an event id"),
            (["events"], "almanor: "),
            (["frobnicate"], "almanor: "),
            (["status", "--yaml"], "almanor: "),
        ]
        for args, err in bad_input:
            self.one_line(self.cli(*args), 2, err)
        self.assertEqual(os.listdir(self.home), [])  # nothing written
        kept = self.add("Kept", "--date", "2030-05-05")
        for args in (["events", "delete", missing], ["events", "edit", missing, "--name", "X"],
                     ["select", missing]):
            self.one_line(self.cli(*args), 1, "no event with id 3F2504E0-4F89-41D3-9A0C-0305E82C3301\n")
        self.assertEqual(self.cli("events", "delete", kept)[0], 0)
        for args in (["events", "delete", kept], ["select", kept]):  # no longer live
            self.one_line(self.cli(*args), 1, "no event with id " + kept)
        # A selection that cannot be saved.
        shutil.rmtree(os.path.dirname(self.settings))
        self.write("config/Almanor", "a file where the folder should be")
        self.one_line(self.cli("select", "random"), 3, "Failed to save settings to ")

    def test_every_command_takes_a_unique_prefix_of_four_or_more_in_either_case(self):
        self.assertEqual(self.cli("events", "list")[0], 0)
        when = (datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=3))
        date = when.strftime("%Y-%m-%dT%H:%M:%S.000")
        store = sqlite3.connect(self.db)
        store.executemany(
            "INSERT INTO events (id, name, date, schedule, method, created, updated, deleted)"
            " VALUES (?, ?, ?, 0, 0, ?, ?, ?)",
            [(uid + "-0000-4000-8000-00000000000" + n, name, date, date, date, deleted)
             for uid, n, name, deleted in [("ABCD1234", "1", "Alpha", None),
                                           ("ABCD1299", "2", "Be\nta", None),
                                           ("ABCE0000", "3", "Gamma", None),
                                           ("ABCF0000", "4", "Gone", date)]])
        store.commit()
        store.close()
        ambiguous = ("almanor: the id ABCD12 is ambiguous: 2 events start with it\n"
                     "ABCD1234  Alpha\nABCD1299  Be\\nta\n")
        for args, status, err in [
                (["events", "delete", "abcd12"], 2, ambiguous),
                (["events", "edit", "abcd123", "--name", "Renamed"], 0, ""),
                (["select", "abce"], 0, ""),
                (["events", "delete", "ABCE0000-0000-4000-8000-000000000003"], 0, ""),
                (["select", "abc"], 2, "almanor: 'abc' is too short for an event id: give at least 4 of its "
                                       "characters\n"),
                (["events", "delete", "abcd_"], 2, "almanor: 'abcd_' is not an event id (a UUID such as "
                                                   "3F2504E0-4F89-41D3-9A0C-0305E82C3301, or its first "
                                                   "characters)\n"),
                (["events", "delete", "abcf"], 1, "no event with id ABCF\n"),  # deleted
                (["select", "abce"], 1, "no event with id ABCE\n")]:
            self.assertEqual(self.cli(*args)[::2], (status, err), args)
        events = self.list()
        self.assertEqual(len(events), 2)
        self.has(events[1], id="ABCD1234-0000-4000-8000-000000000001", name="Renamed")  # whole ids



class FileAndLibraryTest(Home):
    def test_an_export_imported_into_an_empty_store_gives_the_same_list_once(self):
        self.add('Leap, "day"; \\ x', "--date", "2028-02-29", "--schedule", "annually", "--alias", "L;p")
        self.add("Rent", "--date", "2024-01-31", "--schedule", "monthly", "--count", "monday-after")
        self.add("Gym\nclass", "--date", "2030-01-07T18:30", "--schedule", "weekly", "--count",
                 "friday-before")
        self.add("Trip", "--date", "2031-01-05", "--count", "exclude-weekends")
        before = self.list()
        ics = self.home + "/all.ics"
        self.assertEqual(self.cli("events", "export", ics)[0], 0)
        # The same to standard output, but for the moment stamped in it.
        self.assertEqual(len(self.cli("events", "export")[1]), os.path.getsize(ics))
        os.rename(self.home + "/data", self.home + "/first")
        status, _, err = self.cli("events", "import", ics)
        self.assertEqual((status, err), (0, "Imported 4 events; 0 already here, 0 skipped\n"))
        self.assertEqual(self.cli("events", "import", ics),
                         (0, "", "Imported 0 events; 4 already here, 0 skipped\n"))
        self.assertEqual(self.list(), before)
        self.assertEqual(self.cli("events", "delete", before[0]["id"])[0], 0)
        self.assertEqual(self.cli("events", "import", ics)[2],
                         'almanor: skipped "Rent": it was deleted here; add it again with events add\n'
                         "Imported 0 events; 3 already here, 1 skipped\n")

    def test_import_keeps_what_an_event_can_stand_for_and_names_what_it_skips(self):
        def vevent(uid, lines):
            return f"BEGIN:VEVENT\r\nUID:{uid}\r\nSUMMARY:{uid}\r\n{lines}END:VEVENT\r\n"
        birthdays = "".join([
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Contacts//EN\r\n",
            vevent("Anna", "DTSTART;VALUE=DATE:19850412\r\nRRULE:FREQ=YEARLY\r\n"),
            vevent("Bob", "DTSTART;VALUE=DATE:19920131\r\nRRULE:FREQ=YEARLY;BYMONTH=1;BYMONTHDAY=31\r\n"),
            vevent("Call", "DTSTART;TZID=Europe/Prague:20300105T013000\r\n"),
            vevent("Daily", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=DAILY\r\n"),
            vevent("Fortnight", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=WEEKLY;INTERVAL=2\r\n"),
            vevent("Thrice", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=YEARLY;COUNT=3\r\n"),
            vevent("Days", "DTSTART;VALUE=DATE:20300101\r\nRRULE:FREQ=MONTHLY;BYDAY=1MO\r\n"),
            vevent("Leapless", "DTSTART;VALUE=DATE:19900229\r\n"),
            vevent("Undated", ""),
            vevent("Anna", "DTSTART;VALUE=DATE:20000101\r\n"),
            vevent("Anna", "RECURRENCE-ID;VALUE=DATE:20300412\r\nDTSTART;VALUE=DATE:20300413\r\n"),
            "END:VCALENDAR\r\n"])
        status, _, err = self.cli("events", "import", self.write("b.ics", birthdays))
        self.assertEqual(status, 0)
        self.assertEqual(err, 'almanor: skipped "Daily": it repeats daily; only weekly, monthly and '
                              'yearly ones are kept\n'
                              'almanor: skipped "Fortnight": it repeats every 2 weeks\n'
                              'almanor: skipped "Thrice": its repetition ends; Almanor\'s go on for ever\n'
                              'almanor: skipped "Days": it repeats on days of its own '
                              '(RRULE:FREQ=MONTHLY;BYDAY=1MO)\n'
                              'almanor: skipped "Leapless": its date does not exist\n'
                              'almanor: skipped "Undated": it has no date\n'
                              'almanor: skipped "Anna": its UID is that of an event before it in the file\n'
                              "Imported 3 events; 0 already here, 7 skipped\n")
        events = self.list()
        self.assertEqual(len(events), 3)
        # Local midnight.
        self.has(events[0], name="Anna", date="1985-04-12T05:00:00.000Z", schedule="annually")
        self.assertEqual(events[1]["schedule"], "annually")
        self.has(events[2], date="2030-01-05T00:30:00.000Z", schedule="none")

        big = "BEGIN:VCALENDAR\r\n" + "x" * (16 << 20)
        for bad in ["hello", birthdays[:300], birthdays[:20] + "\0" + birthdays[20:], big]:
            shutil.rmtree(self.home + "/data", ignore_errors=True)
            result = self.cli("events", "import", self.write("bad.ics", bad))
            self.one_line(result, 2, "")
            self.assertFalse(os.path.exists(self.home + "/data"))

    def test_a_damaged_store_is_exit_three_and_one_line_for_every_command_and_nothing_is_written(self):
        kept = self.add("Kept", "--date", "2030-01-01")
        fillers = "".join(f"BEGIN:VEVENT\r\nUID:{i}\r\nSUMMARY:Filler\r\nDTSTART;VALUE=DATE:20300201\r\n"
                          "END:VEVENT\r\n" for i in range(40))
        path = self.write("fillers.ics", "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + fillers + "END:VCALENDAR\r\n")
        self.assertEqual(self.cli("events", "import", path)[0], 0)
        self.write(self.settings, ACCOUNT, "a")  # so that sync gets as far as the store
        with open(self.db, "r+b") as f:
            f.truncate(os.path.getsize(self.db) // 2)

        def snapshot():
            """The bytes and the time of every file in the home, to see that nothing was written."""
            files = [pathlib.Path(folder, name) for folder, _, names in os.walk(self.home) for name in names]
            return {f: (f.read_bytes(), f.stat().st_mtime_ns) for f in files}
        before = snapshot()
        for args in [["status"], ["select", "next"], ["events", "list"],
                     ["events", "add", "New", "--date", "2030-01-01"], ["events", "delete", kept],
                     ["cloud", "status"], ["sync"]]:
            self.assertEqual(self.cli(*args), (3, "", DAMAGED.format(self.db)), args)
        self.assertEqual(snapshot(), before)
        # The way out that the line names: moved away, the store starts afresh.
        os.rename(self.db, self.home + "/damaged.db")
        self.assertEqual(self.cli("events", "add", "New", "--date", "2030-01-01")[0], 0)

    def loaded(self, *args):
        """almanor's (status, stdout, stderr) and every object it loaded, dlopen()ed ones included."""
        log = self.home + "/ld"
        result = self.cli(*args, env=["LD_DEBUG=files", "LD_DEBUG_OUTPUT=" + log])
        objects = set()
        for name in glob.glob(log + ".*"):
            with open(name) as f:
                objects |= set(re.findall(r"file=(\S+) ", f.read()))
            os.remove(name)
        return result, objects

    def test_local_commands_load_no_network_and_the_completions_offer_the_events(self):
        """Status bars run the local commands every few seconds: they load no network, keyring or
        ICU; the cloud commands do. The completions driven as bash and fish drive them."""
        def local(*args):
            result, objects = self.loaded(*args)
            self.assertEqual(result[0], 0, result[2])
            self.assertTrue(any("libc.so" in o for o in objects), "the log names no library at all")
            network = re.compile(r"lib(curl|xml2|ical|secret|gnutls|ssl|crypto|krb5|nghttp|ssh|psl|idn2|gtk|"
                                 r"gdk|X11|wayland|ayatana|icu)")
            self.assertEqual([o for o in objects if network.search(o)], [], args)
            return result[1]
        # A name that looks like the start of another event in the JSON, and one with a colon.
        trip_name = 'Trip "A"},{"id":"00000000-0000-0000-0000-000000000000'
        trip = local("events", "add", trip_name, "--date", "2031-01-05").strip()
        rent = local("events", "add", "Rent: flat", "--date", "2024-01-31", "--schedule", "monthly").strip()
        ids = " ".join(sorted([trip, rent]))
        bash = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _almanor;'
                ' printf "%s\\n" "${COMPREPLY[@]}"')
        # The words typed, the last one the word being completed; what bash is to offer.
        for line, expected in [
                ("almanor ", "cloud events select status sync"),
                ("almanor events ", "add delete edit export import list"),
                ("almanor cloud lo", "login logout"),
                ("almanor status -", "--help --json"),
                ("almanor events add Trip --count f", "friday-before"),
                ("almanor events add Trip --count = m", "monday-after"),
                (f"almanor events edit {trip} --schedule ", "annually monthly none weekly"),
                (f"almanor events edit {trip} --alias x --",
                 "--alias --count --date --help --name --schedule"),
                ("almanor events delete ", ids),
                ("almanor events edit --date = 2031-01-01 ", ids),
                ("almanor select ", ids + " next random rotate"),
                (f"almanor select {trip} ", "--help")]:
            words = line.split(" ")
            _, out, err = self.cli("-c", bash, "bash", COMPLETIONS + "/almanor.bash", *words, program="bash")
            self.assertEqual(" ".join(sorted(out.split())), expected, line + err)
        # fish shows each event's name beside its id.
        _, out, _ = self.cli("--no-config", "-c", f"source '{COMPLETIONS}/almanor.fish'; "
                             "complete -C 'almanor events delete '", program="fish")
        self.assertEqual(sorted(out.splitlines()), sorted([f"{trip}\t{trip_name}", f"{rent}\tRent: flat"]))

        # With an account configured the local commands still load nothing of the network.
        self.write(self.settings, ACCOUNT, "a")
        for args in ["status", "status --json", "events list", f"events edit {trip} --alias Teeth",
                     "select next", "cloud status", "cloud status --json", f"events delete {trip}"]:
            local(*args.split())
        curl = re.compile(r"libcurl[-.]")
        self.assertTrue(any(curl.search(o) for o in self.loaded("cloud", "logout")[1]))
        self.assertFalse(any(curl.search(o) for o in self.loaded("sync")[1]))  # logged out: no account

        # A damaged settings file is told on standard error by every command, the CalDAV adapter's
        # included (it logs through the program's own log): standard output carries only results.
        for args in ["status", "events list", "select next", "cloud status", "cloud logout", "sync"]:
            self.write(self.settings, "[com.vostrel.Almanor]\n\001garbage\n" + ACCOUNT)
            _, out, err = self.cli(*args.split())
            self.assertIn("damaged settings file", err, args)
            self.assertIsNone(re.search("settings|dropped", out), args)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
