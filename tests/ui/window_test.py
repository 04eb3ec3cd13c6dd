"""The management window driven as a user does, through AT-SPI and the keyboard, on two monitors:
opened from the tray's menu on the pointer's monitor, an event added through the sheet, selected,
edited, a bad date refused, found by the search, deleted with Cancel and with Confirm; the store is
checked through the command line afterwards."""

import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import harness as desktop  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = desktop.BIN_DIR


def keys(*args):
    subprocess.run(["xdotool", *args], check=True, timeout=10)


class WindowTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop(two_monitors=True)
        cls.d.home.add("Existing", "2030-06-01T18:30", "--schedule", "annually")
        cls.tray = cls.d.start_tray(panel=False)
        keys("mousemove", "1536", "384")  # the second monitor's middle
        desktop.click("Manage Events")
        from dogtail.config import config
        config.actionDelay = 0.2
        cls.window = desktop.window()
        cls.app = desktop.application()

    @classmethod
    def tearDownClass(cls):
        cls.d.close()

    def events(self):
        return {e["name"]: e for e in json.loads(self.d.home.ok("events", "list", "--json"))}

    def row(self, name):
        """The name cell of an event's row in the sidebar."""
        return self.window.child(roleName="table cell", name=name)

    def test_0_opens_centred_on_the_pointers_monitor(self):
        (x, y), (w, h) = self.window.position, self.window.size
        self.assertLessEqual(abs(x + w // 2 - 1536), 1, (x, w))
        self.assertLessEqual(abs(y + h // 2 - 384), 1, (y, h))
        subprocess.run(["import", "-window", "root", BIN + "/window-on-second-monitor.png"], check=True)
        self.assertTrue(self.window.child(roleName="label", name="v" + os.environ["ALMANOR_VERSION"]).showing)

    def test_2_add_through_the_sheet(self):
        keys("key", "ctrl+n")
        sheet = self.app.child(roleName="dialog", name="Add Event")
        save = sheet.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        sheet.child(roleName="text", label="Event:").typeText("  Dentist  ")
        keys("key", "alt+m")  # the field's mnemonic
        keys("type", "Teeth")
        sheet.child(roleName="radio button", name="Monthly").click()
        desktop.wait_for(lambda: save.sensitive, "Save Event enabled")
        keys("key", "ctrl+s")
        desktop.wait_for(lambda: "Dentist" in self.events(), "the new event in the store")
        self.assertEqual([self.events()["Dentist"][k] for k in ("alias", "schedule")], ["Teeth", "monthly"])
        desktop.wait_for(lambda: self.row("Dentist"), "the new row")

    def test_3_edit_the_selected_event(self):
        self.row("Existing").click()
        title = self.window.child(roleName="label", name="Existing - Jun 1, 2030")
        self.assertTrue(title.showing)
        save = self.window.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        self.assertFalse([b for b in self.window.findChildren(lambda n: n.roleName == "push button"
                                                              and n.name == "Cancel" and n.showing)])
        date = self.window.child(roleName="text", label="Date:")
        date.text = "not a date"
        desktop.wait_for(lambda: not save.sensitive, "Save Event disabled for a bad date")
        date.text = "2030-07-04"
        alias = self.window.child(roleName="text", label="Menubar:")
        alias.typeText("Ex")
        desktop.wait_for(lambda: save.sensitive, "Save Event enabled")
        keys("key", "ctrl+s")
        desktop.wait_for(lambda: self.events()["Existing"]["alias"] == "Ex", "the edit in the store")
        self.assertTrue(self.events()["Existing"]["date"].startswith("2030-07-04T"))
        desktop.wait_for(lambda: not save.sensitive, "Save Event disabled after saving")

    def test_4_search_by_name_and_alias(self):
        def names():
            return {n.name for n in self.window.findChildren(lambda n: n.roleName == "table cell")}
        self.row("Dentist").click()
        keys("type", "tee")  # typing in the list searches; Dentist's alias is "Teeth"
        desktop.wait_for(lambda: "Existing" not in names(), "the list filtered")
        self.assertIn("Dentist", names())
        keys("key", "Escape")  # closes the search, not the window
        desktop.wait_for(lambda: "Existing" in names(), "every row back")
        keys("key", "ctrl+f")
        keys("type", "EXI")
        keys("key", "Return")  # the first row found
        desktop.wait_for(lambda: self.window.findChildren(lambda n: n.name == "Existing - Jul 4, 2030"), "Existing")
        keys("key", "Escape")  # from the list too
        desktop.wait_for(lambda: "Dentist" in names(), "every row back")

    def test_5_delete_with_cancel_then_confirm(self):
        self.row("Dentist").click()
        keys("key", "Delete")
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        self.assertTrue(sheet.child(roleName="label", name='Are you sure you want to remove "Dentist"?'))
        keys("key", "Escape")
        desktop.wait_for(lambda: not sheet.showing, "the sheet gone")
        self.assertTrue(self.window.showing)
        self.assertIn("Dentist", self.events())
        self.window.child(roleName="push button", name="Delete Event").click()
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        sheet.child(roleName="push button", name="Confirm").click()
        desktop.wait_for(lambda: "Dentist" not in self.events(), "the event deleted")
        desktop.wait_for(lambda: self.window.child(roleName="label", name="Nothing Selected").showing,
                        "Nothing Selected")

    def test_6_manage_events_again_shows_the_same_window(self):
        for close in ("ctrl+w", "Escape"):
            keys("key", close)
            desktop.wait_for(lambda: not self.window.showing, "the window closed by " + close)
            desktop.click("Manage Events")
        frames = self.app.findChildren(lambda n: n.roleName == "frame" and n.name == "Almanor - Manage Events",
                                       recursive=False)
        self.assertEqual(len(frames), 1)
        self.assertIsNone(self.tray.poll())


if __name__ == "__main__":
    unittest.main(verbosity=2)
