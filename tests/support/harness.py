"""What the end-to-end and desktop tests run on: a home per machine driving the almanor binary as
a user would, real CalDAV servers on loopback, and a private desktop (home, session bus, X server,
StatusNotifierWatcher, AT-SPI) with helpers that read the tray over D-Bus as a panel does."""

import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import uuid

BIN_DIR = os.environ.get("ALMANOR_BINARY_DIR")  # main() sets it from the command line
APP_ZONE = "com.vostrel.almanor.zone"
WATCHER = "/usr/libexec/ayatana-indicator-application/ayatana-indicator-application-service"
DEST = "com.vostrel.Almanor"
ITEM = "/org/ayatana/NotificationItem/com_vostrel_Almanor"
NEXT = "C72773F5-D96E-478B-92FE-5BB5DDD62102"
RANDOM = "D8291056-77F8-44D5-9475-07AE1CF9D9C8"
ROTATE = "F32C697A-D3DE-4796-BC68-B55C77265494"


def wait_for(condition, what, timeout=10.0):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("timed out waiting for " + what)


class Home:
    """One machine's home, its XDG folders inside it; with `desktop`, on the session's bus and display."""

    def __init__(self, path, desktop=False):
        self.home = path
        os.makedirs(path, exist_ok=True)
        keep = ("XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS", "DISPLAY") if desktop else ()
        inside = os.environ.get("ALMANOR_TEST_SESSION")
        self.env = {k: v for k, v in os.environ.items()
                    if k in keep or not k.startswith(("XDG_", "DBUS_SESSION_BUS_ADDRESS", "DISPLAY"))}
        self.env.update(HOME=path, XDG_CONFIG_HOME=path + "/config", XDG_DATA_HOME=path + "/data",
                        XDG_STATE_HOME=path + "/state", XDG_CACHE_HOME=path + "/cache",
                        LC_ALL=os.environ["LC_ALL"] if inside else "C.UTF-8",
                        TZ=os.environ["TZ"] if inside else "UTC")

    def run(self, *args):
        """(status, stdout, stderr); bounded: connect 10 s, 30 s without progress, a few requests."""
        r = subprocess.run([BIN_DIR + "/almanor", *args], env=self.env, capture_output=True, text=True,
                           timeout=300)
        return r.returncode, r.stdout, r.stderr

    def ok(self, *args):
        rc, out, err = self.run(*args)
        if rc != 0:
            raise AssertionError(f"{self.home}: almanor {' '.join(args)} -> {rc}\n{err}")
        return out

    def login(self, server, command="cat {}"):
        """Through a password command whose first line is the password."""
        pw = os.path.join(self.home, "pw")
        with open(pw, "w") as f:
            f.write(server.password + "\nsecond line is not the password\n")
        return self.ok("cloud", "login", server.url, "--user", server.user, "--password-command",
                       command.format(pw))

    def add(self, name, date="2027-03-14", *more):
        return self.ok("events", "add", name, "--date", date, *more).strip()

    def events(self):
        return {e["id"]: e["name"] for e in json.loads(self.ok("events", "list", "--json"))}

    def fill_store(self, count):
        """`count` events of every schedule and count method, written straight into a new store
        (the first through the command line, for the schema); the ids of the first two."""
        db = os.path.join(self.env["XDG_DATA_HOME"], "Almanor", "EventsV1.db")
        if os.path.exists(db):
            os.remove(db)
        self.add("Event 0", "2031-01-01")
        now = time.strftime("%Y-%m-%dT%H:%M:%S.000", time.gmtime())
        rows = [(str(uuid.uuid4()).upper(), f"Event {i}", f"E{i}" if i % 3 == 0 else None,
                 f"{1990 + i % 40}-{1 + i % 12:02}-{1 + i % 28:02}T12:00:00.000", i % 4, i // 4 % 4, now, now)
                for i in range(1, count)]
        with sqlite3.connect(db) as c:
            c.executemany('INSERT INTO "events" ("id", "name", "alias", "date", "schedule", "method", "created", '
                          '"updated") VALUES (?, ?, ?, ?, ?, ?, ?, ?)', rows)
            return [row[0] for row in c.execute('SELECT "id" FROM "events" LIMIT 2')]


def stop(p):
    """Ends a process started in a session of its own, and what it started, by its PID."""
    if p.poll() is None:
        os.killpg(p.pid, signal.SIGTERM)
        try:
            p.wait(10)
        except subprocess.TimeoutExpired:
            os.killpg(p.pid, signal.SIGKILL)
            p.wait()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def answers(port):
    """The servers listen once they can serve; a probe without a request is logged by none."""
    try:
        socket.create_connection(("127.0.0.1", port), timeout=2).close()
    except OSError:
        return False
    return True


class Process:
    def __init__(self, args, log=None):
        """`log`: a file that gets the server's own log lines."""
        out = open(log, "ab") if log else subprocess.DEVNULL
        self.proc = subprocess.Popen(args, stdout=out, stderr=out, start_new_session=True)
        if log:
            out.close()
        self.url = f"http://127.0.0.1:{self.port}/"
        try:
            wait_for(lambda: answers(self.port), "the server at " + self.url, timeout=20)
        except BaseException:
            self.stop()
            raise

    def stop(self):
        stop(self.proc)

    def resources(self, zone=APP_ZONE):
        """The .ics files the server holds in a zone of the user."""
        path = os.path.join(self.folder, self.zones, zone)
        return sorted(n for n in os.listdir(path) if n.endswith(".ics")) if os.path.isdir(path) else []

    def stored(self):
        """Each resource of the app's zone as the server keeps it, folded lines joined."""
        texts = []
        for name in self.resources():
            with open(os.path.join(self.folder, self.zones, APP_ZONE, name), encoding="utf-8") as f:
                texts.append(f.read().replace("\r\n ", "").replace("\n ", ""))
        return texts


class Radicale(Process):
    user, password = "alice", "s3cret"

    def __init__(self, folder, port=None, log=None):
        """`port`: that of a stopped server on the same folder, to start it again."""
        self.folder, self.port, self.zones = folder, port or free_port(), "collections/collection-root/alice"
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "users"), "w") as f:
            f.write(f"{self.user}:{self.password}\n")
        super().__init__(["/usr/bin/python3", "-m", "radicale", "--config", "", "--hosts", f"127.0.0.1:{self.port}",
                          "--auth-type", "htpasswd", "--auth-htpasswd-filename", folder + "/users",
                          "--auth-htpasswd-encryption", "plain", "--auth-delay", "0", "--rights-type", "owner_only",
                          "--storage-filesystem-folder", folder + "/collections", "--web-type", "none"], log=log)


class Xandikos(Process):
    user, password = "user", "any"

    def __init__(self, folder, log=None):
        self.folder, self.port, self.zones = folder, free_port(), "user/calendars"
        super().__init__(["xandikos", "--defaults", "-d", folder, "-l", "127.0.0.1", "-p", str(self.port)], log=log)


def serve(kind, folder, *options):
    """`harness.py radicale|xandikos|scripted FOLDER [OPTIONS]`, for tests in other languages:
    prints the server's URL once it answers and kills it when ended or when its input closes, as it
    does when the caller ends in any way."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    if kind == "scripted":  # in this process: a second interpreter would only slow its start
        import scripted_dav
        import threading
        port = free_port()
        sys.argv = ["scripted_dav.py", "--port", str(port), "--control", folder + "/control", "--log",
                    folder + "/requests", *options]
        thread = threading.Thread(target=scripted_dav.main, daemon=True)
        thread.start()
        end = time.monotonic() + 20
        while not answers(port):  # it listens within milliseconds: a 50 ms poll would double its start
            if not thread.is_alive() or time.monotonic() > end:
                sys.exit("the scripted server did not start")
            time.sleep(0.005)
        print(f"http://127.0.0.1:{port}/", flush=True)
        sys.stderr = open(os.devnull, "w")  # its line per request
        sys.stdin.read()
        os._exit(0)  # at once: an orderly shutdown costs each test tens of milliseconds
    server = {"radicale": Radicale, "xandikos": Xandikos}[kind](folder, *options)
    try:
        print(server.url, flush=True)
        sys.stdin.read()
    finally:
        os.killpg(server.proc.pid, signal.SIGKILL)  # its folder goes with it: nothing to save
        server.proc.wait()


def main():
    """Runs the calling test file's cases against the binary named by the first argument."""
    global BIN_DIR
    BIN_DIR = os.path.dirname(os.path.abspath(sys.argv.pop(1)))
    result = unittest.main(module="__main__", exit=False).result
    return 0 if result.wasSuccessful() else 1


def in_private_session(script):
    """Re-runs `script` inside a fresh home and session bus unless that is done already."""
    if os.environ.get("ALMANOR_TEST_SESSION"):
        return
    home = tempfile.mkdtemp(prefix="almanor-gui-")
    env = Home(home).env
    for var in ("WAYLAND_DISPLAY", "NO_AT_BRIDGE", "GDK_GL"):
        env.pop(var, None)
    env.update(XDG_RUNTIME_DIR=home + "/run", ALMANOR_TEST_SESSION="1", LC_ALL="en_US.UTF-8",
               TZ=os.environ.get("TZ", "Europe/Prague"))
    os.makedirs(home + "/run", mode=0o700)
    try:
        status = subprocess.call(["dbus-run-session", "--", sys.executable, script] + sys.argv[1:], env=env)
    finally:
        shutil.rmtree(home, ignore_errors=True)
    sys.exit(status)


class Desktop:
    """Xvfb (or, for two monitors, Xorg with its dummy driver: root only), the watcher and the
    processes a test starts; everything ends by PID. `home` is the session's own."""

    def __init__(self, two_monitors=False):
        self.processes = []
        self.home = Home(os.environ["HOME"], desktop=True)
        read, write = os.pipe()
        args = ["Xvfb", "-screen", "0", "1024x768x24"]
        if two_monitors:
            args = ["Xorg", "-config", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "ui",
                                                    "two-monitors.conf"), "-logfile", self.home.home + "/Xorg.log"]
        self.spawn(args + ["-displayfd", str(write), "-nolisten", "tcp", "-noreset"], pass_fds=[write],
                   stderr=subprocess.DEVNULL)
        os.close(write)
        with os.fdopen(read) as f:
            number = f.readline().strip()  # empty when the server ended without one
        if not number:
            raise RuntimeError(args[0] + " did not start")
        os.environ["DISPLAY"] = self.home.env["DISPLAY"] = ":" + number
        subprocess.run(["dbus-update-activation-environment", "DISPLAY"], check=True)
        self.start_watcher()

    def spawn(self, args, **kwargs):
        p = subprocess.Popen(args, start_new_session=True, **kwargs)
        self.processes.append(p)
        return p

    def start_watcher(self):
        self.watcher = self.spawn([WATCHER])
        wait_for(lambda: bus_has("org.kde.StatusNotifierWatcher"), "the watcher")

    def stop_watcher(self):
        stop(self.watcher)
        wait_for(lambda: not bus_has("org.kde.StatusNotifierWatcher"), "the watcher gone")

    def start_tray(self, home=None, log=subprocess.DEVNULL, panel=True, **env):
        """The tray of `home` (the session's by default) with `env` added, once its label is on the
        bus and, with `panel`, in the panel."""
        tray = self.spawn([BIN_DIR + "/almanor"], env=dict((home or self.home).env, **env), stdout=log,
                          stderr=subprocess.STDOUT)
        wait_for(lambda: bus_has(DEST) and label_or_none(), "the tray's label", timeout=30)
        if panel:
            wait_for(lambda: [i for i in panel_items() if i["label"]], "the item in the panel")
        return tray

    def quit(self, tray, timeout=10):
        click("Quit")
        if tray.wait(timeout) != 0:
            raise AssertionError("the tray ended with %d" % tray.returncode)
        wait_for(lambda: not bus_has(DEST), "the tray gone from the bus")

    def close(self):
        for p in reversed(self.processes):
            stop(p)


def gdbus(*args, dest=DEST, timeout=10):
    r = subprocess.run(["gdbus", "call", "--session", "-d", dest, *args], capture_output=True, text=True,
                       timeout=timeout)
    if r.returncode != 0:
        raise AssertionError("gdbus %s: %s" % (args, r.stderr))
    return r.stdout


def parse(signature, reply):
    """A reply as gdbus prints it, as Python values."""
    from gi.repository import GLib
    return GLib.Variant.parse(GLib.VariantType.new(signature), reply.strip(), None, None).unpack()


def bus_has(name):
    return parse("(b)", gdbus("-o", "/org/freedesktop/DBus", "-m", "org.freedesktop.DBus.NameHasOwner", name,
                              dest="org.freedesktop.DBus"))[0]


def item_property(name="XAyatanaLabel"):
    return parse("(v)", gdbus("-o", ITEM, "-m", "org.freedesktop.DBus.Properties.Get",
                              "org.kde.StatusNotifierItem", name))[0]


def label_or_none():
    try:
        return item_property()
    except AssertionError:
        return None


def layout():
    """The menu as it is served now, asking nothing first: (id, properties, children)."""
    return parse("(u(ia{sv}av))", gdbus("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.GetLayout", "--", "0",
                                        "-1", "[]"))[1]


def rows(menu=None):
    """The menu, read as a panel opening it does (each submenu announced first), flattened into
    {label: properties} with the item ids."""
    if menu is None:
        about_to_show = ("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.AboutToShow", "--")
        gdbus(*about_to_show, "0")
        for ident, props, _ in layout()[2]:
            if props.get("children-display") == "submenu":
                try:
                    gdbus(*about_to_show, str(ident))
                except AssertionError:
                    pass  # the row was replaced by a newer one meanwhile, which has its rows already
        menu = layout()
    found, todo = {}, [menu]
    while todo:
        ident, props, children = todo.pop()
        if "label" in props:
            found[props["label"]] = dict(props, id=ident)
        todo.extend(reversed(children))
    return found


def click(label_text):
    gdbus("-o", ITEM + "/Menu", "-m", "com.canonical.dbusmenu.Event", "--", str(rows()[label_text]["id"]),
          "clicked", "<int32 0>", "0")


def panel_items():
    """What the panel is shown, as the watcher hands it on: one dict per accepted item."""
    try:
        reply = gdbus("-o", "/org/ayatana/indicator/application/service", "-m",
                      "org.ayatana.indicator.application.service.GetApplications",
                      dest="org.ayatana.indicator.application")
    except AssertionError:
        return []
    keys = ("icon", "position", "address", "path", "icon_path", "label", "guide", "description", "hint",
            "title")
    return [dict(zip(keys, app)) for app in parse("(a(sisossssss))", reply)[0]]


def application():
    """The tray's process as AT-SPI shows it."""
    from dogtail.config import config
    config.checkForA11y = False
    config.searchCutoffCount = 20
    config.actionDelay = 0.2
    from dogtail import tree
    return tree.root.application("almanor-tray")


def window():
    return application().child(roleName="frame", name="Almanor - Manage Events")


def mapped_libraries(pid):
    with open("/proc/%d/maps" % pid) as f:
        return {os.path.basename(line.split()[-1]) for line in f if "/" in line}


if __name__ == "__main__":
    serve(*sys.argv[1:])
