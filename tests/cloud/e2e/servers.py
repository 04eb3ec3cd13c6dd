"""Real CalDAV servers on their own loopback ports and folders, and machines (a home each) driving
the almanor binary as a user would."""
import base64
import http.client
import json
import os
import signal
import socket
import subprocess
import sys
import time
import unittest
import urllib.error
import urllib.request

PYTHON = "/usr/bin/python3"
APP_ZONE = "com.vostrel.almanor.zone"
# Bounded waits: connect 10 s, 30 s without progress, a few requests per command.
COMMAND_LIMIT = 300
ALMANOR = None  # set by each test's main


def home_env(home):
    """The environment of a user whose home is `home`: the XDG folders inside it, no session bus,
    C.UTF-8 in UTC."""
    env = {k: v for k, v in os.environ.items()
           if not k.startswith("XDG_") and k != "DBUS_SESSION_BUS_ADDRESS"}
    env.update(HOME=home, LC_ALL="C.UTF-8", TZ="UTC",
               XDG_CONFIG_HOME=os.path.join(home, ".config"),
               XDG_DATA_HOME=os.path.join(home, ".local/share"),
               XDG_STATE_HOME=os.path.join(home, ".local/state"),
               XDG_CACHE_HOME=os.path.join(home, ".cache"))
    return env


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_http(url, timeout=20):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            urllib.request.urlopen(url, timeout=2)
            return
        except urllib.error.HTTPError:
            return  # any HTTP answer means it is up
        except OSError:
            time.sleep(0.1)
    raise RuntimeError("server did not answer at " + url)


class Process:
    def __init__(self, args, log=None, **kw):
        """`log`: a file that gets the server's own log lines."""
        out = open(log, "ab") if log else subprocess.DEVNULL
        self.proc = subprocess.Popen(args, stdout=out, stderr=out, start_new_session=True, **kw)
        if log:
            out.close()

    def stop(self):
        if self.proc.poll() is None:
            os.killpg(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()


class Radicale(Process):
    def __init__(self, folder, user="alice", password="s3cret", port=None, log=None):
        """`port`: that of a stopped server on the same folder, to start it again."""
        self.folder = folder
        self.user, self.password = user, password
        self.port = port or free_port()
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "users"), "w") as f:
            f.write(f"{user}:{password}\n")
        config = os.path.join(folder, "config")
        with open(config, "w") as f:
            f.write(f"""[server]
hosts = 127.0.0.1:{self.port}
[auth]
type = htpasswd
htpasswd_filename = {folder}/users
htpasswd_encryption = plain
delay = 0
[rights]
type = owner_only
[storage]
filesystem_folder = {folder}/collections
[web]
type = none
""")
        super().__init__([PYTHON, "-m", "radicale", "--config", config], log=log)
        self.url = f"http://127.0.0.1:{self.port}/"
        wait_http(self.url)

    def resources(self, zone):
        """The .ics files the server holds in a zone of the user."""
        path = os.path.join(self.folder, "collections", "collection-root", self.user, zone)
        if not os.path.isdir(path):
            return []
        return sorted(n for n in os.listdir(path) if n.endswith(".ics"))

    def resource_path(self, zone, resource):
        return os.path.join(self.folder, "collections", "collection-root", self.user, zone,
                            resource)


class Xandikos(Process):
    user, password = "user", "any"

    def __init__(self, folder):
        self.folder = folder
        self.port = free_port()
        super().__init__(["xandikos", "--defaults", "-d", folder, "-l", "127.0.0.1",
                          "-p", str(self.port)])
        self.url = f"http://127.0.0.1:{self.port}/"
        wait_http(self.url)

    def resources(self, zone):
        path = os.path.join(self.folder, "user", "calendars", zone)
        if not os.path.isdir(path):
            return []
        return sorted(n for n in os.listdir(path) if n.endswith(".ics"))

    def resource_path(self, zone, resource):
        return os.path.join(self.folder, "user", "calendars", zone, resource)


class Machine:
    """One user's home; logs in with a password command whose first line is the password."""

    def __init__(self, root, name):
        self.home = os.path.join(root, name)
        os.makedirs(self.home)
        self.env = home_env(self.home)

    def run(self, *args, stdin=None):
        p = subprocess.run([ALMANOR, *args], env=self.env, input=stdin, capture_output=True,
                           text=True, timeout=COMMAND_LIMIT)
        return p.returncode, p.stdout, p.stderr

    def ok(self, *args):
        rc, out, err = self.run(*args)
        if rc != 0:
            raise AssertionError(f"almanor {' '.join(args)} -> {rc}\n{out}\n{err}")
        return out

    def login(self, server):
        pw = os.path.join(self.home, "pw")
        with open(pw, "w") as f:
            f.write(server.password + "\nsecond line is not the password\n")
        return self.ok("cloud", "login", server.url, "--user", server.user,
                       "--password-command", f"cat {pw}")

    def add(self, name, date="2027-03-14"):
        return self.ok("events", "add", name, "--date", date).strip()

    def events(self):
        return {e["id"]: e["name"] for e in json.loads(self.ok("events", "list", "--json"))}


def dav(server, method, path, body=None, headers=None):
    conn = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
    h = {"Authorization": "Basic " + base64.b64encode(
        f"{server.user}:{server.password}".encode()).decode()}
    h.update(headers or {})
    try:
        conn.request(method, path, body=body, headers=h)
        r = conn.getresponse()
        return r.status, r.read()
    finally:
        conn.close()


def stored(server):
    """Each resource of the app's zone as the server keeps it, folded lines joined."""
    texts = []
    for res in server.resources(APP_ZONE):
        with open(server.resource_path(APP_ZONE, res), encoding="utf-8") as f:
            texts.append(f.read().replace("\r\n ", "").replace("\n ", ""))
    return texts


def main():
    """Runs the calling test file's cases against the binary named by the first argument."""
    global ALMANOR
    ALMANOR = os.path.abspath(sys.argv.pop(1))
    result = unittest.main(module="__main__", exit=False).result
    return 0 if result.wasSuccessful() else 1
