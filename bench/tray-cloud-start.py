#!/usr/bin/python3
"""The time the start-up pull adds to the tray's first title, on a Radicale on loopback: a machine
whose 1,000 events are already in step with the server (the pull finds nothing to do) and a fresh
machine with 1,000 records waiting, against the same tray and 1,000 events with no account.
Rounds alternate. Runs on a private X server and session bus.

Usage: bench/tray-cloud-start.py [BUILD_DIR]   (default build/release, built when missing)"""

import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))
import harness  # noqa: E402

if not os.environ.get("ALMANOR_TEST_SESSION"):
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "release"))
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DALMANOR_TESTS=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "-j", str(os.cpu_count()), "--target", "almanor", "almanor-tray"],
                   check=True, stdout=subprocess.DEVNULL)
    os.environ["ALMANOR_BENCH_BUILD"] = build
harness.in_private_session(os.path.abspath(__file__))

BUILD = harness.BIN_DIR = os.environ["ALMANOR_BENCH_BUILD"]
ROUNDS = int(os.environ.get("ROUNDS", "5"))


def first_title_ms(home):
    start = time.monotonic()
    p = subprocess.Popen([BUILD + "/almanor"], env=home.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    harness.wait_for(lambda: harness.bus_has(harness.DEST) and harness.label_or_none(), "the label", timeout=60)
    ms = (time.monotonic() - start) * 1000
    p.terminate()
    p.wait(60)
    harness.wait_for(lambda: not harness.bus_has(harness.DEST), "the tray gone", timeout=20)
    return ms


def main():
    d = harness.Desktop()
    work = tempfile.mkdtemp()
    server = harness.Radicale(work + "/radicale")
    try:
        seed = harness.Home(work + "/seed", desktop=True)
        seed.login(server)
        seed.fill_store(1000)
        start = time.monotonic()
        seed.ok("sync")
        print("seeded 1,000 records with almanor sync in %.0f s" % (time.monotonic() - start))

        results = {"no account": [], "1,000 unchanged": [], "pull of 1,000": []}
        for _ in range(ROUNDS):
            for name in results:
                home = harness.Home(tempfile.mkdtemp(dir=work), desktop=True)
                if name != "pull of 1,000":
                    # The same 1,000 events, in step with the server.
                    shutil.copytree(seed.home + "/data", home.home + "/data")
                if name == "1,000 unchanged":
                    shutil.copytree(seed.home + "/config", home.home + "/config")
                elif name == "pull of 1,000":
                    home.login(server)
                results[name].append(first_title_ms(home))
                shutil.rmtree(home.home, ignore_errors=True)
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
