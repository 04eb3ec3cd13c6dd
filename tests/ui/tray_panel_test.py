"""The tray as panels see it beyond the label: the tooltip and title, a watcher that restarts (a
panel restart), GTK loaded only with the window, the count drawn as the icon for panels without
labels, and the application action "sync"."""

import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import desktop  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
BIN = os.environ["ALMANOR_BINARY_DIR"]
GTK = ("libgtk-3.so", "libgdk-3.so", "libgtkmm-3.0.so", "libatk-bridge-2.0.so")
NETWORK = ("libcurl", "libxml2", "libical", "libsecret", "libgnutls", "libssl", "libkrb5", "libldap")


def settings_file():
    return os.path.join(os.environ["XDG_CONFIG_HOME"], "Almanor", "settings.ini")


def set_setting(key, value):
    """Writes one key as a user would, by editing the file (the command line has no such key)."""
    with open(settings_file()) as f:
        lines = [l for l in f.read().splitlines() if not l.startswith(key + "=")]
    if value is not None:
        lines.insert(lines.index("[com.vostrel.Almanor]") + 1, key + "=" + value)
    with open(settings_file() + ".new", "w") as f:
        f.write("\n".join(lines) + "\n")
    os.replace(settings_file() + ".new", settings_file())


def gtk_mapped(pid):
    return sorted(lib for lib in desktop.mapped_libraries(pid) if lib.startswith(GTK))


def tooltip():
    from gi.repository import GLib
    out = desktop.gdbus("-o", desktop.ITEM, "-m", "org.freedesktop.DBus.Properties.Get",
                        "org.kde.StatusNotifierItem", "ToolTip")
    return GLib.Variant.parse(GLib.VariantType.new("(v)"), out.strip(), None, None).unpack()[0]


class TrayPanelTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop(BIN)
        d = cls.d
        cls.trip = d.almanor("events", "add", "Trip to Prague", "--date", "2031-01-05", "--alias", "Trip").stdout.strip()
        cls.gym = d.almanor("events", "add", "Gym", "--date", "2024-01-08", "--schedule", "weekly").stdout.strip()
        d.almanor("select", cls.trip)
        cls.log_file = os.path.join(os.environ["HOME"], "tray.log")
        cls.log = open(cls.log_file, "w+")

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def start_tray(self, **env):
        tray = self.d.spawn([BIN + "/almanor"], stdout=self.log, stderr=subprocess.STDOUT,
                            env=dict(os.environ, **env))
        self.d.wait_for(lambda: self.d.bus_has(desktop.DEST) and desktop.label_or_none(), "the tray's label")
        self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"]], "the item in the panel")
        return tray

    def quit(self, tray):
        desktop.click("Quit")
        self.assertEqual(tray.wait(10), 0)
        self.d.wait_for(lambda: not self.d.bus_has(desktop.DEST), "the tray gone from the bus")

    def window(self):
        from dogtail.config import config
        config.checkForA11y = False
        config.searchCutoffCount = 20
        from dogtail import tree
        return tree.root.application("almanor-tray").child(roleName="frame", name="Almanor - Manage Events")

    def test_1_tooltip_title_and_label_agree_and_follow_changes(self):
        tray = self.start_tray()
        try:
            for step in (None, self.gym):
                if step:
                    self.d.almanor("select", step)
                    self.d.wait_for(lambda: desktop.label().startswith("Gym "), "the new label")
                status = self.d.almanor("status").stdout.strip()
                self.assertEqual(desktop.label(), status)
                self.assertEqual(desktop.item_property("Title"), status)
                self.assertEqual(tooltip()[2], status)
                self.assertEqual(desktop.item_property("IconAccessibleDesc"), status)
                # What the panel was handed, not only what the item says.
                self.d.wait_for(lambda: [i for i in desktop.panel_items()
                                         if i["label"] == status and i["title"] == status], "the panel's copy")
            self.assertEqual(desktop.item_property("IconName"), "com.vostrel.Almanor")
            # Without an account the CalDAV adapter stays unloaded.
            self.assertEqual([lib for lib in desktop.mapped_libraries(tray.pid) if lib.startswith(NETWORK)], [])
        finally:
            self.d.almanor("select", self.trip)
            self.quit(tray)

    def stop_watcher(self):
        self.d.watcher.terminate()
        self.d.watcher.wait(10)
        self.d.wait_for(lambda: not self.d.bus_has("org.kde.StatusNotifierWatcher"), "the watcher gone")

    def start_watcher(self):
        self.d.watcher = self.d.spawn([desktop.WATCHER])
        self.d.wait_for(lambda: self.d.bus_has("org.kde.StatusNotifierWatcher"), "the new watcher")

    def tray_log(self):
        self.log.flush()
        with open(self.log_file) as f:
            return f.read()

    def test_2_a_watcher_that_starts_late_or_again_gets_the_item(self):
        # No panel yet when the tray starts (a tray started before the panel at login).
        self.stop_watcher()
        said = self.tray_log().count("No panel shows status items yet")
        tray = self.d.spawn([BIN + "/almanor"], stdout=self.log, stderr=subprocess.STDOUT)
        try:
            self.d.wait_for(lambda: self.d.bus_has(desktop.DEST) and desktop.label_or_none(), "the label")
            self.d.wait_for(lambda: self.tray_log().count("No panel shows status items yet") == said + 1,
                            "the line saying so")
            self.start_watcher()
            status = self.d.almanor("status").stdout.strip()
            self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status],
                            "the item registered with the late watcher")
            # A panel restart drops every item; the tray comes back each time.
            for _ in range(2):
                self.stop_watcher()
                self.start_watcher()
                self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status],
                                "the item registered again")
                self.assertEqual(len(desktop.panel_items()), 1)
            self.assertIsNone(tray.poll())
            # A label changed after the restart reaches the new watcher too.
            self.d.almanor("select", self.gym)
            self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["label"].startswith("Gym ")],
                            "the new label in the panel")
            self.assertEqual(self.tray_log().count("No panel shows status items yet"), said + 1)
        finally:
            self.d.almanor("select", self.trip)
            self.quit(tray)

    def test_3_gtk_comes_with_the_window_from_the_menu(self):
        tray = self.start_tray()
        try:
            self.assertEqual(gtk_mapped(tray.pid), [])
            desktop.click("Launch Almanor at Login")  # any row but the window's keeps GTK out
            desktop.click("Launch Almanor at Login")
            desktop.click("Trip to Prague - Jan 5, 2031")
            self.assertEqual(gtk_mapped(tray.pid), [])
            desktop.click("Manage Events")
            self.d.wait_for(lambda: self.window().showing, "the window")
            self.assertTrue([lib for lib in gtk_mapped(tray.pid) if lib.startswith("libgtk-3.so")])
        finally:
            self.quit(tray)

    def test_4_gtk_comes_with_the_window_from_a_second_almanor(self):
        tray = self.start_tray()
        try:
            self.assertEqual(gtk_mapped(tray.pid), [])
            second = subprocess.run([BIN + "/almanor"], capture_output=True, timeout=30)
            self.assertEqual(second.returncode, 0, second.stderr)
            self.d.wait_for(lambda: self.window().showing, "the window")
            self.assertTrue([lib for lib in gtk_mapped(tray.pid) if lib.startswith("libgtk-3.so")])
            self.assertIsNone(tray.poll())
        finally:
            self.quit(tray)

    def count_icon(self):
        """The panel's icon: its name and the text drawn in the file the panel loads."""
        name = desktop.item_property("IconName")
        folder = desktop.item_property("IconThemePath")
        svg = os.path.join(folder, "hicolor", "scalable", "apps", name + ".svg")
        if not os.path.exists(svg):
            return name, None
        with open(svg) as f:
            text = f.read()
        return name, text[text.index("<text"):].split(">", 1)[1].split("<", 1)[0]

    def test_5_the_icon_carries_the_count_when_the_setting_says_so(self):
        set_setting("panelIconShowsCount", "true")
        tray = self.start_tray()
        try:
            days = int(desktop.label().split()[-2])
            self.d.wait_for(lambda: self.count_icon()[1] == str(days), "the count in the icon")
            first_name = self.count_icon()[0]
            # The panel is handed the drawn icon.
            self.d.wait_for(lambda: [i for i in desktop.panel_items() if i["icon"] == first_name
                                     and i["icon_path"] == desktop.item_property("IconThemePath")],
                            "the icon in the panel")
            self.d.almanor("select", self.gym)
            gym_days = int(self.d.almanor("status").stdout.split()[-2])
            self.d.wait_for(lambda: self.count_icon()[1] == str(gym_days), "the new count in the icon")
            self.assertNotEqual(self.count_icon()[0], first_name)
            # An event on its day shows "!".
            today = self.d.almanor("events", "add", "Today", "--date",
                                   subprocess.run(["date", "+%Y-%m-%d"], capture_output=True,
                                                  text=True).stdout.strip()).stdout.strip()
            self.d.almanor("select", today)
            self.d.wait_for(lambda: self.count_icon()[1] == "!", "the day's mark")
            self.d.almanor("events", "delete", today)
            # Switched off in the file while the tray runs: the application's icon again.
            set_setting("panelIconShowsCount", "false")
            self.d.wait_for(lambda: desktop.item_property("IconName") == "com.vostrel.Almanor", "the plain icon")
        finally:
            set_setting("panelIconShowsCount", None)
            self.d.almanor("select", self.trip)
            self.quit(tray)

    def test_6_kde_gets_the_count_unless_the_setting_says_no(self):
        tray = self.start_tray(XDG_CURRENT_DESKTOP="KDE")
        try:
            self.d.wait_for(lambda: self.count_icon()[1] == desktop.label().split()[-2], "the count on KDE")
        finally:
            self.quit(tray)
        set_setting("panelIconShowsCount", "false")
        tray = self.start_tray(XDG_CURRENT_DESKTOP="KDE")
        try:
            self.assertEqual(desktop.item_property("IconName"), "com.vostrel.Almanor")
        finally:
            set_setting("panelIconShowsCount", None)
            self.quit(tray)

    def test_7_the_sync_action_asks_for_a_push(self):
        tray = self.start_tray()
        try:
            def pushes():
                return self.tray_log().count("Cloud not available for syncing")
            self.d.wait_for(lambda: pushes() > 0, "the start-up push")
            before = pushes()
            subprocess.run(["gdbus", "call", "--session", "--dest", desktop.DEST, "--object-path",
                            "/com/vostrel/Almanor", "--method", "org.gtk.Actions.Activate", "sync", "[]", "{}"],
                           check=True, capture_output=True, timeout=10)
            self.d.wait_for(lambda: pushes() == before + 1, "a push for the action")
        finally:
            self.quit(tray)

    def test_8_the_events_rows_are_made_when_a_panel_opens_the_menu(self):
        # However a panel says it opens the menu, the rows are there when it reads them, under the
        # row it already knows: a row put in its place would close a submenu being opened.
        menu_path = desktop.ITEM + "/Menu"
        ways = {
            "AboutToShow": lambda ident: desktop.about_to_show(ident),
            "AboutToShowGroup": lambda ident: desktop.gdbus(
                "-o", menu_path, "-m", "com.canonical.dbusmenu.AboutToShowGroup", "--", "[0, %d]" % ident),
            "opened": lambda ident: desktop.gdbus(
                "-o", menu_path, "-m", "com.canonical.dbusmenu.Event", "--", "0", "opened", "<int32 0>", "0"),
        }
        for way, tell in ways.items():
            with self.subTest(way):
                tray = self.start_tray()
                try:
                    # Chosen before the menu was ever shown.
                    self.d.almanor("select", self.gym)
                    self.d.wait_for(lambda: desktop.label().startswith("Gym "), "the new label")
                    events = desktop.layout()[2][0]
                    self.assertEqual((events[1]["label"], events[2]), ("Events", []))
                    tell(events[0])
                    self.d.wait_for(lambda: desktop.layout()[2][0][2], "the rows")
                    shown = desktop.layout()[2][0]
                    self.assertEqual(shown[0], events[0])
                    rows = desktop.rows(shown)
                    self.assertIn("Trip to Prague - Jan 5, 2031", rows)
                    self.assertEqual([k for k, v in rows.items() if v.get("toggle-state") == 1], ["Gym - Mon"])
                finally:
                    self.d.almanor("select", self.trip)
                    self.quit(tray)


if __name__ == "__main__":
    unittest.main(verbosity=2)
