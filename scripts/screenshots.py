#!/usr/bin/python3
"""Takes the README's screenshots on a private X server with xfwm4: a real panel (xfce4-panel with its
indicator plugin) showing Almanor's title, the same with the menu open, the management window, the
count icon in the panel's Status Tray (the systray plugin alone), and an event's day in xfce4-notifyd.

Usage: scripts/screenshots.py [BUILD_DIR]   (default build/release; PNGs go to docs/screenshots/)"""

import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
import harness as desktop  # noqa: E402

if not os.environ.get("ALMANOR_TEST_SESSION"):
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release"))
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DALMANOR_TESTS=OFF",
                    "-DALMANOR_BENCHMARKS=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count()), "--target", "almanor", "almanor-tray"],
                   check=True, stdout=subprocess.DEVNULL)
    os.environ["ALMANOR_SHOTS_BUILD"] = build
desktop.in_private_session(os.path.abspath(__file__))

desktop.BIN_DIR = os.environ["ALMANOR_SHOTS_BUILD"]
OUT = os.path.join(ROOT, "docs", "screenshots")

PANEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="30"/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
        <value type="int" value="2"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="separator">
      <property name="expand" type="bool" value="true"/>
      <property name="style" type="uint" value="0"/>
    </property>
    <property name="plugin-2" type="string" value="indicator"/>
  </property>
</channel>
"""


def shot(name, crop=None):
    path = os.path.join(OUT, name)
    subprocess.run(["import", "-window", "root", path], check=True)
    if callable(crop):
        crop = crop(path)
    # Without metadata, so that the same pixels make the same file.
    subprocess.run(["convert", path, *(["-crop", crop, "+repage"] if crop else []), "-strip", "-define",
                    "png:exclude-chunks=date,time", path], check=True)
    print("wrote", os.path.relpath(path, ROOT))


def drawn(path):
    """The box (width, height, x, y) of what is drawn on the black root under the 31-pixel panel,
    measured with a black border so that every corner it is measured from is black."""
    box = subprocess.run(["convert", path, "-crop", "1024x737+0+31", "+repage", "-bordercolor", "black", "-border",
                          "1", "-format", "%@", "info:"], check=True, capture_output=True, text=True).stdout
    w, h, x, y = map(int, box.replace("x", "+").split("+"))
    return w, h, x - 1, y - 1 + 31


def menu_crop(path):
    """The panel's end above the open menus."""
    w, h, x, y = drawn(path)
    return f"{1024 - x}x{y + h}+{x}+0"


def window_crop(path):
    return "{}x{}+{}+{}".format(*drawn(path))


def notification_crop(*search):
    out = subprocess.run(["xdotool", "search", "--sync", *search, "getwindowgeometry", "--shell"], check=True,
                         capture_output=True, text=True, timeout=20).stdout
    g = dict(line.split("=") for line in out.split())
    return "{WIDTH}x{HEIGHT}+{X}+{Y}".format(**g)


def main():
    today = time.localtime()
    if today.tm_wday == 0 or today.tm_mday == 22 or (today.tm_mon, today.tm_mday) == (3, 5):
        sys.exit("screenshots.py: today is the day of Gym, Rent or Mum's birthday, whose notification would "
                 "cover the menu; take the screenshots on another day")
    os.makedirs(OUT, exist_ok=True)
    channel = os.path.join(os.environ["XDG_CONFIG_HOME"], "xfce4", "xfconf", "xfce-perchannel-xml")
    os.makedirs(channel, exist_ok=True)
    with open(os.path.join(channel, "xfce4-panel.xml"), "w") as f:
        f.write(PANEL)
    d = desktop.Desktop()
    # The application's icon from the source tree, which the notification shows.
    icons = os.path.join(ROOT, "data") + ":" + os.environ.get("XDG_DATA_DIRS", "/usr/local/share:/usr/share")
    os.environ["XDG_DATA_DIRS"] = d.home.env["XDG_DATA_DIRS"] = icons
    try:
        holiday = d.home.add("Summer holiday", "2027-07-01", "--alias", "Holiday")
        d.home.ok("events", "add", "Rent", "--date", "2024-01-22", "--schedule", "monthly")
        d.home.ok("events", "add", "Gym", "--date", "2024-01-08", "--schedule", "weekly", "--count",
                  "exclude-weekends")
        d.home.ok("events", "add", "Mum's birthday", "--date", "1960-03-05", "--schedule", "annually", "--alias", "Mum")
        d.home.ok("events", "add", "Trip to Prague", "--date", "2027-01-05")
        d.home.ok("select", "next")
        # A window manager, as on a desktop: without one the panel's menus open over the panel.
        d.spawn(["xfwm4", "--compositor=off"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        desktop.wait_for(lambda: "window id" in subprocess.run(["xprop", "-root", "_NET_SUPPORTING_WM_CHECK"],
                                                              capture_output=True, text=True).stdout, "xfwm4")
        panel = d.spawn(["xfce4-panel", "--disable-wm-check"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(2)
        tray = d.start_tray()
        time.sleep(3)
        shot("panel.png", "1024x30+0+0")
        print("panel title:", desktop.item_property())
        # Open the menu as a user does: a click on the title in the panel.
        subprocess.run(["xdotool", "mousemove", "990", "15", "click", "1"], check=True)
        time.sleep(1)
        subprocess.run(["xdotool", "mousemove", "880", "47"], check=True)  # on "Events": its submenu opens
        time.sleep(1.5)
        shot("menu.png", menu_crop)
        subprocess.run(["xdotool", "key", "Escape", "Escape"], check=True)
        # The window on an event, as a click on its notification opens it; the pointer off it.
        subprocess.run(["xdotool", "mousemove", "5", "760"], check=True)
        desktop.gdbus("-o", "/com/vostrel/Almanor", "-m", "org.gtk.Actions.Activate", "open-event",
                      f"[<'{holiday}'>]", "{}")
        subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--name", "Almanor - Manage Events"],
                       check=True, stdout=subprocess.DEVNULL, timeout=20)
        time.sleep(2)
        shot("window.png", window_crop)
        d.quit(tray)

        # The count icon in the Status Tray alone, which is then the panel's own watcher and host.
        subprocess.run(["xfce4-panel", "--quit"], check=True, timeout=20)
        panel.wait(20)
        d.stop_watcher()
        subprocess.run(["xfconf-query", "-c", "xfce4-panel", "-p", "/plugins/plugin-2", "-s", "systray"], check=True)
        d.spawn(["xfce4-panel", "--disable-wm-check"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        desktop.wait_for(lambda: desktop.bus_has("org.kde.StatusNotifierWatcher"), "the panel's watcher")
        tray = d.start_tray(panel=False)
        time.sleep(3)
        shot("panel-count.png", "1024x30+0+0")
        print("count title:", desktop.item_property())
        d.quit(tray)

        # An event's day: the tray notifies it as it starts.
        d.spawn(["/usr/lib/x86_64-linux-gnu/xfce4/notifyd/xfce4-notifyd"], stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL)
        desktop.wait_for(lambda: desktop.bus_has("org.freedesktop.Notifications"), "the notification daemon")
        d.home.ok("events", "add", "Public holiday", "--date", time.strftime("%Y-%m-%d"), "--alias", "Holiday")
        d.start_tray(panel=False)
        notification = notification_crop("--onlyvisible", "--class", "xfce4-notifyd")
        time.sleep(1)
        shot("notification.png", notification)
    finally:
        d.close()


main()
