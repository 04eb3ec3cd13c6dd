"""The running tray follows the user's other machine: what the laptop adds, renames and deletes
reaches the tray's menu and label when the tray is asked to sync over D-Bus, an edit made on both
machines keeps the later one and names the other, and quitting in the middle of a 500-event first
push leaves at once, the next start finishing the push without a copy."""

import json
import os
import re
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
ZONE = "com.vostrel.almanor.zone"


def ask_tray_to_sync():
    subprocess.run(["gdbus", "call", "--session", "--dest", "com.vostrel.Almanor", "--object-path",
                    "/com/vostrel/Almanor", "--method", "org.gtk.Actions.Activate", "sync", "[]",
                    "{}"], check=True, capture_output=True, timeout=10)


class TrayFollowsTheLaptop(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        root = os.environ["HOME"]
        cls.server = Radicale(os.path.join(root, "server"))
        pw = os.path.join(root, "pw")
        with open(pw, "w") as f:
            f.write(cls.server.password + "\n")
        cls.login = ["cloud", "login", cls.server.url, "--user", cls.server.user,
                     "--password-command", "cat " + pw]
        cls.laptop = desktop.Laptop(root, BIN)
        cls.laptop.almanor(*cls.login)
        cls.shared = cls.laptop.almanor("events", "add", "Shared", "--date", "2031-02-02").strip()
        cls.laptop.almanor("sync")
        cls.d = desktop.Desktop(BIN)
        cls.d.almanor(*cls.login)
        cls.log = open(os.path.join(root, "tray.log"), "w+")
        cls.tray = cls.d.spawn([BIN + "/almanor"], stdout=cls.log, stderr=subprocess.STDOUT)
        cls.d.wait_for(desktop.label_or_none, "the tray's first label", timeout=30)
        cls.d.wait_for(lambda: any(r.startswith("Shared - ") for r in desktop.rows()),
                       "the pulled event in the menu", timeout=30)

    @classmethod
    def tearDownClass(cls):
        cls.d.close()
        cls.server.stop()
        cls.log.seek(0)
        sys.stderr.write(cls.log.read())
        cls.log.close()

    def rows_after_asking(self, condition, what):
        ask_tray_to_sync()
        return self.d.wait_for(lambda: condition(desktop.rows()), what, timeout=30)

    def test_1_add_rename_and_delete_on_the_laptop_reach_the_running_tray(self):
        picnic = self.laptop.almanor("events", "add", "Picnic", "--date", "2029-05-05").strip()
        self.laptop.almanor("sync")
        self.rows_after_asking(lambda rows: any(r.startswith("Picnic - ") for r in rows), "the added event")
        self.laptop.almanor("events", "edit", picnic, "--name", "Picnic by the lake", "--alias", "Lake")
        self.laptop.almanor("sync")
        self.rows_after_asking(lambda rows: any(r.startswith("Picnic by the lake - ") for r in rows),
                               "the renamed event")
        # The label too, once the renamed event is the one shown.
        self.d.almanor("select", picnic)
        self.d.wait_for(lambda: desktop.label().startswith("Lake "), "the renamed alias in the label")
        self.laptop.almanor("events", "delete", picnic)
        self.laptop.almanor("sync")
        self.rows_after_asking(lambda rows: not any(r.startswith("Picnic") for r in rows),
                               "the deleted event gone")
        self.assertIsNone(self.tray.poll())

    def test_2_an_edit_on_both_machines_keeps_the_later_and_names_the_other(self):
        self.d.almanor("events", "edit", self.shared, "--name", "Shared, edited here")
        # The tray pushes its machine's edit as it is made.
        self.d.wait_for(lambda: "Shared\\, edited here" in self.server_texts(), "this edit on the server",
                        timeout=30)
        time.sleep(1.1)  # LAST-MODIFIED counts seconds
        self.laptop.almanor("events", "edit", self.shared, "--name", "Shared, edited on the laptop")
        sync = subprocess.run([BIN + "/almanor", "sync"], env=self.laptop.env, capture_output=True,
                              text=True, timeout=120)
        self.assertEqual(sync.returncode, 0, sync.stderr)
        self.assertRegex(sync.stderr, r'Conflict on "Shared, edited on the laptop" \(' + self.shared +
                         r"\): kept this machine's version of .*, dropped the server's version of ")
        self.rows_after_asking(
            lambda rows: any(r.startswith("Shared, edited on the laptop - ") for r in rows),
            "the later edit in the tray's menu")

    def server_texts(self):
        folder = os.path.join(self.server.folder, "collections", "collection-root", self.server.user, ZONE)
        out = ""
        for res in self.server.resources(ZONE):
            with open(os.path.join(folder, res), encoding="utf-8") as f:
                out += f.read().replace("\r\n ", "").replace("\n ", "")
        return out


class QuitDuringAFirstPush(unittest.TestCase):
    def test_quit_leaves_at_once_and_the_next_start_finishes_without_copies(self):
        root = os.path.join(os.environ["HOME"], "quit")
        os.makedirs(root)
        server = Radicale(os.path.join(root, "server"))
        self.addCleanup(server.stop)
        pw = os.path.join(root, "pw")
        with open(pw, "w") as f:
            f.write(server.password + "\n")
        d = desktop.Desktop(BIN)
        self.addCleanup(d.close)
        d.almanor("cloud", "login", server.url, "--user", server.user, "--password-command", "cat " + pw)
        for i in range(500):
            d.almanor("events", "add", f"Event {i}", "--date", "2030-01-01")
        tray = d.spawn([BIN + "/almanor"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        d.wait_for(lambda: len(server.resources(ZONE)) >= 20, "the first push under way", timeout=120)
        started = time.monotonic()
        desktop.click("Quit")
        self.assertEqual(tray.wait(30), 0)
        took = time.monotonic() - started
        self.assertLess(took, 2.0, "quitting waited for the push")
        sent = len(server.resources(ZONE))
        self.assertLess(sent, 500, "the push had ended before the quit")

        tray = d.spawn([BIN + "/almanor"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        d.wait_for(lambda: len(server.resources(ZONE)) >= 500, "the push finished by the next start",
                   timeout=300)
        time.sleep(2)
        ids = []
        folder = os.path.join(server.folder, "collections", "collection-root", server.user, ZONE)
        for res in server.resources(ZONE):
            with open(os.path.join(folder, res), encoding="utf-8") as f:
                text = f.read().replace("\r\n ", "").replace("\n ", "")
            ids.append(re.search(r"X-CD-EVENTID[^:]*:([0-9A-F-]{36})", text).group(1))
        self.assertEqual(len(ids), 500)
        self.assertEqual(len(set(ids)), 500, "an event sent twice")
        desktop.click("Quit")
        self.assertEqual(tray.wait(30), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
