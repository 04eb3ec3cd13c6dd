"""The tray with a calendar server, as a user with two machines meets it: the first title comes
from what the start-up pull brought, local changes are pushed at start-up and when they are
made, an outage loses nothing, and the window follows a pull."""

import glob
import json
import os
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "cloud", "e2e"))
import desktop  # noqa: E402
from servers import Radicale  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = os.environ["ALMANOR_BINARY_DIR"]


class Laptop(desktop.Laptop):
    def names_after_sync(self):
        self.almanor("sync")
        return {e["name"] for e in json.loads(self.almanor("events", "list", "--json"))}


class TrayCloudTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        root = os.environ["HOME"]
        cls.server = Radicale(os.path.join(root, "server"))
        cls.pwfile = os.path.join(root, "pw")
        with open(cls.pwfile, "w") as f:
            f.write(cls.server.password + "\n")
        cls.laptop = Laptop(root, BIN)
        cls.login = ["cloud", "login", cls.server.url, "--user", cls.server.user,
                     "--password-command", "cat " + cls.pwfile]
        cls.laptop.almanor(*cls.login)
        # A weekly event is never more than six days away, so it is the next upcoming one here
        # only if the pull brought it before the first title.
        cls.laptop.almanor("events", "add", "Gym", "--date", "2024-01-08", "--schedule", "weekly")
        cls.laptop.almanor("events", "add", "Trip to Prague", "--date", "2031-01-05", "--alias", "Trip")
        cls.laptop.almanor("sync")

        cls.d = desktop.Desktop(BIN)
        # This machine's password command notes each time it is asked.
        cls.asked = os.path.join(root, "asked")
        cls.d.almanor(*cls.login[:-1], "echo >> %s; cat %s" % (cls.asked, cls.pwfile))
        cls.d.almanor("events", "add", "Dentist", "--date", "2030-06-01")  # made offline, not pushed yet
        cls.log = open(os.path.join(root, "tray.log"), "w+")
        # The dynamic linker's log of every symbol it binds, read after the window has opened.
        cls.bindings = os.path.join(root, "bindings")
        env = dict(os.environ, LD_DEBUG="bindings", LD_DEBUG_OUTPUT=cls.bindings)
        cls.tray = cls.d.spawn([BIN + "/almanor"], stdout=cls.log, stderr=subprocess.STDOUT, env=env)
        cls.first_label = cls.d.wait_for(desktop.label_or_none, "the tray's first label", timeout=30)

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.server.stop()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def tray_log(self):
        self.log.seek(0)
        return self.log.read().splitlines()

    def wait_on_laptop(self, names, what):
        self.d.wait_for(lambda: names <= self.laptop.names_after_sync(), what, timeout=30)

    def test_1_first_title_comes_from_the_pulled_events(self):
        self.assertTrue(self.first_label.startswith("Gym "), self.first_label)
        # One summary line for the pass, none per record.
        self.d.wait_for(lambda: "Synced: 2 received, 1 sent" in self.tray_log(),
                        "the start-up pass's summary")
        self.assertFalse([l for l in self.tray_log() if l.startswith("Populating ")])
        self.assertIn("Gym - Mon", desktop.rows())
        # A child process ran the pass: the network stack stays out of the tray.
        self.assertFalse([l for l in desktop.mapped_libraries(self.tray.pid) if l.startswith("libcurl")])

    def test_2_the_offline_event_is_pushed_at_start_up(self):
        self.wait_on_laptop({"Dentist"}, "the offline event on the laptop")

    def test_3_a_change_is_pushed_when_it_is_made(self):
        self.d.almanor("events", "add", "Concert", "--date", "2029-09-09")
        self.wait_on_laptop({"Concert"}, "the new event on the laptop")

    def test_4_an_outage_loses_nothing_and_sends_nothing_twice(self):
        folder, port = self.server.folder, self.server.port
        self.server.stop()
        self.d.almanor("events", "add", "While offline", "--date", "2029-10-10")
        self.d.wait_for(lambda: any("While offline" in l for l in desktop.rows()), "the menu row")
        time.sleep(1)  # the tray's push of it fails now
        type(self).server = Radicale(folder, port=port)
        # The next change takes the earlier one with it.
        self.d.almanor("events", "add", "Back online", "--date", "2029-11-11")
        self.wait_on_laptop({"While offline", "Back online"}, "both events on the laptop")
        names = [e["name"] for e in json.loads(self.laptop.almanor("events", "list", "--json"))]
        self.assertEqual(len(names), len(set(names)), names)
        self.assertEqual(len(self.server.resources("com.vostrel.almanor.zone")), len(names))
        self.assertIsNone(self.tray.poll())
        # Asked at login and by the tray's first pass; the tray handed it to every later one.
        with open(self.asked) as f:
            self.assertEqual(len(f.readlines()), 2)

    def test_5_the_window_follows_a_pull(self):
        second = subprocess.run([BIN + "/almanor"], capture_output=True, timeout=30)
        self.assertEqual(second.returncode, 0, second.stderr)
        from dogtail.config import config
        config.checkForA11y = False
        config.searchCutoffCount = 20
        from dogtail import tree
        window = tree.root.application("almanor-tray").child(roleName="frame", name="Almanor - Manage Events")
        self.laptop.almanor("events", "add", "Picnic", "--date", "2029-05-05")
        self.laptop.almanor("sync")
        self.d.almanor("sync")
        self.d.wait_for(lambda: any(k.startswith("Picnic - ") for k in desktop.rows()), "the pulled event's menu row")
        cells = lambda: [n.name for n in window.findChildren(lambda n: n.roleName == "table cell")]
        self.d.wait_for(lambda: "Picnic" in cells(), "the pulled event in the window")

        # With the window loaded and passes run: one copy of each library in the process, and no
        # library binds a symbol to the program itself.
        with open("/proc/%d/maps" % self.tray.pid) as f:
            paths = {line.split()[-1] for line in f if "/" in line}
        version = os.environ["ALMANOR_VERSION"]
        for library in ("libstdc++.so", "libicuuc.so", "libsqlite3.so", "libglib-2.0.so",
                        "libalmanor-%s.so" % version, "libalmanor-dates-%s.so" % version):
            self.assertEqual(len([p for p in paths if os.path.basename(p).startswith(library)]), 1,
                             (library, sorted(paths)))
        program = os.path.realpath(os.path.join(BIN, "almanor-tray"))
        log = "".join(open(p).read() for p in glob.glob(self.bindings + ".%d" % self.tray.pid))
        self.assertIn("binding file", log)
        self.assertEqual([line for line in log.splitlines() if " to " + program + " [" in line], [])

    def test_6_quit_leaves_nothing_unsent(self):
        desktop.click("Quit")
        self.assertEqual(self.tray.wait(30), 0)
        status = self.d.almanor("cloud", "status", "--json").stdout
        self.assertEqual(json.loads(status)["pending"], {"inserted": 0, "updated": 0, "deleted": 0}, status)



if __name__ == "__main__":
    unittest.main(verbosity=2)
