"""The tray as a user and their panel meet it: the title as label, title, tooltip and the panel's
copy, the menu and its marks, changes from the command line, launch at login, the count as the
icon, handing over to a running tray with GTK loaded only then, quitting, a panel that starts
late or again, and the events' rows made however a panel opens the menu."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import harness as desktop  # noqa: E402
from harness import wait_for  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = desktop.BIN_DIR
GTK = ("libgtk-3.so", "libgdk-3.so", "libatk-bridge-2.0.so")
NETWORK = ("libcurl", "libxml2", "libical", "libsecret", "libgnutls", "libssl")
SETTINGS = os.path.join(os.environ["XDG_CONFIG_HOME"], "Almanor", "settings.ini")


def settings():
    with open(SETTINGS) as f:
        return f.read()


def selected():
    return next((l.split("=", 1)[1] for l in settings().splitlines()
                 if l.startswith("selectedEvent=")), None)


def set_setting(key, value):
    """Writes one key as a user would, by editing the file (the command line has no such key)."""
    lines = [l for l in settings().splitlines() if not l.startswith(key + "=")]
    if value is not None:
        lines.insert(lines.index("[com.vostrel.Almanor]") + 1, key + "=" + value)
    with open(SETTINGS + ".new", "w") as f:
        f.write("\n".join(lines) + "\n")
    os.replace(SETTINGS + ".new", SETTINGS)


def mapped(pid, prefixes):
    return sorted(lib for lib in desktop.mapped_libraries(pid) if lib.startswith(prefixes))




class TrayTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop()
        cls.me = cls.d.home
        cls.trip = cls.me.add("Trip to Prague", "2031-01-05", "--alias", "Trip")
        cls.rent = cls.me.add("Rent", "2024-01-22", "--schedule", "monthly")
        cls.gym = cls.me.add("my_gym", "2024-01-08", "--schedule", "weekly")
        cls.log_file = os.path.join(os.environ["HOME"], "tray.log")
        cls.log = open(cls.log_file, "w+")
        cls.tray = cls.d.start_tray(log=cls.log)

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def tray_log(self):
        self.log.flush()
        with open(self.log_file) as f:
            return f.read()

    def status(self):
        return self.me.ok("status").strip()

    def test_1_every_copy_of_the_title_agrees_and_follows_the_command_line(self):
        for step in (None, ("select", self.rent), ("events", "edit", self.rent, "--alias", "Flat")):
            if step:
                before = desktop.item_property()
                self.me.ok(*step)
                wait_for(lambda: desktop.item_property() != before, "the new label", timeout=2.0)
            status = self.status()
            tooltip = desktop.gdbus("-o", desktop.ITEM, "-m", "org.freedesktop.DBus.Properties.Get",
                                    "org.kde.StatusNotifierItem", "ToolTip")
            self.assertEqual([desktop.item_property(), desktop.item_property("Title"),
                              desktop.item_property("IconAccessibleDesc")], [status] * 3)
            self.assertIn("'%s'" % status, tooltip)
            wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status and i["title"] == status],
                     "the panel's copy")
        self.assertTrue(desktop.item_property().startswith("Flat "))
        # Without an account nothing of the network is loaded, and GTK only with the window.
        self.assertEqual(mapped(self.tray.pid, NETWORK + GTK), [])

    def test_2_the_menu_has_its_rows_headers_and_marks_and_each_choice_is_kept(self):
        desktop.rows()  # the menu as a panel opening it reads it
        layout = desktop.layout()
        self.assertEqual([child[1].get("label", "-") for child in layout[2]],
                         ["Events", "Manage Events", "-", "Launch Almanor at Login", "Notify on the Day", "-", "Quit"])
        rows = desktop.rows(layout)
        for header in ("Automatic selection", "One off events", "Weekly events", "Monthly events"):
            self.assertFalse(rows[header]["enabled"], header)
        self.assertNotIn("Annual events", rows)
        # Underscores are text, not mnemonics: the menu protocol doubles them.
        for row in ("my__gym - Mon", "Rent - 22nd", "Trip to Prague - Jan 5, 2031"):
            self.assertIn(row, rows)
        self.assertEqual(rows["Next upcoming event"]["toggle-type"], "checkmark")
        for row, stored in (("Random event selection", desktop.RANDOM),
                            ("Rotate upcoming events (hourly)", desktop.ROTATE),
                            ("Next upcoming event", desktop.NEXT),
                            ("Trip to Prague - Jan 5, 2031", self.trip)):
            desktop.click(row)
            wait_for(lambda: selected() == stored, "the stored choice " + row)
            wait_for(lambda: [k for k, v in desktop.rows().items() if v.get("toggle-state") == 1]
                     == [row, "Notify on the Day"], "the one mark " + row)
            if stored in (desktop.NEXT, self.trip):  # the other modes draw anew in every process
                self.assertEqual(desktop.item_property(), self.status())
        self.assertEqual(mapped(self.tray.pid, GTK), [])

    def test_3_launch_at_login_switches_an_autostart_entry(self):
        entry = os.path.join(os.environ["XDG_CONFIG_HOME"], "autostart", "com.vostrel.Almanor.desktop")
        self.assertFalse(os.path.exists(entry))
        desktop.click("Launch Almanor at Login")
        wait_for(lambda: os.path.exists(entry), "the autostart entry")
        with open(entry) as f:
            self.assertIn("Exec=" + BIN + "/almanor\n", f.read())
        wait_for(lambda: desktop.rows()["Launch Almanor at Login"]["toggle-state"] == 1, "the mark")
        desktop.click("Launch Almanor at Login")
        wait_for(lambda: not os.path.exists(entry), "the entry removed")

    def count_icon(self):
        """The icon's pixels as the item serves them, by size."""
        from gi.repository import GLib
        out = desktop.gdbus("-o", desktop.ITEM, "-m", "org.freedesktop.DBus.Properties.Get",
                            "org.kde.StatusNotifierItem", "IconPixmap")
        icons = GLib.Variant.parse(GLib.VariantType.new("(v)"), out.strip(), None, None).unpack()[0]
        return {width: bytes(data) for width, height, data in icons}

    def test_4_the_icon_carries_the_count_unless_the_setting_says_no(self):
        self.me.ok("select", self.trip)
        wait_for(lambda: sorted(self.count_icon()) == [16, 22, 24, 32, 48], "the count's pixels")
        first = self.count_icon()
        today = self.me.add("Today", time.strftime("%Y-%m-%d"))
        self.me.ok("select", today)
        wait_for(lambda: self.count_icon() not in ({}, first), "the day's mark")
        # The indicators' service here reads no pixels: it is given the application's icon.
        self.assertEqual(desktop.item_property("IconName"), "com.vostrel.Almanor")
        self.me.ok("events", "delete", today)
        set_setting("panelIconShowsCount", "false")
        try:
            wait_for(lambda: self.count_icon() == {}, "the plain icon")
        finally:
            set_setting("panelIconShowsCount", None)
        wait_for(lambda: self.count_icon() != {}, "the count again")  # handled before the next test

    def test_6_starting_again_hands_over_and_opens_the_window(self):
        self.me.ok()
        self.assertIsNone(self.tray.poll())
        wait_for(lambda: desktop.window().showing, "the window")
        self.assertTrue(mapped(self.tray.pid, ("libgtk-3.so",)))
        # Nothing here draws with OpenGL: no graphics driver is loaded, even with the window open.
        with open(f"/proc/{self.tray.pid}/maps") as f:
            maps = f.read()
        self.assertEqual([lib for lib in ("libGLX_mesa", "_dri.so", "libLLVM") if lib in maps], [])

    def test_7_quit_ends_the_tray(self):
        self.d.quit(self.tray)

    def test_8_a_panel_that_starts_late_or_again_gets_the_item(self):
        self.d.stop_watcher()
        said = self.tray_log().count("No panel shows status items yet")
        tray = self.d.start_tray(log=self.log, panel=False)
        try:
            wait_for(lambda: self.tray_log().count("No panel shows status items yet") == said + 1,
                     "the line saying so")
            for _ in range(3):  # late, then two panel restarts
                self.d.start_watcher()
                status = self.status()
                wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status],
                         "the item registered with the new watcher")
                self.assertEqual(len(desktop.panel_items()), 1)
                self.d.stop_watcher()
            self.d.start_watcher()
            self.me.ok("select", self.gym)
            wait_for(lambda: [i for i in desktop.panel_items() if i["label"].startswith("my_gym ")],
                     "the new label in the panel")
            self.assertEqual(self.tray_log().count("No panel shows status items yet"), said + 1)
            # The menu never shown yet: a panel that says it opened it gets the rows.
            self.rows_made_when_shown(lambda ident: desktop.gdbus(
                "-o", desktop.ITEM + "/Menu", "-m", "com.canonical.dbusmenu.Event", "--", "0", "opened", "<int32 0>",
                "0"), "my__gym - Mon")
        finally:
            self.d.quit(tray)

    def rows_made_when_shown(self, tell, row):
        """The rows are there when the panel reads them, under the row it already knows (a row put
        in its place would close a submenu being opened), the choice made before the menu was
        first shown marked."""
        wait_for(lambda: desktop.item_property() == self.status(), "the new label")
        events = desktop.layout()[2][0]
        self.assertEqual((events[1]["label"], events[2]), ("Events", []))
        tell(events[0])
        wait_for(lambda: desktop.layout()[2][0][2], "the rows")
        shown = desktop.layout()[2][0]
        self.assertEqual(shown[0], events[0])
        self.assertEqual([k for k, v in desktop.rows(shown).items() if v.get("toggle-state") == 1], [row])

    def test_9_the_events_rows_are_made_when_a_panel_asks_for_them(self):
        tray = self.d.start_tray(log=self.log)
        try:
            self.me.ok("select", self.rent)  # after the start, before the menu was ever shown
            self.rows_made_when_shown(lambda ident: desktop.gdbus(
                "-o", desktop.ITEM + "/Menu", "-m", "com.canonical.dbusmenu.AboutToShowGroup", "--", "[0, %d]" % ident),
                "Rent - 22nd")
        finally:
            self.d.quit(tray)


if __name__ == "__main__":
    unittest.main(verbosity=2)
