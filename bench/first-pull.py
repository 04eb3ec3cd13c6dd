#!/usr/bin/python3
"""A fresh machine's first pull of a big calendar from a Radicale started just before it: the
server builds its cache while the first listing waits for its first byte. Prints the pull's wall
time, the client's peak memory and the events that arrived; asserts nothing.

usage: bench/first-pull.py PATH/TO/almanor [EVENTS (default 20000)]"""
import json
import os
import subprocess
import sys
import tempfile
import time
import uuid

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
import harness  # noqa: E402
from harness import APP_ZONE, Home, Radicale  # noqa: E402

EVENT = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//bench//bench//EN\r\nBEGIN:VEVENT\r\n"
         "UID:{uid}\r\nDTSTAMP:20260101T000000Z\r\nDTSTART;VALUE=DATE:2027{m:02d}{d:02d}\r\n"
         "SUMMARY:Event {i}\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n")


def main():
    almanor = os.path.abspath(sys.argv[1])
    harness.BIN_DIR = os.path.dirname(almanor)
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    with tempfile.TemporaryDirectory() as root:
        # The collection is written straight into the server's folder: PUTting 20,000 events
        # would take a quarter of an hour.
        zone = os.path.join(root, "server", "collections", "collection-root", "alice", APP_ZONE)
        os.makedirs(zone)
        with open(os.path.join(zone, ".Radicale.props"), "w") as f:
            json.dump({"tag": "VCALENDAR"}, f)
        for i in range(count):
            uid = str(uuid.uuid4()).upper()
            with open(os.path.join(zone, uid + ".ics"), "w", newline="") as f:
                f.write(EVENT.format(uid=uid, m=i % 12 + 1, d=i % 28 + 1, i=i))
        server = Radicale(os.path.join(root, "server"))
        try:
            home = Home(os.path.join(root, "home"))
            env = home.env
            home.login(server)
            start = time.monotonic()
            p = subprocess.run(["/usr/bin/time", "-f", "%M", almanor, "sync"], env=env,
                               capture_output=True, text=True)
            wall = time.monotonic() - start
            peak_kb = int(p.stderr.strip().splitlines()[-1])
            listed = subprocess.run([almanor, "events", "list", "--json"], env=env,
                                    capture_output=True, text=True, check=True).stdout
            got = len(json.loads(listed))
            print(f"first pull of {count} events from a fresh Radicale: exit {p.returncode}, "
                  f"{wall:.1f} s, peak {peak_kb / 1024:.1f} MB, {got} events here")
            for line in p.stderr.strip().splitlines()[:-1][-3:]:
                print("  " + line)
        finally:
            server.stop()


if __name__ == "__main__":
    main()
