#!/usr/bin/python3
"""Whole-process figures of the tray against a minimal GTK 3 + AppIndicator program, measured in one
run, alternating: exec to label readable on D-Bus (1,000 events in the store, no account), resident
memory once settled, context switches in 20 s of idle, command-line change to new label; then, over
10,000 events, the window opened from the menu for the first time (the module and GTK loaded on
the way) and the memory with the window open and after it is closed. Runs on a private X server,
session bus and StatusNotifierWatcher.

Usage: bench/tray-bench.py [BUILD_DIR]   (default build/release, built when missing)
ROUNDS=N sets the rounds (7); QUICK=1 measures only start-up and memory."""

import ctypes
import os
import re
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
import harness as desktop  # noqa: E402

if not os.environ.get("ALMANOR_TEST_SESSION"):
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release"))
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DALMANOR_TESTS=OFF",
                    "-DALMANOR_BENCHMARKS=ON"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count()), "--target", "almanor", "almanor-tray",
                    "almanor-window", "minimal_tray"], check=True, stdout=subprocess.DEVNULL)
    os.environ["ALMANOR_BENCH_BUILD"] = build
desktop.in_private_session(os.path.abspath(__file__))

from gi.repository import Gio, GLib  # noqa: E402

BUILD = os.environ["ALMANOR_BENCH_BUILD"]
ROUNDS = int(os.environ.get("ROUNDS", "7"))
bus = Gio.bus_get_sync(Gio.BusType.SESSION, None)


def call(dest, path, iface, method, args=None, reply=None):
    return bus.call_sync(dest, path, iface, method, args, GLib.VariantType.new(reply) if reply else None,
                         Gio.DBusCallFlags.NONE, 1000, None).unpack()


def items():
    return call("org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.freedesktop.DBus.Properties",
                "Get", GLib.Variant("(ss)", ("org.kde.StatusNotifierWatcher", "RegisteredStatusNotifierItems")),
                "(v)")[0]


def label_of(item):
    name, _, path = item.partition("/")
    try:
        return call(name, "/" + path, "org.freedesktop.DBus.Properties", "Get",
                    GLib.Variant("(ss)", ("org.kde.StatusNotifierItem", "XAyatanaLabel")), "(v)")[0]
    except GLib.Error:
        return ""


def wait_label(before, changed_from=None, timeout=20):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        for item in items():
            if item not in before or changed_from is not None:
                text = label_of(item)
                if text and text != changed_from:
                    return item, text
        time.sleep(0.002)
    raise RuntimeError("no label within %d s" % timeout)


def tasks_switches(pid):
    """Context switches so far, by thread (threads come and go: GLib's pool ends idle ones)."""
    counts = {}
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/status" % (pid, task)) as f:
                counts[task] = sum(int(line.split()[1]) for line in f
                                   if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")))
        except FileNotFoundError:
            pass
    return counts


def switches_between(before, after):
    return sum(n - before.get(task, 0) for task, n in after.items())


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS"):
                return int(line.split()[1])
    return 0


def run(program, log=subprocess.DEVNULL):
    before = set(items())
    # The tray turns GTK's GLX probe off by itself; the minimal program is given the same.
    env = dict(os.environ)
    if not program.endswith("/almanor"):
        env["GDK_GL"] = "disable"
    start = time.monotonic()
    p = subprocess.Popen([program], env=env, stdout=log, stderr=subprocess.DEVNULL)
    item, _ = wait_label(before)
    return p, item, (time.monotonic() - start) * 1000


def stop(p):
    p.terminate()
    p.wait(10)
    end = time.monotonic() + 5
    while time.monotonic() < end and len(items()) > 0:
        time.sleep(0.01)

def account_rss(rounds):
    """The tray's settled memory with an account on a Radicale on loopback, its 1,000 events in step
    with the store (the pull at start-up finds them unchanged), in MB."""
    home = os.environ["HOME"]
    server = desktop.Radicale(os.path.join(home, "radicale"))
    try:
        with open(os.path.join(home, "pw"), "w") as f:
            f.write(server.password + "\n")
        almanor = os.path.join(BUILD, "almanor")
        subprocess.run([almanor, "cloud", "login", server.url, "--user", server.user, "--password-command",
                        "cat " + os.path.join(home, "pw")], check=True, stderr=subprocess.DEVNULL)
        subprocess.run([almanor, "sync"], check=True, stderr=subprocess.DEVNULL)
        figures = []
        for _ in range(rounds):
            with open(os.path.join(home, "tray.log"), "w+") as log:
                p, _, _ = run(almanor, log)
                time.sleep(6)
                log.seek(0)
                if "Synced: 0 received, 0 sent" not in log.read():
                    raise RuntimeError("the tray's first pull did not end")
                figures.append(rss_kb(p.pid) / 1024)
                stop(p)
        subprocess.run([almanor, "cloud", "logout"], check=True, stderr=subprocess.DEVNULL)
        return statistics.median(figures)
    finally:
        server.stop()


GTK = ("libgtk-3.so", "libgdk-3.so", "libgtkmm-3.0.so")
WINDOW = "Almanor - Manage Events"


def gtk_mapped(pid):
    return sorted(lib for lib in desktop.mapped_libraries(pid) if lib.startswith(GTK))


def window_state():
    """The window's X id and whether it is shown, or (None, False) while it does not exist."""
    r = subprocess.run(["xwininfo", "-name", WINDOW], capture_output=True, text=True)
    if r.returncode != 0:
        return None, False
    xid = int(re.search(r"Window id: (0x[0-9a-f]+)", r.stdout).group(1), 16)
    return xid, "IsViewable" in r.stdout


def close_window(xid):
    """Asks the window to close as a window manager does (WM_DELETE_WINDOW)."""
    x11 = ctypes.cdll.LoadLibrary("libX11.so.6")
    x11.XOpenDisplay.restype = ctypes.c_void_p
    x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
    x11.XInternAtom.restype = ctypes.c_ulong
    x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
    x11.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.c_void_p]
    x11.XFlush.argtypes = [ctypes.c_void_p]
    x11.XCloseDisplay.argtypes = [ctypes.c_void_p]

    class ClientMessage(ctypes.Structure):
        _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                    ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                    ("format", ctypes.c_int), ("data", ctypes.c_long * 5)]

    class Event(ctypes.Union):
        _fields_ = [("xclient", ClientMessage), ("pad", ctypes.c_long * 24)]

    display = x11.XOpenDisplay(None)
    event = Event()
    event.xclient.type = 33  # ClientMessage
    event.xclient.window = xid
    event.xclient.message_type = x11.XInternAtom(display, b"WM_PROTOCOLS", 0)
    event.xclient.format = 32
    event.xclient.data[0] = x11.XInternAtom(display, b"WM_DELETE_WINDOW", 0)
    x11.XSendEvent(display, xid, 0, 0, ctypes.byref(event))
    x11.XFlush(display)
    x11.XCloseDisplay(display)


def window_figures(almanor):
    """The tray over the store as it is: GTK before the window, the first opening from the menu
    (module and GTK loaded on the way), memory with the window open and after closing it."""
    p, _, _ = run(almanor)
    try:
        time.sleep(2)
        before = gtk_mapped(p.pid)
        rss_before = rss_kb(p.pid) / 1024
        # The row's id is looked up first: reading a menu of 10,000 rows is the panel's time, not
        # the window's.
        ident = desktop.rows()["Manage Events"]["id"]
        start = time.monotonic()
        desktop.gdbus("-o", desktop.ITEM + "/Menu", "-m", "com.canonical.dbusmenu.Event", "--", str(ident),
                      "clicked", "<int32 0>", "0")
        while not window_state()[1]:
            if time.monotonic() - start > 30:
                raise RuntimeError("the window did not open within 30 s")
            time.sleep(0.002)
        opened_ms = (time.monotonic() - start) * 1000
        time.sleep(2)
        rss_open = rss_kb(p.pid) / 1024
        close_window(window_state()[0])
        end = time.monotonic() + 10
        while window_state()[1] and time.monotonic() < end:
            time.sleep(0.01)
        time.sleep(2)
        rss_closed = rss_kb(p.pid) / 1024
        return before, rss_before, opened_ms, rss_open, rss_closed, gtk_mapped(p.pid)
    finally:
        stop(p)


def main():
    desktop.BIN_DIR = BUILD
    d = desktop.Desktop()
    try:
        ids = d.home.fill_store(1000)
        programs = {"minimal": os.path.join(BUILD, "bench", "minimal_tray"), "almanor": os.path.join(BUILD, "almanor")}
        start_ms = {k: [] for k in programs}
        rss = {k: [] for k in programs}
        for _ in range(ROUNDS):
            for name, program in programs.items():
                p, _, ms = run(program)
                start_ms[name].append(ms)
                time.sleep(2)
                rss[name].append(rss_kb(p.pid) / 1024)
                stop(p)
        idle = {}
        change_ms = []
        for name, program in (programs.items() if not os.environ.get("QUICK") else []):
            p, item, _ = run(program)
            time.sleep(3)
            before = tasks_switches(p.pid)
            time.sleep(20)
            idle[name] = switches_between(before, tasks_switches(p.pid))
            if name == "almanor":
                label = label_of(item)
                for i in range(ROUNDS):
                    start = time.monotonic()
                    subprocess.run([os.path.join(BUILD, "almanor"), "select", ids[i % 2]], check=True,
                                   stdout=subprocess.DEVNULL)
                    _, label = wait_label(set(), changed_from=label, timeout=10)
                    change_ms.append((time.monotonic() - start) * 1000)
            stop(p)

        med = {k: statistics.median(v) for k, v in start_ms.items()}
        mem = {k: statistics.median(v) for k, v in rss.items()}
        print("tray vs minimal indicator program, %d rounds alternating, 1,000 events, no account" % ROUNDS)
        print("  exec to label on D-Bus: %6.1f ms vs %6.1f ms  ratio %.2f (goal <= 0.5)"
              % (med["almanor"], med["minimal"], med["almanor"] / med["minimal"]))
        print("  resident memory:        %6.1f MB vs %6.1f MB  ratio %.2f (goal <= 0.5)"
              % (mem["almanor"], mem["minimal"], mem["almanor"] / mem["minimal"]))
        account = account_rss(ROUNDS)
        print("  with a CalDAV account, after its first pull: %.1f MB, ratio %.2f (goal <= 0.75)"
              % (account, account / mem["minimal"]))
        if os.environ.get("QUICK"):
            return
        print("  context switches, 20 s idle: %d vs %d (goal <= 5)" % (idle["almanor"], idle["minimal"]))
        print("  command-line change to new label: %.0f ms median, %.0f ms max (goal <= 2000)"
              % (statistics.median(change_ms), max(change_ms)))
        d.home.fill_store(10000)
        before, rss_before, opened_ms, rss_open, rss_closed, after = window_figures(programs["almanor"])
        print("the window over 10,000 events")
        print("  GTK mapped before the window is opened: %s (goal: none)" % (", ".join(before) or "none"))
        print("  opened from the menu, module and GTK loaded: %.0f ms (goal <= 1000)" % opened_ms)
        print("  resident memory: %.1f MB before, %.1f MB open, %.1f MB after closing" % (rss_before, rss_open, rss_closed))
        print("  GTK mapped once opened: %s" % (", ".join(after) or "none"))
    finally:
        d.close()


main()
