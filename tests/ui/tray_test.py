"""The tray as a user and their panel meet it: the title as label, title, tooltip and the panel's
copy, the menu and its marks, changes from the command line, launch at login, the count as the
icon, the "sync" action, handing over to a running tray with GTK loaded only then, quitting, a
panel that starts late or again, and the events' rows made however a panel opens the menu."""

import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import desktop  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = os.environ["ALMANOR_BINARY_DIR"]
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


def tooltip():
    from gi.repository import GLib
    out = desktop.gdbus("-o", desktop.ITEM, "-m", "org.freedesktop.DBus.Properties.Get",
                        "org.kde.StatusNotifierItem", "ToolTip")
    return GLib.Variant.parse(GLib.VariantType.new("(v)"), out.strip(), None, None).unpack()[0]


class TrayTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = d = desktop.Desktop(BIN)
        cls.trip = d.almanor("events", "add", "Trip to Prague", "--date", "2031-01-05", "--alias",
                             "Trip").stdout.strip()
        cls.rent = d.almanor("events", "add", "Rent", "--date", "2024-01-22", "--schedule",
                             "monthly").stdout.strip()
        cls.gym = d.almanor("events", "add", "my_gym", "--date", "2024-01-08", "--schedule",
                            "weekly").stdout.strip()
        cls.log_file = os.path.join(os.environ["HOME"], "tray.log")
        cls.log = open(cls.log_file, "w+")
        cls.tray = cls.start_tray()

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    @classmethod
    def start_tray(cls, panel=True):
        tray = cls.d.spawn([BIN + "/almanor"], stdout=cls.log, stderr=subprocess.STDOUT)
        cls.d.wait_for(desktop.bus_has_label, "the tray's label")
        if panel:
            cls.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"]], "the item")
        return tray

    def quit(self, tray):
        desktop.click("Quit")
        self.assertEqual(tray.wait(10), 0)
        self.d.wait_for(lambda: not self.d.bus_has(desktop.DEST), "the tray gone from the bus")

    def tray_log(self):
        self.log.flush()
        with open(self.log_file) as f:
            return f.read()

    def status(self):
        return self.d.almanor("status").stdout.strip()

    def test_1_every_copy_of_the_title_agrees_and_follows_the_command_line(self):
        for step in (None, ("select", self.rent), ("events", "edit", self.rent, "--alias", "Flat")):
            if step:
                before = desktop.label()
                self.d.almanor(*step)
                self.d.wait_for(lambda: desktop.label() != before, "the new label", timeout=2.0)
            status = self.status()
            self.assertEqual([desktop.label(), desktop.item_property("Title"), tooltip()[2],
                              desktop.item_property("IconAccessibleDesc")], [status] * 4)
            self.d.wait_for(lambda: [i for i in desktop.panel_items()
                                     if i["label"] == status and i["title"] == status], "the panel's copy")
        self.assertTrue(desktop.label().startswith("Flat "))
        new = self.d.almanor("events", "add", "Dentist", "--date", "2030-03-03").stdout.strip()
        self.d.wait_for(lambda: "Dentist - Mar 3, 2030" in desktop.rows(), "the new row", timeout=2.0)
        self.d.almanor("events", "delete", new)
        self.d.wait_for(lambda: "Dentist - Mar 3, 2030" not in desktop.rows(), "the row gone", timeout=2.0)
        # Without an account nothing of the network is loaded, and GTK only with the window.
        self.assertEqual(mapped(self.tray.pid, NETWORK + GTK), [])

    def test_2_the_menu_has_its_rows_headers_and_marks_and_each_choice_is_kept(self):
        layout = desktop.menu()
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
            self.d.wait_for(lambda: selected() == stored, "the stored choice " + row)
            self.d.wait_for(lambda: [k for k, v in desktop.rows().items()
                                     if v.get("toggle-state") == 1] == [row, "Notify on the Day"], "the one mark " + row)
            if stored in (desktop.NEXT, self.trip):  # the other modes draw anew in every process
                self.assertEqual(desktop.label(), self.status())
        self.assertEqual(mapped(self.tray.pid, GTK), [])

    def test_3_launch_at_login_switches_an_autostart_entry(self):
        entry = os.path.join(os.environ["XDG_CONFIG_HOME"], "autostart", "com.vostrel.Almanor.desktop")
        self.assertFalse(os.path.exists(entry))
        desktop.click("Launch Almanor at Login")
        self.d.wait_for(lambda: os.path.exists(entry), "the autostart entry")
        with open(entry) as f:
            self.assertIn("Exec=" + BIN + "/almanor\n", f.read())
        self.d.wait_for(lambda: desktop.rows()["Launch Almanor at Login"]["toggle-state"] == 1, "the mark")
        desktop.click("Launch Almanor at Login")
        self.d.wait_for(lambda: not os.path.exists(entry), "the entry removed")

    def count_icon(self):
        """The panel's icon: its name and the text drawn in the file the panel loads."""
        name = desktop.item_property("IconName")
        svg = os.path.join(desktop.item_property("IconThemePath"), "hicolor", "scalable", "apps",
                           name + ".svg")
        text = open(svg).read() if os.path.exists(svg) else ""
        return name, text.split("<text", 1)[1].split(">", 1)[1].split("<", 1)[0] if "<text" in text else None

    def test_4_the_icon_carries_the_count_when_the_setting_says_so(self):
        self.d.almanor("select", self.trip)
        set_setting("panelIconShowsCount", "true")
        try:
            days = self.status().split()[-2]
            self.d.wait_for(lambda: self.count_icon()[1] == days, "the count in the icon")
            first_name = self.count_icon()[0]
            self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["icon"] == first_name
                                     and i["icon_path"] == desktop.item_property("IconThemePath")],
                            "the icon in the panel")
            today = self.d.almanor("events", "add", "Today", "--date", subprocess.run(
                ["date", "+%Y-%m-%d"], capture_output=True, text=True).stdout.strip()).stdout.strip()
            self.d.almanor("select", today)
            self.d.wait_for(lambda: self.count_icon()[1] == "!", "the day's mark")
            self.assertNotEqual(self.count_icon()[0], first_name)
            self.d.almanor("events", "delete", today)
            set_setting("panelIconShowsCount", "false")
            self.d.wait_for(lambda: desktop.item_property("IconName") == "com.vostrel.Almanor",
                            "the plain icon")
        finally:
            set_setting("panelIconShowsCount", None)

    def test_5_the_sync_action_asks_for_a_push(self):
        def pushes():
            return self.tray_log().count("Cloud not available for syncing")
        self.d.wait_for(lambda: pushes() > 0, "the start-up push")
        before = pushes()
        subprocess.run(["gdbus", "call", "--session", "--dest", desktop.DEST, "--object-path",
                        "/com/vostrel/Almanor", "--method", "org.gtk.Actions.Activate", "sync", "[]",
                        "{}"], check=True, capture_output=True, timeout=10)
        self.d.wait_for(lambda: pushes() == before + 1, "a push for the action")

    def test_6_starting_again_hands_over_and_opens_the_window(self):
        second = subprocess.run([BIN + "/almanor"], capture_output=True, timeout=30)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertIsNone(self.tray.poll())
        self.d.wait_for(lambda: desktop.window().showing, "the window")
        self.assertTrue(mapped(self.tray.pid, ("libgtk-3.so",)))
        # Nothing here draws with OpenGL: no graphics driver is loaded, even with the window open.
        with open(f"/proc/{self.tray.pid}/maps") as f:
            maps = f.read()
        self.assertEqual([lib for lib in ("libGLX_mesa", "_dri.so", "libLLVM") if lib in maps], [])

    def test_7_quit_ends_the_tray(self):
        self.quit(self.tray)

    def stop_watcher(self):
        self.d.watcher.terminate()
        self.d.watcher.wait(10)
        self.d.wait_for(lambda: not self.d.bus_has("org.kde.StatusNotifierWatcher"), "the watcher gone")

    def start_watcher(self):
        self.d.watcher = self.d.spawn([desktop.WATCHER])
        self.d.wait_for(lambda: self.d.bus_has("org.kde.StatusNotifierWatcher"), "the new watcher")

    def test_8_a_panel_that_starts_late_or_again_gets_the_item(self):
        self.stop_watcher()
        said = self.tray_log().count("No panel shows status items yet")
        tray = self.start_tray(panel=False)
        try:
            self.d.wait_for(lambda: self.tray_log().count("No panel shows status items yet") == said + 1,
                            "the line saying so")
            for _ in range(3):  # late, then two panel restarts
                self.start_watcher()
                status = self.status()
                self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status],
                                "the item registered with the new watcher")
                self.assertEqual(len(desktop.panel_items()), 1)
                self.stop_watcher()
            self.start_watcher()
            self.d.almanor("select", self.gym)
            self.d.wait_for(lambda: [i for i in desktop.panel_items()
                                     if i["label"].startswith("my_gym ")], "the new label in the panel")
            self.assertEqual(self.tray_log().count("No panel shows status items yet"), said + 1)
        finally:
            self.quit(tray)

    def test_9_the_events_rows_are_made_however_a_panel_opens_the_menu(self):
        # The rows are there when the panel reads them, under the row it already knows: a row put
        # in its place would close a submenu being opened.
        menu = desktop.ITEM + "/Menu"
        ways = {"AboutToShow": desktop.about_to_show,
                "AboutToShowGroup": lambda ident: desktop.gdbus(
                    "-o", menu, "-m", "com.canonical.dbusmenu.AboutToShowGroup", "--", "[0, %d]" % ident),
                "opened": lambda ident: desktop.gdbus(
                    "-o", menu, "-m", "com.canonical.dbusmenu.Event", "--", "0", "opened", "<int32 0>", "0")}
        for (way, tell), (chosen, row) in zip(ways.items(), [(self.rent, "Rent - 22nd"),
                                                             (self.gym, "my__gym - Mon")] * 2):
            with self.subTest(way):
                tray = self.start_tray()
                try:
                    # Chosen after the start, before the menu was ever shown.
                    self.d.almanor("select", chosen)
                    self.d.wait_for(lambda: desktop.label() == self.status(), "the new label")
                    events = desktop.layout()[2][0]
                    self.assertEqual((events[1]["label"], events[2]), ("Events", []))
                    tell(events[0])
                    self.d.wait_for(lambda: desktop.layout()[2][0][2], "the rows")
                    shown = desktop.layout()[2][0]
                    self.assertEqual(shown[0], events[0])
                    marked = [k for k, v in desktop.rows(shown).items() if v.get("toggle-state") == 1]
                    self.assertEqual(marked, [row])
                finally:
                    self.quit(tray)


if __name__ == "__main__":
    unittest.main(verbosity=2)
