"""An event's day as the user meets it: one notification through the session's notification
service (xfce4-notifyd shows it; a fake service counts and clicks), opening the window on its
event when clicked, not again after a restart the same day, none with "Notify on the Day" off."""

import os
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import harness as desktop  # noqa: E402
from harness import wait_for  # noqa: E402

desktop.in_private_session(os.path.abspath(__file__))
NOTIFICATIONS = "org.freedesktop.Notifications"

# The notification service, reduced to a list: each Notify is a line "summary|body"; Click(id)
# answers as a daemon does when the user clicks the notification.
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


class ReminderTest(unittest.TestCase):
    def setUp(self):
        self.d = desktop.Desktop()
        self.me = self.d.home
        self.addCleanup(self.d.close)

    def serve(self, daemon):
        self.d.spawn(daemon, stderr=subprocess.DEVNULL)
        wait_for(lambda: desktop.bus_has(NOTIFICATIONS), "the notification service")

    def test_a_real_daemon_shows_it(self):
        # The daemon the session starts on the first notification, started ahead of the tray.
        subprocess.run(["gdbus", "call", "--session", "-d", "org.freedesktop.DBus", "-o", "/org/freedesktop/DBus",
                        "-m", "org.freedesktop.DBus.StartServiceByName", NOTIFICATIONS, "0"],
                       check=True, capture_output=True, timeout=30)
        self.me.add("Picnic", time.strftime("%Y-%m-%d"))
        tray = self.d.start_tray()
        from dogtail.config import config
        config.checkForA11y = False
        from dogtail import tree
        wait_for(lambda: tree.root.application("xfce4-notifyd").findChildren(
            lambda node: node.name == "Picnic today!"), "the notification on the screen")
        self.d.quit(tray)

    def fake(self, method, *args):
        subprocess.run(["gdbus", "call", "--session", "-d", NOTIFICATIONS, "-o", "/org/freedesktop/Notifications",
                        "-m", NOTIFICATIONS + "." + method, *args], check=True, capture_output=True, timeout=10)

    def start(self):
        """The tray up, and what it notified at start-up received: its calls reach the service
        before one made after its answer to ours."""
        tray = self.d.start_tray()
        self.fake("Ping")
        with open(self.sent) as f:
            return tray, f.read().splitlines()

    def test_the_day_is_notified_once_and_not_with_the_toggle_off(self):
        self.sent = os.path.join(os.environ["HOME"], "sent")
        open(self.sent, "w").close()
        self.serve([sys.executable, "-c", FAKE, self.sent])
        today = time.strftime("%Y-%m-%d")
        self.me.add("Party", today)
        tray, sent = self.start()
        self.assertEqual(sent, ["Party today!|" + time.strftime("%A, %B %-d, %Y")])
        self.fake("Click", "1")
        self.assertTrue(desktop.window().child(roleName="label", name="Party - " + time.strftime("%b %-d, %Y")))
        self.d.quit(tray)

        self.me.add("Meeting", today)
        tray, sent = self.start()
        self.assertEqual([s.split("|")[0] for s in sent], ["Party today!", "Meeting today!"])
        desktop.click("Notify on the Day")
        wait_for(lambda: desktop.rows()["Notify on the Day"]["toggle-state"] == 0, "the mark off")
        self.d.quit(tray)

        self.me.add("Launch", today)
        tray, sent = self.start()
        self.assertEqual(len(sent), 2)
        self.assertEqual(desktop.rows()["Notify on the Day"]["toggle-state"], 0)
        self.d.quit(tray)


if __name__ == "__main__":
    unittest.main()
