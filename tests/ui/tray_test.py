"""The tray as a user meets it: the title in the panel, the menu, changes from the command line,
launch at login, handing over to a running tray, the window, quitting."""

import json
import os
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import desktop  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = os.environ["ALMANOR_BINARY_DIR"]


def settings():
    path = os.path.join(os.environ["XDG_CONFIG_HOME"], "Almanor", "settings.ini")
    with open(path) as f:
        return f.read()


def selected():
    for line in settings().splitlines():
        if line.startswith("selectedEvent="):
            return line.split("=", 1)[1]
    return None


class TrayTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop(BIN)
        d = cls.d
        cls.trip = d.almanor("events", "add", "Trip to Prague", "--date", "2031-01-05", "--alias", "Trip").stdout.strip()
        cls.rent = d.almanor("events", "add", "Rent", "--date", "2024-01-22", "--schedule", "monthly").stdout.strip()
        d.almanor("events", "add", "my_gym", "--date", "2024-01-08", "--schedule", "weekly")
        cls.log = open(os.path.join(os.environ["HOME"], "tray.log"), "w+")
        cls.tray = d.spawn([BIN + "/almanor"], stdout=cls.log, stderr=subprocess.STDOUT)
        d.wait_for(lambda: d.bus_has(desktop.DEST) and desktop.label_or_none(), "the tray's label")

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def test_1_the_label_is_the_command_lines_title(self):
        status = self.d.almanor("status").stdout.strip()
        self.assertEqual(desktop.label(), status)
        self.assertEqual(desktop.item_property("Title"), status)
        self.log.seek(0)
        lines = self.log.read().splitlines()
        self.assertIn("selectedEvent 00000000-0000-0000-0000-000000000000", lines)

    def test_2_the_menu_has_its_rows_headers_and_marks(self):
        layout = desktop.menu()
        top = [child[1].get("label", "-") for child in layout[2]]
        self.assertEqual(top, ["Events", "Manage Events", "-", "Launch Almanor at Login", "-", "Quit"])
        rows = desktop.rows(layout)
        for header in ("Automatic selection", "One off events", "Weekly events", "Monthly events"):
            self.assertFalse(rows[header]["enabled"], header)
        self.assertNotIn("Annual events", rows)
        # Underscores are text, not mnemonics: the menu protocol doubles them.
        self.assertIn("my__gym - Mon", rows)
        self.assertIn("Rent - 22nd", rows)
        self.assertIn("Trip to Prague - Jan 5, 2031", rows)
        marked = [k for k, v in rows.items() if v.get("toggle-state") == 1]
        self.assertEqual(len(marked), 1)
        self.assertEqual(rows["Next upcoming event"]["toggle-type"], "checkmark")

    def test_3_each_mode_and_an_event_can_be_chosen(self):
        for row, stored in (("Next upcoming event", desktop.NEXT), ("Random event selection", desktop.RANDOM),
                            ("Rotate upcoming events (hourly)", desktop.ROTATE)):
            desktop.click(row)
            self.d.wait_for(lambda: selected() == stored, "the stored mode " + row)
            self.d.wait_for(lambda: desktop.rows()[row].get("toggle-state") == 1, "the mark of " + row)
            marked = [k for k, v in desktop.rows().items() if v.get("toggle-state") == 1]
            self.assertEqual(marked, [row])
            if stored == desktop.NEXT:  # the other modes draw anew in every process
                self.assertEqual(desktop.label(), self.d.almanor("status").stdout.strip())
        desktop.click("Trip to Prague - Jan 5, 2031")
        self.d.wait_for(lambda: selected() == self.trip, "the chosen event")
        self.d.wait_for(lambda: desktop.label().startswith("Trip "), "the chosen event's label")

    def test_4_command_line_changes_reach_the_label(self):
        before = time.monotonic()
        self.d.almanor("events", "edit", self.trip, "--alias", "Prague")
        self.d.wait_for(lambda: desktop.label().startswith("Prague "), "the edited alias", timeout=2.0)
        self.d.almanor("select", self.rent)
        self.d.wait_for(lambda: desktop.label().startswith("Rent "), "the selection from the command line",
                        timeout=2.0)
        new = self.d.almanor("events", "add", "Dentist", "--date", "2030-03-03").stdout.strip()
        self.d.wait_for(lambda: "Dentist - Mar 3, 2030" in desktop.rows(), "the new row", timeout=2.0)
        self.d.almanor("events", "delete", new)
        self.d.wait_for(lambda: "Dentist - Mar 3, 2030" not in desktop.rows(), "the row gone", timeout=2.0)
        self.assertLess(time.monotonic() - before, 10)

    def test_5_launch_at_login_switches_an_autostart_entry(self):
        entry = os.path.join(os.environ["XDG_CONFIG_HOME"], "autostart", "com.vostrel.Almanor.desktop")
        self.assertFalse(os.path.exists(entry))
        desktop.click("Launch Almanor at Login")
        self.d.wait_for(lambda: os.path.exists(entry), "the autostart entry")
        with open(entry) as f:
            text = f.read()
        self.assertIn("Exec=" + BIN + "/almanor\n", text)
        self.d.wait_for(lambda: desktop.rows()["Launch Almanor at Login"]["toggle-state"] == 1, "the mark")
        desktop.click("Launch Almanor at Login")
        self.d.wait_for(lambda: not os.path.exists(entry), "the entry removed")

    def test_6_starting_again_hands_over_and_opens_the_window(self):
        second = subprocess.run([BIN + "/almanor"], capture_output=True, timeout=30)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertIsNone(self.tray.poll())
        from dogtail.config import config
        config.checkForA11y = False
        from dogtail import tree
        config.searchCutoffCount = 20
        app = tree.root.application("almanor-tray")
        window = app.child(roleName="frame", name="Almanor - Manage Events")
        self.assertTrue(window.showing)
        window.child(roleName="push button", name="Add Event").click()
        sheet = app.child(roleName="dialog", name="Add Event")
        name = sheet.child(roleName="text", label="Event:")
        name.typeText("From the window")
        save = sheet.child(roleName="push button", name="Save Event")
        self.d.wait_for(lambda: save.sensitive, "Save Event enabled")
        save.click()
        self.d.wait_for(lambda: "From the window" in [e["name"] for e in self.events()], "the saved event")
        self.d.wait_for(lambda: any(k.startswith("From the window - ") for k in desktop.rows()), "the menu row")
        # Nothing here draws with OpenGL: no graphics driver is loaded, even with the window open.
        with open(f"/proc/{self.tray.pid}/maps") as f:
            maps = f.read()
        self.assertEqual([lib for lib in ("libGLX_mesa", "_dri.so", "libLLVM") if lib in maps], [])

    def test_7_quit_ends_the_tray(self):
        desktop.click("Quit")
        self.assertEqual(self.tray.wait(10), 0)

    def events(self):
        return json.loads(self.d.almanor("events", "list", "--json").stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
