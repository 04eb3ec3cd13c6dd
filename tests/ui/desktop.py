"""A private desktop for tests: its own home, X server, session bus, StatusNotifierWatcher and
AT-SPI, and helpers to read the tray over D-Bus as a panel does."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

WATCHER = "/usr/libexec/ayatana-indicator-application/ayatana-indicator-application-service"
DEST = "com.vostrel.Almanor"
ITEM = "/org/ayatana/NotificationItem/com_vostrel_Almanor"
NEXT = "C72773F5-D96E-478B-92FE-5BB5DDD62102"
RANDOM = "D8291056-77F8-44D5-9475-07AE1CF9D9C8"
ROTATE = "F32C697A-D3DE-4796-BC68-B55C77265494"


def in_private_session(script):
    """Re-runs `script` inside a fresh home and session bus unless that is done already."""
    if os.environ.get("ALMANOR_TEST_SESSION"):
        return
    home = tempfile.mkdtemp(prefix="almanor-gui-")
    env = dict(os.environ)
    for var in ("DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "WAYLAND_DISPLAY", "NO_AT_BRIDGE", "GDK_GL"):
        env.pop(var, None)
    env.update(HOME=home, XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data",
               XDG_CACHE_HOME=home + "/cache", XDG_RUNTIME_DIR=home + "/run", ALMANOR_TEST_SESSION="1",
               LC_ALL="en_US.UTF-8", TZ=env.get("TZ", "Europe/Prague"))
    os.makedirs(home + "/run", mode=0o700)
    try:
        status = subprocess.call(["dbus-run-session", "--", sys.executable, script] + sys.argv[1:], env=env)
    finally:
        shutil.rmtree(home, ignore_errors=True)
    sys.exit(status)


class Desktop:
    """Xvfb (or, for two monitors, Xorg with its dummy driver: root only), the watcher and the
    processes a test starts; everything ends by PID."""

    def __init__(self, binary_dir, two_monitors=False):
        self.bin = binary_dir
        self.processes = []
        self.display = self._start_x(two_monitors)
        os.environ["DISPLAY"] = self.display
        subprocess.run(["dbus-update-activation-environment", "DISPLAY"], check=True)
        self.watcher = self.spawn([WATCHER])
        self.wait_for(lambda: self.bus_has("org.kde.StatusNotifierWatcher"), "the watcher")

    def _start_x(self, two_monitors):
        read, write = os.pipe()
        args = ["Xvfb", "-screen", "0", "1024x768x24"]
        if two_monitors:
            args = ["Xorg", "-config", os.path.join(os.path.dirname(os.path.abspath(__file__)), "two-monitors.conf"),
                    "-logfile", os.environ["HOME"] + "/Xorg.log"]
        x = subprocess.Popen(args + ["-displayfd", str(write), "-nolisten", "tcp", "-noreset"], pass_fds=[write],
                             stderr=subprocess.DEVNULL)
        os.close(write)
        self.processes.append(x)
        number = b""
        while not number.endswith(b"\n"):
            chunk = os.read(read, 16)
            if not chunk:
                raise RuntimeError(args[0] + " did not start")
            number += chunk
        os.close(read)
        return ":" + number.decode().strip()

    def spawn(self, args, **kwargs):
        p = subprocess.Popen(args, **kwargs)
        self.processes.append(p)
        return p

    def close(self):
        for p in reversed(self.processes):
            if p.poll() is None:
                p.send_signal(signal.SIGTERM)
                try:
                    p.wait(10)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()

    @staticmethod
    def wait_for(condition, what, timeout=10.0):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            value = condition()
            if value:
                return value
            time.sleep(0.05)
        raise AssertionError("timed out waiting for " + what)

    @staticmethod
    def bus_has(name):
        out = subprocess.run(["gdbus", "call", "--session", "-d", "org.freedesktop.DBus", "-o",
                              "/org/freedesktop/DBus", "-m", "org.freedesktop.DBus.NameHasOwner", name],
                             capture_output=True, text=True).stdout
        return "true" in out

    def almanor(self, *args, check=True):
        r = subprocess.run([self.bin + "/almanor", *args], capture_output=True, text=True, timeout=30)
        if check and r.returncode != 0:
            raise AssertionError("almanor %s: %d %s" % (args, r.returncode, r.stderr))
        return r


class Laptop:
    """The user's other machine: a home of its own beside the session's, driven through the
    command line, with no display and no session bus."""

    def __init__(self, root, binary_dir):
        home = os.path.join(root, "laptop")
        self.binary = os.path.join(binary_dir, "almanor")
        self.env = {k: v for k, v in os.environ.items()
                    if not k.startswith("XDG_") and k not in ("DBUS_SESSION_BUS_ADDRESS", "DISPLAY")}
        self.env.update(HOME=home, XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data",
                        XDG_STATE_HOME=home + "/state", XDG_CACHE_HOME=home + "/cache")

    def almanor(self, *args):
        r = subprocess.run([self.binary, *args], env=self.env, capture_output=True, text=True,
                           timeout=120)
        if r.returncode != 0:
            raise AssertionError("laptop: almanor %s: %d %s" % (args, r.returncode, r.stderr))
        return r.stdout


def gdbus(*args):
    r = subprocess.run(["gdbus", "call", "--session", "-d", DEST, *args], capture_output=True, text=True,
                       timeout=10)
    if r.returncode != 0:
        raise AssertionError("gdbus %s: %s" % (args, r.stderr))
    return r.stdout


def label():
    out = gdbus("-o", ITEM, "-m", "org.freedesktop.DBus.Properties.Get", "org.kde.StatusNotifierItem",
                "XAyatanaLabel")
    return re.match(r"\(<'(.*)'>,\)", out.strip()).group(1)


def label_or_none():
    try:
        return label()
    except (AssertionError, AttributeError):
        return None


def bus_has_label():
    """Whether the tray is on the bus with a label set."""
    return Desktop.bus_has(DEST) and bool(label_or_none())


def item_property(name):
    out = gdbus("-o", ITEM, "-m", "org.freedesktop.DBus.Properties.Get", "org.kde.StatusNotifierItem", name)
    return re.match(r"\(<'(.*)'>,\)", out.strip()).group(1)


def layout():
    """The menu as it is served now, asking nothing first: (id, properties, children)."""
    from gi.repository import GLib
    out = gdbus("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.GetLayout", "--", "0", "-1", "[]")
    value = GLib.Variant.parse(GLib.VariantType.new("(u(ia{sv}av))"), out.strip(), None, None)
    return value.unpack()[1]


def about_to_show(ident):
    gdbus("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.AboutToShow", "--", str(ident))


def menu():
    """The menu as a panel opening it reads it: the menu and each submenu announced first
    (AboutToShow), then a list of (id, properties, children)."""
    about_to_show(0)
    for ident, props, _ in layout()[2]:
        if props.get("children-display") == "submenu":
            try:
                about_to_show(ident)
            except AssertionError:
                pass  # the row was replaced by a newer one meanwhile, which has its rows already
    return layout()


def rows(layout=None):
    """Flattens the menu into {label: properties} (submenu rows included), with the item ids."""
    layout = layout or menu()
    found = {}

    def walk(node):
        ident, props, children = node
        if "label" in props:
            found[props["label"]] = dict(props, id=ident)
        for child in children:
            walk(child)
    walk(layout)
    return found


def click(label_text):
    ident = rows()[label_text]["id"]
    gdbus("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.Event", "--", str(ident), "clicked",
          "<int32 0>", "0")


def panel_items():
    """What the panel is shown, as the watcher hands it on: one dict per accepted item."""
    from gi.repository import GLib
    r = subprocess.run(["gdbus", "call", "--session", "-d", "org.ayatana.indicator.application", "-o",
                        "/org/ayatana/indicator/application/service", "-m",
                        "org.ayatana.indicator.application.service.GetApplications"],
                       capture_output=True, text=True, timeout=10)
    if r.returncode != 0:
        return []
    value = GLib.Variant.parse(GLib.VariantType.new("(a(sisossssss))"), r.stdout.strip(), None, None)
    keys = ("icon", "position", "address", "path", "icon_path", "label", "guide", "description", "hint",
            "title")
    return [dict(zip(keys, app)) for app in value.unpack()[0]]


def application():
    """The tray's process as AT-SPI shows it."""
    from dogtail.config import config
    config.checkForA11y = False
    config.searchCutoffCount = 20
    from dogtail import tree
    return tree.root.application("almanor-tray")


def window():
    return application().child(roleName="frame", name="Almanor - Manage Events")


def mapped_libraries(pid):
    """The shared objects a process has mapped, by file name."""
    with open("/proc/%d/maps" % pid) as f:
        return {os.path.basename(line.split()[-1]) for line in f if "/" in line}
