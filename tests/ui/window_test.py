"""The management window driven as a user does, through AT-SPI: opened from the tray's menu, an
event added through the sheet, selected, edited, a bad date refused, deleted with Cancel and with
Confirm; the store is checked through the command line afterwards."""

import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import desktop  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = os.environ["ALMANOR_BINARY_DIR"]


class WindowTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop(BIN)
        cls.d.almanor("events", "add", "Existing", "--date", "2030-06-01T18:30", "--schedule", "annually")
        cls.tray = cls.d.spawn([BIN + "/almanor"], stdout=subprocess.DEVNULL)
        cls.d.wait_for(desktop.bus_has_label, "the tray's menu")
        desktop.click("Manage Events")
        from dogtail.config import config
        config.actionDelay = 0.2
        cls.window = desktop.window()
        cls.app = desktop.application()

    @classmethod
    def tearDownClass(cls):
        cls.d.close()

    def events(self):
        return {e["name"]: e for e in json.loads(self.d.almanor("events", "list", "--json").stdout)}

    def row(self, name):
        """The name cell of an event's row in the sidebar."""
        return self.window.child(roleName="table cell", name=name)

    def test_1_window_layout(self):
        for header in ("One Off Events", "Weekly Events", "Monthly Events", "Annual Events"):
            self.assertTrue(self.window.child(name=header).showing, header)
        self.assertTrue(self.window.child(roleName="label", name="Nothing Selected").showing)
        self.assertTrue(self.window.child(roleName="label", name="v" + os.environ.get("ALMANOR_VERSION", "")))
        self.assertTrue(self.window.child(roleName="push button", name="Delete Event"))

    def test_2_add_through_the_sheet(self):
        self.window.child(roleName="push button", name="Add Event").click()
        sheet = self.app.child(roleName="dialog", name="Add Event")
        save = sheet.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        sheet.child(roleName="text", label="Event:").typeText("  Dentist  ")
        sheet.child(roleName="text", label="Menubar:").typeText("Teeth")
        sheet.child(roleName="radio button", name="Monthly").click()
        self.d.wait_for(lambda: save.sensitive, "Save Event enabled")
        save.click()
        self.d.wait_for(lambda: "Dentist" in self.events(), "the new event in the store")
        e = self.events()["Dentist"]
        self.assertEqual(e["alias"], "Teeth")
        self.assertEqual(e["schedule"], "monthly")
        self.d.wait_for(lambda: self.row("Dentist"), "the new row")
        self.assertTrue(self.row("Teeth"))  # the alias beside the name

    def test_3_edit_the_selected_event(self):
        self.start_time = self.events()["Existing"]["date"][10:]
        self.row("Existing").click()
        title = self.window.child(roleName="label", name="Existing - Jun 1, 2030")
        self.assertTrue(title.showing)
        save = self.window.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        self.assertFalse([b for b in self.window.findChildren(lambda n: n.roleName == "push button"
                                                              and n.name == "Cancel" and n.showing)])
        date = self.window.child(roleName="text", label="Date:")
        date.text = "not a date"
        self.d.wait_for(lambda: not save.sensitive, "Save Event disabled for a bad date")
        date.text = "2030-07-04"
        alias = self.window.child(roleName="text", label="Menubar:")
        alias.typeText("Ex")
        self.d.wait_for(lambda: save.sensitive, "Save Event enabled")
        save.click()
        self.d.wait_for(lambda: self.events()["Existing"]["alias"] == "Ex", "the edit in the store")
        e = self.events()["Existing"]
        self.assertTrue(e["date"].startswith("2030-07-04T"), e["date"])
        # The stored time of day (18:30 local) was kept.
        self.assertEqual(e["date"][10:], self.start_time)
        self.d.wait_for(lambda: not save.sensitive, "Save Event disabled after saving")

    def test_4_delete_with_cancel_then_confirm(self):
        self.row("Dentist").click()
        self.window.child(roleName="push button", name="Delete Event").click()
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        self.assertTrue(sheet.child(roleName="label", name='Are you sure you want to remove "Dentist"?'))
        sheet.child(roleName="push button", name="Cancel").click()
        self.d.wait_for(lambda: not sheet.showing, "the sheet gone")
        self.assertIn("Dentist", self.events())
        self.window.child(roleName="push button", name="Delete Event").click()
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        sheet.child(roleName="push button", name="Confirm").click()
        self.d.wait_for(lambda: "Dentist" not in self.events(), "the event deleted")
        self.d.wait_for(lambda: self.window.child(roleName="label", name="Nothing Selected").showing,
                        "Nothing Selected")

    def test_5_manage_events_again_shows_the_same_window(self):
        desktop.click("Manage Events")
        frames = self.app.findChildren(lambda n: n.roleName == "frame" and n.name == "Almanor - Manage Events",
                                       recursive=False)
        self.assertEqual(len(frames), 1)
        self.assertIsNone(self.tray.poll())


if __name__ == "__main__":
    unittest.main(verbosity=2)
