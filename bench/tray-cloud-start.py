#!/usr/bin/python3
"""The time the start-up pull adds to the tray's first title, on a Radicale on loopback: a machine
whose 1,000 events are already in step with the server (the pull finds nothing to do) and a fresh
machine with 1,000 records waiting, against the same tray and 1,000 events with no account.
Rounds alternate. Runs on a private X server and session bus.

Usage: bench/tray-cloud-start.py [BUILD_DIR]   (default build/release, built when missing)"""

import os
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "ui"))
sys.path.insert(0, os.path.join(ROOT, "tests", "cloud", "e2e"))
import desktop  # noqa: E402

if not os.environ.get("ALMANOR_TEST_SESSION"):
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release"))
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DALMANOR_TESTS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count()), "--target", "almanor", "almanor-tray"],
                   check=True, stdout=subprocess.DEVNULL)
    os.environ["ALMANOR_BENCH_BUILD"] = build
desktop.in_private_session(os.path.abspath(__file__))

import servers  # noqa: E402

BUILD = os.environ["ALMANOR_BENCH_BUILD"]
ROUNDS = int(os.environ.get("ROUNDS", "5"))


def first_title_ms(env):
    start = time.monotonic()
    p = subprocess.Popen([BUILD + "/almanor"], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    desktop.Desktop.wait_for(lambda: desktop.bus_has_label(), "the label", timeout=60)
    ms = (time.monotonic() - start) * 1000
    p.terminate()
    p.wait(60)
    desktop.Desktop.wait_for(lambda: not desktop.Desktop.bus_has(desktop.DEST), "the tray gone", timeout=20)
    return ms


def main():
    d = desktop.Desktop(BUILD)
    work = tempfile.mkdtemp()
    server = servers.Radicale(work + "/radicale")
    try:
        seed = dict(os.environ, HOME=work + "/seed", XDG_CONFIG_HOME=work + "/seed/config",
                    XDG_DATA_HOME=work + "/seed/data")
        almanor = [BUILD + "/almanor"]
        login = ["cloud", "login", server.url, "--user", "alice", "--password-command", "echo s3cret"]
        subprocess.run(almanor + login, env=seed, check=True, capture_output=True)
        subprocess.run(almanor + ["events", "add", "First", "--date", "2031-01-01"], env=seed, check=True,
                       capture_output=True)
        db = sqlite3.connect(work + "/seed/data/Almanor/EventsV1.db")
        row = db.execute('SELECT * FROM "events"').fetchone()
        for i in range(999):
            db.execute('INSERT INTO "events" ("id", "name", "alias", "date", "schedule", "method", "created", '
                       '"updated") VALUES (upper(hex(randomblob(4)) || \'-\' || hex(randomblob(2)) || \'-4\' || '
                       'substr(hex(randomblob(2)), 2) || \'-A\' || substr(hex(randomblob(2)), 2) || \'-\' || '
                       'hex(randomblob(6))), ?, NULL, ?, ?, 0, ?, ?)', ("Event %d" % i, row[3], i % 4, row[6], row[7]))
        db.commit()
        db.close()
        start = time.monotonic()
        subprocess.run(almanor + ["sync"], env=seed, check=True, capture_output=True)
        print("seeded 1,000 records with almanor sync in %.0f s" % (time.monotonic() - start))

        results = {"no account": [], "1,000 unchanged": [], "pull of 1,000": []}
        for _ in range(ROUNDS):
            for name in results:
                home = tempfile.mkdtemp(dir=work)
                env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=home + "/config", XDG_DATA_HOME=home + "/data")
                if name != "pull of 1,000":
                    # The same 1,000 events, in step with the server.
                    shutil.copytree(work + "/seed/data", home + "/data")
                if name == "1,000 unchanged":
                    shutil.copytree(work + "/seed/config", home + "/config")
                elif name == "pull of 1,000":
                    subprocess.run(almanor + login, env=env, check=True, capture_output=True)
                results[name].append(first_title_ms(env))
                shutil.rmtree(home, ignore_errors=True)
        base = statistics.median(results["no account"])
        same = statistics.median(results["1,000 unchanged"])
        pulled = statistics.median(results["pull of 1,000"])
        print("tray exec to first title (%d rounds, medians): %.0f ms with no account; %.0f ms with 1,000 "
              "records unchanged on the server (%.2fx); %.0f ms for a fresh machine pulling 1,000"
              % (ROUNDS, base, same, same / base, pulled))
    finally:
        server.stop()
        d.close()
        shutil.rmtree(work, ignore_errors=True)


main()
