"""The tray and the window as a user and their panel meet them: one scenario on one desktop of two
monitors, the session's own tray first, then one with a calendar server and a second machine."""

import glob
import json
import os
import re
import subprocess
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
NOTIFICATIONS = "org.freedesktop.Notifications"
TODAY = time.strftime("%Y-%m-%d")

# A notification service that writes each Notify as "summary|body"; Click(id) acts as a user's click.
FAKE = r'''
import sys
from gi.repository import Gio, GLib
XML = """<node><interface name="org.freedesktop.Notifications">
<method name="Notify"><arg type="s"/><arg type="u"/><arg type="s"/><arg type="s"/><arg type="s"/>
<arg type="as"/><arg type="a{sv}"/><arg type="i"/><arg type="u" direction="out"/></method>
<method name="Click"><arg type="u"/></method><method name="Ping"/>
</interface></node>"""
sent = []

def call(bus, sender, path, interface, method, args, invocation):
    if method == "Notify":
        sent.append(args)
        with open(sys.argv[1], "a") as f:
            f.write(args[3] + "|" + args[4] + "\n")
        invocation.return_value(GLib.Variant("(u)", (len(sent),)))
        return
    if method == "Click":
        bus.emit_signal(None, path, interface, "ActionInvoked", GLib.Variant("(us)", (args[0], "default")))
    invocation.return_value(None)

bus = Gio.bus_get_sync(Gio.BusType.SESSION)
bus.register_object("/org/freedesktop/Notifications", Gio.DBusNodeInfo.new_for_xml(XML).interfaces[0], call)
Gio.bus_own_name_on_connection(bus, "org.freedesktop.Notifications", 0, None, None)
GLib.MainLoop().run()
'''


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


def keys(*args):
    subprocess.run(["xdotool", *args], check=True, timeout=10)


def fake(method, *args):
    desktop.gdbus("-o", "/org/freedesktop/Notifications", "-m", NOTIFICATIONS + "." + method, *args, dest=NOTIFICATIONS)


class DesktopTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.d = desktop.Desktop(two_monitors=True)
        cls.me = cls.d.home
        cls.sent = os.path.join(os.environ["HOME"], "sent")
        open(cls.sent, "w").close()
        cls.fake = cls.d.spawn([sys.executable, "-c", FAKE, cls.sent], stderr=subprocess.DEVNULL)
        wait_for(lambda: desktop.bus_has(NOTIFICATIONS), "the notification service")
        cls.trip = cls.me.add("Trip to Prague", "2031-01-05", "--alias", "Trip")
        cls.rent = cls.me.add("Rent", "2024-01-22", "--schedule", "monthly")
        cls.gym = cls.me.add("gym_at_6", "2024-01-08", "--schedule", "weekly")
        cls.me.add("Existing", "2030-06-01T18:30", "--schedule", "annually")
        cls.party = cls.me.add("Party", TODAY)
        cls.log_file = os.path.join(os.environ["HOME"], "tray.log")
        cls.log = open(cls.log_file, "w+")
        cls.tray = cls.d.start_tray(log=cls.log)
        cls.server = desktop.Radicale(os.path.join(os.environ["HOME"], "server"))

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.server.stop()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def tray_log(self):
        with open(self.log_file) as f:
            return f.read()

    def status(self):
        return self.me.ok("status").strip()

    def notified(self):
        """The day's notifications so far: the tray's calls reach the service before our Ping."""
        fake("Ping")
        with open(self.sent) as f:
            return [line for line in f.read().splitlines() if "today!|" in line]

    def events(self):
        return {e["name"]: e for e in json.loads(self.me.ok("events", "list", "--json"))}

    def row(self, name):
        return self.window.child(roleName="table cell", name=name)

    def test_01_every_copy_of_the_title_agrees_and_follows_the_command_line(self):
        for step in (None, ("select", self.rent), ("events", "edit", self.rent, "--alias", "Flat")):
            if step:
                before = desktop.item_property()
                self.me.ok(*step)
                wait_for(lambda: desktop.item_property() != before, "the new label", timeout=2.0)
            status = self.status()
            self.assertEqual([desktop.item_property(), desktop.item_property("Title"),
                              desktop.item_property("IconAccessibleDesc")], [status] * 3)
            self.assertIn(status, desktop.item_property("ToolTip"))
            wait_for(lambda: [i for i in desktop.panel_items() if i["label"] == status and i["title"] == status],
                     "the panel's copy")
        self.assertTrue(desktop.item_property().startswith("Flat "))
        # Without an account nothing of the network is loaded, and GTK only with the window.
        self.assertEqual(mapped(self.tray.pid, NETWORK + GTK), [])
        self.assertEqual(self.notified(), ["Party today!|" + time.strftime("%A, %B %-d, %Y")])

    def test_02_the_menu_has_its_rows_headers_and_marks_and_each_choice_is_kept(self):
        desktop.rows()  # the menu as a panel opening it reads it
        layout = desktop.layout()
        self.assertEqual([child[1].get("label", "-") for child in layout[2]],
                         ["Events", "Manage Events", "-", "Launch Almanor at Login", "Notify on the Day", "-", "Quit"])
        # Underscores are text, not mnemonics: the menu protocol doubles them.
        self.assertEqual([child[1]["label"] for child in layout[2][0][2]],
                         ["Automatic selection", "Next upcoming event", "Rotate upcoming events (hourly)",
                          "Random event selection", "One off events", "Party - " + time.strftime("%b %-d, %Y"),
                          "Trip to Prague - Jan 5, 2031", "Weekly events", "gym__at__6 - Mon",
                          "Monthly events", "Rent - 22nd", "Annual events", "Existing - Jun 1st"])
        rows = desktop.rows(layout)
        for header in ("Automatic selection", "One off events", "Weekly events", "Monthly events", "Annual events"):
            self.assertFalse(rows[header]["enabled"], header)
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

    def test_03_launch_at_login_switches_an_autostart_entry(self):
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
        return {width: bytes(data) for width, height, data in desktop.item_property("IconPixmap")}

    def test_04_the_icon_carries_the_count_unless_the_setting_says_no(self):
        self.me.ok("select", self.trip)
        wait_for(lambda: sorted(self.count_icon()) == [16, 22, 24, 32, 48], "the count's pixels")
        first = self.count_icon()
        self.me.ok("select", self.party)
        wait_for(lambda: self.count_icon() not in ({}, first), "the day's mark")
        # The indicators' service here reads no pixels: it is given the application's icon.
        self.assertEqual(desktop.item_property("IconName"), "com.vostrel.Almanor")
        set_setting("panelIconShowsCount", "false")
        try:
            wait_for(lambda: self.count_icon() == {}, "the plain icon")
        finally:
            set_setting("panelIconShowsCount", None)
        wait_for(lambda: self.count_icon() != {}, "the count again")  # handled before the next test

    def test_05_the_window_opens_centred_on_the_pointers_monitor(self):
        keys("mousemove", "1536", "384")  # the second monitor's middle
        desktop.click("Manage Events")
        type(self).window = desktop.window()
        type(self).app = desktop.application()
        (x, y), (w, h) = self.window.position, self.window.size
        self.assertLessEqual(abs(x + w // 2 - 1536), 1, (x, w))
        self.assertLessEqual(abs(y + h // 2 - 384), 1, (y, h))
        subprocess.run(["import", "-window", "root", BIN + "/window-on-second-monitor.png"], check=True)
        self.assertTrue(self.window.child(roleName="label", name="v" + os.environ["ALMANOR_VERSION"]).showing)

    def test_06_add_through_the_sheet(self):
        keys("key", "ctrl+n")
        sheet = self.app.child(roleName="dialog", name="Add Event")
        save = sheet.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        sheet.child(roleName="text", label="Event:").typeText("  Dentist  ")
        keys("key", "alt+m")  # the field's mnemonic
        keys("type", "Teeth")
        sheet.child(roleName="radio button", name="Monthly").click()
        wait_for(lambda: save.sensitive, "Save Event enabled")
        keys("key", "ctrl+s")
        wait_for(lambda: "Dentist" in self.events(), "the new event in the store")
        self.assertEqual([self.events()["Dentist"][k] for k in ("alias", "schedule")], ["Teeth", "monthly"])
        wait_for(lambda: self.row("Dentist"), "the new row")

    def test_07_edit_the_selected_event(self):
        self.row("Existing").click()
        self.assertTrue(self.window.child(roleName="label", name="Existing - Jun 1, 2030").showing)
        save = self.window.child(roleName="push button", name="Save Event")
        self.assertFalse(save.sensitive)
        self.assertFalse([b for b in self.window.findChildren(lambda n: n.roleName == "push button"
                                                              and n.name == "Cancel" and n.showing)])
        date = self.window.child(roleName="text", label="Date:")
        date.text = "not a date"
        wait_for(lambda: not save.sensitive, "Save Event disabled for a bad date")
        date.text = "2030-07-04"
        alias = self.window.child(roleName="text", label="Menubar:")
        alias.typeText("Ex")
        wait_for(lambda: save.sensitive, "Save Event enabled")
        keys("key", "ctrl+s")
        wait_for(lambda: self.events()["Existing"]["alias"] == "Ex", "the edit in the store")
        self.assertTrue(self.events()["Existing"]["date"].startswith("2030-07-04T"))
        wait_for(lambda: not save.sensitive, "Save Event disabled after saving")

    def test_08_search_by_name_and_alias(self):
        def names():
            return {n.name for n in self.window.findChildren(lambda n: n.roleName == "table cell")}
        self.row("Dentist").click()
        keys("type", "tee")  # typing in the list searches; Dentist's alias is "Teeth"
        wait_for(lambda: "Existing" not in names(), "the list filtered")
        self.assertIn("Dentist", names())
        keys("key", "Escape")  # closes the search, not the window
        wait_for(lambda: "Existing" in names(), "every row back")
        keys("key", "ctrl+f")
        keys("type", "EXI")
        keys("key", "Return")  # the first row found
        wait_for(lambda: self.window.findChildren(lambda n: n.name == "Existing - Jul 4, 2030"), "Existing")
        keys("key", "Escape")  # from the list too
        wait_for(lambda: "Dentist" in names(), "every row back")

    def test_09_delete_with_cancel_then_confirm(self):
        self.row("Dentist").click()
        keys("key", "Delete")
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        self.assertTrue(sheet.child(roleName="label", name='Are you sure you want to remove "Dentist"?'))
        keys("key", "Escape")
        wait_for(lambda: not sheet.showing, "the sheet gone")
        self.assertTrue(self.window.showing)
        self.assertIn("Dentist", self.events())
        self.window.child(roleName="push button", name="Delete Event").click()
        sheet = self.app.child(roleName="dialog", name="Delete Event")
        sheet.child(roleName="push button", name="Confirm").click()
        wait_for(lambda: "Dentist" not in self.events(), "the event deleted")
        wait_for(lambda: self.window.child(roleName="label", name="Nothing Selected").showing, "Nothing Selected")

    def test_10_the_menu_a_second_start_and_the_notification_bring_back_the_same_window(self):
        import pyatspi
        for close, again in (("ctrl+w", lambda: desktop.click("Manage Events")), ("Escape", self.me.ok)):
            keys("key", close)
            wait_for(lambda: not self.window.showing, "the window closed by " + close)
            again()
            # Keys go where the focus is: to the window once it is active again.
            wait_for(lambda: self.window.showing and self.window.getState().contains(pyatspi.STATE_ACTIVE),
                     "the window again, active")
        fake("Click", "1")
        wait_for(lambda: self.window.findChildren(lambda n: n.name == "Party - " + time.strftime("%b %-d, %Y")),
                 "the notified event in the window")
        frames = self.app.findChildren(lambda n: n.roleName == "frame" and n.name == "Almanor - Manage Events",
                                       recursive=False)
        self.assertEqual(len(frames), 1)
        self.assertIsNone(self.tray.poll())
        # Nothing here draws with OpenGL: no graphics driver is loaded, even with the window open.
        self.assertEqual([lib for lib in desktop.mapped_libraries(self.tray.pid)
                          if re.search("libGLX_mesa|_dri.so|libLLVM", lib)], [])

    def test_11_quit_ends_the_tray_and_a_panel_that_starts_late_or_again_gets_the_next_one(self):
        self.d.quit(self.tray)
        self.d.stop_watcher()
        said = self.tray_log().count("No panel shows status items yet")
        self.me.add("Meeting", TODAY)
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
            wait_for(lambda: [i for i in desktop.panel_items() if i["label"].startswith("gym_at_6 ")],
                     "the new label in the panel")
            self.assertEqual(self.tray_log().count("No panel shows status items yet"), said + 1)
            # The menu never shown yet: a panel that says it opened it gets the rows.
            self.rows_made_when_shown(lambda ident: desktop.gdbus(
                "-o", desktop.ITEM + "/Menu", "-m", "com.canonical.dbusmenu.Event", "--", "0", "opened", "<int32 0>",
                "0"), "gym__at__6 - Mon")
            # Notified once a day: the new event only, not again the one of the earlier start.
            self.assertEqual([s.split("|")[0] for s in self.notified()], ["Party today!", "Meeting today!"])
            desktop.click("Notify on the Day")
            wait_for(lambda: desktop.rows()["Notify on the Day"]["toggle-state"] == 0, "the mark off")
        finally:
            self.d.quit(tray)

    def rows_made_when_shown(self, tell, row):
        """The rows come under the row the panel knows (a new one would close a submenu being
        opened), the choice made before the menu was first shown marked."""
        wait_for(lambda: desktop.item_property() == self.status(), "the new label")
        events = desktop.layout()[2][0]
        self.assertEqual((events[1]["label"], events[2]), ("Events", []))
        tell(events[0])
        wait_for(lambda: desktop.layout()[2][0][2], "the rows")
        shown = desktop.layout()[2][0]
        self.assertEqual(shown[0], events[0])
        self.assertEqual([k for k, v in desktop.rows(shown).items() if v.get("toggle-state") == 1], [row])

    def test_12_the_events_rows_are_made_when_a_panel_asks_for_them(self):
        self.me.add("Launch", TODAY)
        tray = self.d.start_tray(log=self.log)
        try:
            self.me.ok("select", self.rent)  # after the start, before the menu was ever shown
            self.rows_made_when_shown(lambda ident: desktop.gdbus(
                "-o", desktop.ITEM + "/Menu", "-m", "com.canonical.dbusmenu.AboutToShowGroup", "--", "[0, %d]" % ident),
                "Rent - 22nd")
            # "Notify on the Day" off: nothing notified, the row unmarked at the start.
            self.assertEqual(len(self.notified()), 2)
            self.assertEqual(desktop.rows()["Notify on the Day"]["toggle-state"], 0)
            desktop.click("Notify on the Day")
        finally:
            self.d.quit(tray)

    def test_13_a_real_daemon_shows_it(self):
        desktop.stop(self.fake)
        wait_for(lambda: not desktop.bus_has(NOTIFICATIONS), "the fake service gone")
        # The daemon the session starts on the first notification, started ahead of the tray.
        desktop.gdbus("-o", "/org/freedesktop/DBus", "-m", "org.freedesktop.DBus.StartServiceByName", NOTIFICATIONS,
                      "0", dest="org.freedesktop.DBus", timeout=30)
        self.me.add("Picnic", TODAY)
        tray = self.d.start_tray()
        from dogtail import tree
        wait_for(lambda: tree.root.application("xfce4-notifyd").findChildren(
            lambda node: node.name == "Picnic today!"), "the notification on the screen")
        self.d.quit(tray)


    def wait_on_laptop(self, names, what):
        def names_after_sync():
            self.laptop.ok("sync")
            return set(self.laptop.events().values())
        wait_for(lambda: names <= names_after_sync(), what, timeout=30)

    def test_14_with_a_server_the_first_title_comes_from_the_pull_and_the_offline_event_is_pushed(self):
        cls, root = type(self), os.environ["HOME"]
        cls.laptop = desktop.Home(os.path.join(root, "laptop"))
        cls.laptop.login(self.server)
        # A weekly event is never more than six days away, so it is the next upcoming one here
        # only if the pull brought it before the first title.
        cls.laptop.add("Gym", "2024-01-08", "--schedule", "weekly")
        cls.laptop.add("Trip to Prague", "2031-01-05", "--alias", "Trip")
        cls.laptop.ok("sync")
        # This machine's password command notes each time it is asked.
        cls.cloud = desktop.Home(os.path.join(root, "cloud"), desktop=True)
        cls.asked = os.path.join(root, "asked")
        cls.cloud.login(self.server, "echo >> %s; cat {}" % cls.asked)
        cls.cloud.add("Dentist", "2030-06-01")  # made offline, not pushed yet
        # The dynamic linker's log of every symbol it binds, read after the window has opened.
        cls.bindings = os.path.join(root, "bindings")
        cls.tray = self.d.start_tray(self.cloud, log=self.log, panel=False, LD_DEBUG="bindings",
                                     LD_DEBUG_OUTPUT=cls.bindings)
        self.assertTrue(desktop.item_property().startswith("Gym "), desktop.item_property())
        wait_for(lambda: "Synced: 2 received, 1 sent" in self.tray_log().splitlines(), "the start-up pass's summary")
        self.assertFalse([l for l in self.tray_log().splitlines() if l.startswith("Populating ")])
        # A child process ran the pass: the network stack stays out of the tray.
        self.assertEqual(mapped(self.tray.pid, ("libcurl",)), [])
        self.wait_on_laptop({"Dentist"}, "the offline event on the laptop")

    def test_15_an_outage_loses_nothing_and_sends_nothing_twice(self):
        folder, port = self.server.folder, self.server.port
        self.server.stop()
        self.cloud.add("While offline", "2029-10-10")
        wait_for(lambda: any("While offline" in l for l in desktop.rows()), "the menu row")
        time.sleep(1)  # the tray's push of it fails now
        type(self).server = desktop.Radicale(folder, port=port)
        # The next change, pushed as it is made, takes the earlier one with it.
        self.cloud.add("Back online", "2029-11-11")
        self.wait_on_laptop({"While offline", "Back online"}, "both events on the laptop")
        names = list(self.laptop.events().values())
        self.assertEqual(len(names), len(set(names)), names)
        self.assertEqual(len(self.server.resources()), len(names))
        # Asked at login and by the tray's first pass; the tray handed it to every later one.
        with open(self.asked) as f:
            self.assertEqual(len(f.readlines()), 2)

    def test_16_the_menu_and_the_window_follow_a_pull_asked_for_over_dbus(self):
        self.cloud.ok()  # a second start opens the running tray's window
        window = desktop.window()
        self.laptop.add("Picnic", "2029-05-05")
        self.laptop.ok("sync")
        desktop.gdbus("-o", "/com/vostrel/Almanor", "-m", "org.gtk.Actions.Activate", "sync", "[]", "{}")
        wait_for(lambda: "Picnic - May 5, 2029" in desktop.rows(), "the pulled event's menu row", timeout=30)
        self.assertTrue(window.child(roleName="table cell", name="Picnic"))  # searched for again until it is there

        # With the window loaded and passes run: one copy of each library in the process, and no
        # library binds a symbol to the program itself.
        with open("/proc/%d/maps" % self.tray.pid) as f:
            paths = {line.split()[-1] for line in f if "/" in line}
        version = os.environ["ALMANOR_VERSION"]
        for library in ("libstdc++.so", "libicuuc.so", "libsqlite3.so", "libglib-2.0.so",
                        "libalmanor-%s.so" % version, "libalmanor-dates-%s.so" % version):
            self.assertEqual(len([p for p in paths if os.path.basename(p).startswith(library)]), 1,
                             (library, sorted(paths)))
        program = os.path.realpath(os.path.join(desktop.BIN_DIR, "almanor-tray"))
        log = "".join(open(p).read() for p in glob.glob(self.bindings + ".%d" % self.tray.pid))
        self.assertIn("binding file", log)
        self.assertEqual([line for line in log.splitlines() if " to " + program + " [" in line], [])

    def test_17_quit_during_a_first_push_leaves_at_once_and_the_next_start_finishes_without_copies(self):
        self.d.quit(self.tray, timeout=30)  # one tray on the bus at a time
        home = desktop.Home(os.path.join(os.environ["HOME"], "quit"), desktop=True)
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
