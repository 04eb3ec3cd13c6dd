#!/usr/bin/python3
"""Takes the README's screenshots: a real panel (xfce4-panel with its indicator plugin) on a private
X server showing Almanor's title, the same with the menu open, the management window, and the
title with the day count drawn as the icon (panelIconShowsCount=true, as on panels without labels).

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

BUILD = desktop.BIN_DIR = os.environ["ALMANOR_SHOTS_BUILD"]
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
    if crop:
        subprocess.run(["convert", path, "-crop", crop, "+repage", path], check=True)
    print("wrote", os.path.relpath(path, ROOT))


def main():
    os.makedirs(OUT, exist_ok=True)
    channel = os.path.join(os.environ["XDG_CONFIG_HOME"], "xfce4", "xfconf", "xfce-perchannel-xml")
    os.makedirs(channel, exist_ok=True)
    with open(os.path.join(channel, "xfce4-panel.xml"), "w") as f:
        f.write(PANEL)
    d = desktop.Desktop()
    try:
        d.home.ok("events", "add", "Summer holiday", "--date", "2027-07-01", "--alias", "Holiday")
        d.home.ok("events", "add", "Rent", "--date", "2024-01-22", "--schedule", "monthly")
        d.home.ok("events", "add", "Gym", "--date", "2024-01-08", "--schedule", "weekly", "--count",
                  "exclude-weekends")
        d.home.ok("events", "add", "Mum's birthday", "--date", "1960-03-05", "--schedule", "annually", "--alias", "Mum")
        d.home.ok("events", "add", "Trip to Prague", "--date", "2027-01-05")
        d.home.ok("select", "next")
        d.spawn(["xfce4-panel", "--disable-wm-check"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(2)
        tray = d.spawn([BUILD + "/almanor"], stdout=subprocess.DEVNULL)
        desktop.wait_for(lambda: desktop.bus_has(desktop.DEST), "the tray")
        time.sleep(3)
        shot("panel.png", "1024x30+0+0")
        # Open the menu as a user does: a click on the title in the panel.
        label = desktop.item_property()
        subprocess.run(["xdotool", "mousemove", "990", "15", "click", "1"], check=True)
        time.sleep(1.5)
        shot("menu.png", "1024x330+0+0")
        subprocess.run(["xdotool", "key", "Escape"], check=True)
        time.sleep(0.5)
        desktop.click("Manage Events")
        time.sleep(2)
        subprocess.run(["xdotool", "search", "--name", "Almanor - Manage Events", "windowmove", "0", "40"])
        time.sleep(1)
        subprocess.run(["xdotool", "mousemove", "70", "107", "click", "1"], check=True)  # "Summer holiday"
        subprocess.run(["xdotool", "mousemove", "450", "500"], check=True)  # off the list: no row's tooltip
        time.sleep(1)
        shot("window.png", "700x560+0+30")
        print("panel title:", label)
        # The count as the icon, as panels without labels (KDE Plasma) get it.
        desktop.click("Quit")
        tray.wait(10)
        settings = os.path.join(os.environ["XDG_CONFIG_HOME"], "Almanor", "settings.ini")
        with open(settings) as f:
            text = f.read()
        with open(settings, "w") as f:
            f.write(text.replace("[com.vostrel.Almanor]\n", "[com.vostrel.Almanor]\npanelIconShowsCount=true\n", 1))
        d.spawn([BUILD + "/almanor"], stdout=subprocess.DEVNULL)
        desktop.wait_for(lambda: desktop.bus_has(desktop.DEST) and desktop.item_property("IconName") != "com.vostrel.Almanor",
                   "the count icon")
        time.sleep(3)
        shot("panel-count.png", "1024x30+0+0")
        print("icon:", desktop.item_property("IconName"))
    finally:
        d.close()


main()
