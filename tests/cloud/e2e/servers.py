"""Real CalDAV servers and the fault proxy for end-to-end tests, each on its own loopback port
and folder, each ended by PID."""
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
PROXY = os.path.join(HERE, "..", "..", "support", "fault_proxy.py")
PYTHON = "/usr/bin/python3"


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


class FaultProxy(Process):
    def __init__(self, folder, target_port):
        self.control = os.path.join(folder, "proxy-mode")
        self.set("pass")
        port_file = os.path.join(folder, "proxy-port")
        super().__init__([PYTHON, PROXY, "--target", f"127.0.0.1:{target_port}",
                          "--control", self.control, "--port-file", port_file])
        deadline = time.monotonic() + 10
        while not os.path.exists(port_file):
            if time.monotonic() > deadline or self.proc.poll() is not None:
                raise RuntimeError("fault proxy did not start")
            time.sleep(0.05)
        with open(port_file) as f:
            self.port = int(f.read())
        self.url = f"http://127.0.0.1:{self.port}/"

    def set(self, mode):
        tmp = self.control + ".tmp"
        with open(tmp, "w") as f:
            f.write(mode)
        os.replace(tmp, self.control)

    def seen(self):
        try:
            with open(self.control + ".log") as f:
                return [l.rstrip("\n") for l in f]
        except OSError:
            return []
