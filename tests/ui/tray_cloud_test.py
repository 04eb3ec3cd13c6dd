"""The tray with a calendar server, as a user with two machines meets it: the first title comes
from what the start-up pull brought, local changes are pushed at start-up and when they are
made, an outage loses nothing, the menu and the window follow a pull the tray is asked for over
D-Bus, and quitting in the middle of a 500-event first push leaves at once, the next start
finishing the push without a copy."""

import glob
import os
import re
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import harness  # noqa: E402
from harness import wait_for  # noqa: E402

harness.in_private_session(os.path.abspath(__file__))


class TrayCloudTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        root = os.environ["HOME"]
        cls.server = harness.Radicale(os.path.join(root, "server"))
        cls.laptop = harness.Home(os.path.join(root, "laptop"))
        cls.laptop.login(cls.server)
        # A weekly event is never more than six days away, so it is the next upcoming one here
        # only if the pull brought it before the first title.
        cls.laptop.add("Gym", "2024-01-08", "--schedule", "weekly")
        cls.laptop.add("Trip to Prague", "2031-01-05", "--alias", "Trip")
        cls.laptop.ok("sync")

        cls.d = harness.Desktop()
        # This machine's password command notes each time it is asked.
        cls.asked = os.path.join(root, "asked")
        cls.d.home.login(cls.server, "echo >> %s; cat {}" % cls.asked)
        cls.d.home.add("Dentist", "2030-06-01")  # made offline, not pushed yet
        cls.log = open(os.path.join(root, "tray.log"), "w+")
        # The dynamic linker's log of every symbol it binds, read after the window has opened.
        cls.bindings = os.path.join(root, "bindings")
        cls.tray = cls.d.start_tray(log=cls.log, panel=False, LD_DEBUG="bindings", LD_DEBUG_OUTPUT=cls.bindings)
        cls.first_label = harness.item_property()

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
        def names_after_sync():
            self.laptop.ok("sync")
            return set(self.laptop.events().values())
        wait_for(lambda: names <= names_after_sync(), what, timeout=30)

    def test_1_first_title_comes_from_the_pulled_events_and_the_offline_event_is_pushed(self):
        self.assertTrue(self.first_label.startswith("Gym "), self.first_label)
        # One summary line for the pass, none per record.
        wait_for(lambda: "Synced: 2 received, 1 sent" in self.tray_log(), "the start-up pass's summary")
        self.assertFalse([l for l in self.tray_log() if l.startswith("Populating ")])
        # A child process ran the pass: the network stack stays out of the tray.
        self.assertFalse([l for l in harness.mapped_libraries(self.tray.pid) if l.startswith("libcurl")])
        self.wait_on_laptop({"Dentist"}, "the offline event on the laptop")

    def test_2_an_outage_loses_nothing_and_sends_nothing_twice(self):
        folder, port = self.server.folder, self.server.port
        self.server.stop()
        self.d.home.add("While offline", "2029-10-10")
        wait_for(lambda: any("While offline" in l for l in harness.rows()), "the menu row")
        time.sleep(1)  # the tray's push of it fails now
        type(self).server = harness.Radicale(folder, port=port)
        # The next change, pushed as it is made, takes the earlier one with it.
        self.d.home.add("Back online", "2029-11-11")
        self.wait_on_laptop({"While offline", "Back online"}, "both events on the laptop")
        names = list(self.laptop.events().values())
        self.assertEqual(len(names), len(set(names)), names)
        self.assertEqual(len(self.server.resources()), len(names))
        # Asked at login and by the tray's first pass; the tray handed it to every later one.
        with open(self.asked) as f:
            self.assertEqual(len(f.readlines()), 2)

    def test_3_the_menu_and_the_window_follow_a_pull_asked_for_over_dbus(self):
        self.d.home.ok()  # a second start opens the running tray's window
        window = harness.window()
        self.laptop.add("Picnic", "2029-05-05")
        self.laptop.ok("sync")
        harness.gdbus("-o", "/com/vostrel/Almanor", "-m", "org.gtk.Actions.Activate", "sync", "[]", "{}")
        wait_for(lambda: "Picnic - May 5, 2029" in harness.rows(), "the pulled event's menu row", timeout=30)
        cells = lambda: [n.name for n in window.findChildren(lambda n: n.roleName == "table cell")]
        wait_for(lambda: "Picnic" in cells(), "the pulled event in the window")

        # With the window loaded and passes run: one copy of each library in the process, and no
        # library binds a symbol to the program itself.
        with open("/proc/%d/maps" % self.tray.pid) as f:
            paths = {line.split()[-1] for line in f if "/" in line}
        version = os.environ["ALMANOR_VERSION"]
        for library in ("libstdc++.so", "libicuuc.so", "libsqlite3.so", "libglib-2.0.so",
                        "libalmanor-%s.so" % version, "libalmanor-dates-%s.so" % version):
            self.assertEqual(len([p for p in paths if os.path.basename(p).startswith(library)]), 1,
                             (library, sorted(paths)))
        program = os.path.realpath(os.path.join(harness.BIN_DIR, "almanor-tray"))
        log = "".join(open(p).read() for p in glob.glob(self.bindings + ".%d" % self.tray.pid))
        self.assertIn("binding file", log)
        self.assertEqual([line for line in log.splitlines() if " to " + program + " [" in line], [])

    def test_4_quit_during_a_first_push_leaves_at_once_and_the_next_start_finishes_without_copies(self):
        self.d.quit(self.tray, timeout=30)  # one tray on the bus at a time
        home = harness.Home(os.path.join(os.environ["HOME"], "quit"), desktop=True)
        home.login(self.server)
        home.fill_store(500)
        held = len(self.server.resources())
        tray = self.d.start_tray(home, panel=False)
        wait_for(lambda: len(self.server.resources()) >= held + 20, "the first push under way", timeout=120)
        started = time.monotonic()
        self.d.quit(tray, timeout=30)
        self.assertLess(time.monotonic() - started, 2.0, "quitting waited for the push")
        self.assertLess(len(self.server.resources()), held + 500, "the push had ended before the quit")

        tray = self.d.start_tray(home, panel=False)
        wait_for(lambda: len(self.server.resources()) >= held + 500, "the push finished by the next start",
                 timeout=300)
        time.sleep(2)
        ids = [re.search(r"X-CD-EVENTID[^:]*:([0-9A-F-]{36})", text).group(1) for text in self.server.stored()]
        self.assertEqual((len(ids), len(set(ids))), (held + 500, held + 500), "an event sent twice")
        self.d.quit(tray, timeout=30)


if __name__ == "__main__":
    unittest.main(verbosity=2)
