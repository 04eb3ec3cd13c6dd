#!/usr/bin/python3
"""Cloud figures against vdirsyncer doing the same work with the same Radicale on loopback:
pushing 300 new events (client CPU), a fresh machine's first pull of them (wall), almanor's pull
of 1,000 records, a sync with nothing to do over 1,000 events against vdirsyncer's (alternating),
and a pull of 10 changes among 1,000. Prints figures; asserts nothing.

usage: bench/cloud-bench.py PATH/TO/almanor"""
import os
import resource
import subprocess
import sys
import tempfile
import time
import uuid

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "support"))
from harness import Radicale  # noqa: E402

EVENT = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//bench//bench//EN\r\nBEGIN:VEVENT\r\n"
         "UID:{uid}\r\nDTSTAMP:20260101T000000Z\r\nDTSTART;VALUE=DATE:2027{m:02d}{d:02d}\r\n"
         "SUMMARY:Event {i}\\, with text\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n")


def timed(args, env, stdin=None):
    """Runs a command; returns (wall seconds, child CPU seconds, return code)."""
    # The log goes to a file: a pipe read only after the wait fills up and stalls the command.
    with tempfile.TemporaryFile(mode="w+") as log:
        start = time.monotonic()
        p = subprocess.Popen(args, env=env, stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=log, text=True)
        if stdin:
            p.stdin.write(stdin)
            p.stdin.close()
        _, status, usage = os.wait4(p.pid, 0)
        p.returncode = os.waitstatus_to_exitcode(status)
        log.seek(0)
        err = log.read()
    if p.returncode != 0:
        print(f"  ({' '.join(args[:3])} exited {p.returncode}: {err.strip().splitlines()[-1:]})")
    return time.monotonic() - start, usage.ru_utime + usage.ru_stime, p.returncode


def home_env(root, name):
    home = os.path.join(root, name)
    os.makedirs(home, exist_ok=True)
    env = {k: v for k, v in os.environ.items() if not k.startswith("XDG_")}
    env.pop("DBUS_SESSION_BUS_ADDRESS", None)
    env.update(HOME=home, XDG_CONFIG_HOME=home + "/.config", XDG_DATA_HOME=home + "/.local/share",
               XDG_STATE_HOME=home + "/.local/state", XDG_CACHE_HOME=home + "/.cache")
    return env


def vdir_config(env, server, pwfile, collections, local):
    folder = os.path.join(env["HOME"], ".config", "vdirsyncer")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "config"), "w") as f:
        f.write(f"""[general]
status_path = "~/.local/share/vdirsyncer/status/"
[pair p]
a = "local"
b = "remote"
collections = ["{collections}"]
[storage local]
type = "filesystem"
path = "{local}"
fileext = ".ics"
[storage remote]
type = "caldav"
url = "{server.url}"
username = "{server.user}"
password.fetch = ["command", "cat", "{pwfile}"]
""")


def vdirsyncer_figures(root, server, pwfile, count):
    env = home_env(root, "vdir-push")
    local = os.path.join(env["HOME"], "cal")
    coll = os.path.join(local, "vdir-bench")
    os.makedirs(coll)
    for i in range(count):
        uid = str(uuid.uuid4())
        with open(os.path.join(coll, uid + ".ics"), "w") as f:
            f.write(EVENT.format(uid=uid, m=i % 12 + 1, d=i % 28 + 1, i=i))
    vdir_config(env, server, pwfile, "from a", local)
    subprocess.run(["vdirsyncer", "discover"], env=env, input="y\n" * 4, text=True,
                   capture_output=True, check=True)
    push_wall, push_cpu, _ = timed(["vdirsyncer", "sync"], env)
    fresh = home_env(root, "vdir-pull")
    vdir_config(fresh, server, pwfile, "from b", os.path.join(fresh["HOME"], "cal"))
    subprocess.run(["vdirsyncer", "discover"], env=fresh, input="y\n" * 4, text=True,
                   capture_output=True, check=True)
    pull_wall, pull_cpu, _ = timed(["vdirsyncer", "sync"], fresh)
    pulled = sum(len(files) for _, _, files in os.walk(os.path.join(fresh["HOME"], "cal")))
    if pulled != count:
        print(f"  (vdirsyncer's fresh pull brought {pulled} of {count} events)")
    return push_wall, push_cpu, pull_wall, pull_cpu


def almanor_figures(root, almanor, server, pwfile, count, tag):
    env = home_env(root, f"almanor-push-{tag}")
    login = [almanor, "cloud", "login", server.url, "--user", server.user,
             "--password-command", f"cat {pwfile}"]
    subprocess.run(login, env=env, check=True, capture_output=True)
    for i in range(count):
        subprocess.run([almanor, "events", "add", f"Event {i}, with text", "--date",
                        f"2027-{i % 12 + 1:02d}-{i % 28 + 1:02d}"], env=env, check=True,
                       capture_output=True)
    push_wall, push_cpu, _ = timed([almanor, "sync"], env)
    fresh = home_env(root, f"almanor-pull-{tag}")
    subprocess.run(login, env=fresh, check=True, capture_output=True)
    pull_wall, pull_cpu, _ = timed([almanor, "sync"], fresh)
    return push_wall, push_cpu, pull_wall, pull_cpu


def idle_and_ten_changes(root, almanor, server, pwfile):
    """Over the 1,000 events almanor_figures(..., "1000") left in the app's zone."""
    a = home_env(root, "almanor-pull-1000")  # synced with all 1,000
    vd = home_env(root, "vdir-idle")
    vdir_config(vd, server, pwfile, "com.vostrel.almanor.zone", os.path.join(vd["HOME"], "cal"))
    subprocess.run(["vdirsyncer", "discover"], env=vd, input="y\n" * 4, text=True,
                   capture_output=True, check=True)
    timed(["vdirsyncer", "sync"], vd)  # its first sync copies the 1,000
    ours, theirs = [], []
    for _ in range(5):
        ours.append(timed([almanor, "sync"], a)[0])
        theirs.append(timed(["vdirsyncer", "sync"], vd)[0])
    o, t = sorted(ours)[2], sorted(theirs)[2]
    print("Sync with nothing to do, 1,000 events (5 alternating pairs, medians)")
    print(f"  almanor sync: {o * 1000:6.0f} ms wall; vdirsyncer sync: {t * 1000:6.0f} ms wall "
          f"(almanor {o / t:.0%} of vdirsyncer's)")
    # Ten changes made on another machine, then pulled here.
    b = home_env(root, "almanor-push-1000")
    listed = subprocess.run([almanor, "events", "list", "--json"], env=b, check=True,
                            capture_output=True, text=True).stdout
    import json
    for i, e in enumerate(json.loads(listed)[:10]):
        subprocess.run([almanor, "events", "edit", e["id"], "--name", f"changed {i}"], env=b,
                       check=True, capture_output=True)
    subprocess.run([almanor, "sync"], env=b, check=True, capture_output=True)
    wall, cpu, _ = timed([almanor, "sync"], a)
    print(f"Pull of 10 changes among 1,000: {wall * 1000:6.0f} ms wall, {cpu * 1000:6.0f} ms CPU")


def main():
    almanor = os.path.abspath(sys.argv[1]) if len(sys.argv) > 1 else None
    with tempfile.TemporaryDirectory() as root:
        server = Radicale(os.path.join(root, "server"))
        try:
            pwfile = os.path.join(root, "pw")
            with open(pwfile, "w") as f:
                f.write(server.password + "\n")
            print("Radicale on loopback, 300 new events")
            pw, pc, lw, lc = vdirsyncer_figures(root, server, pwfile, 300)
            print(f"  vdirsyncer push: {pc:6.2f} s CPU, {pw:6.2f} s wall")
            print(f"  vdirsyncer fresh pull: {lw:6.2f} s wall, {lc:6.2f} s CPU")
            has_cloud = almanor and "cloud login" in subprocess.run(
                [almanor, "--help"], capture_output=True, text=True).stdout
            if not has_cloud:
                print("  almanor: this build has no cloud commands; its figures are not measured")
                return 0
            apw, apc, alw, alc = almanor_figures(root, almanor, server, pwfile, 300, "300")
            print(f"  almanor sync push: {apc:6.2f} s CPU, {apw:6.2f} s wall "
                  f"(CPU {apc / pc:.0%} of vdirsyncer's)")
            print(f"  almanor fresh pull: {alw:6.2f} s wall, {alc:6.2f} s CPU "
                  f"(wall {alw / lw:.0%} of vdirsyncer's)")
            print("Pull of 1,000 records")
            _, _, bw, bc = almanor_figures(root, almanor, server, pwfile, 1000, "1000")
            print(f"  almanor sync, fresh machine: {bw:6.2f} s wall, {bc:6.2f} s CPU")
            idle_and_ten_changes(root, almanor, server, pwfile)
        finally:
            server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
