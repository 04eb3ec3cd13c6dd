"""A small CalDAV server in memory for tests, which misbehaves on demand; harness.py runs its main()
with --port N --control FILE --log FILE [--principal URL] [--home URL] [--no-sync-collection]

It holds the calendars of alice (password s3cret) on 127.0.0.1:N; --principal and --home name her
principal and calendar home elsewhere, another server included. Before each request it reads the
control file's words:
  fault=pass | trickle | late | hang | html | html207 | big | redirect
  method=M   only requests with this method get the fault
  every=S    trickle: one byte every S seconds; late: the answer after S seconds
  size=N     big: blanks in the answer
  to=URL     redirect: where a 301 sends the client
Each request is appended to --log as "METHOD PATH USER" (USER "-" without credentials).
"""
import argparse
import base64
import hashlib
import http.server
import socketserver
import threading
import time
import types
import urllib.parse
import xml.etree.ElementTree as ET
from xml.sax.saxutils import escape as esc

D = "DAV:"
C = "urn:ietf:params:xml:ns:caldav"
CS = "http://calendarserver.org/ns/"
NS = f'xmlns:d="{D}" xmlns:c="{C}" xmlns:cs="{CS}"'


# The server's calendars (one server a process): collections by path, each {"name": displayname,
# "resources": {name: (etag, body)}}; seq, bumped by every change, is the token and every ctag.
STORE = types.SimpleNamespace(lock=threading.Lock(), collections={}, seq=0)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # headers and body go out as they are written
    server_version = "ScriptedDav"

    def control(self):
        words = {"fault": "pass", "method": None}
        with open(self.server.control_file, encoding="utf-8") as f:
            words.update(word.partition("=")[::2] for word in f.read().split())
        if words["method"] and words["method"] != self.command:
            words["fault"] = "pass"
        return words

    def send(self, status, body=b"", content_type="application/xml; charset=utf-8", headers=None):
        if isinstance(body, str):
            body = body.encode()
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        for k, v in (headers or {}).items():
            self.send_header(k, v)
        self.end_headers()
        self.wfile.write(body)

    def multistatus(self, parts, token=None):
        extra = f"<d:sync-token>{esc(token)}</d:sync-token>" if token is not None else ""
        self.send(207, f'<?xml version="1.0" encoding="utf-8"?><d:multistatus {NS}>'
                  + "".join(parts) + extra + "</d:multistatus>")

    @staticmethod
    def response(href, props=None, status=None):
        out = f"<d:response><d:href>{esc(href)}</d:href>"
        if status is not None:
            return out + f"<d:status>HTTP/1.1 {status}</d:status></d:response>"
        found = "".join(props.values())
        return out + f"<d:propstat><d:prop>{found}</d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response>"

    def fault(self, words):
        fault = words["fault"]
        ms = b'<?xml version="1.0"?><d:multistatus xmlns:d="DAV:">'
        if fault == "hang":
            time.sleep(3600)
            return True
        if fault == "late":
            time.sleep(float(words["every"]))
            return False
        if fault == "redirect":
            self.send(301, "", headers={"Location": words["to"]})
            return True
        if fault in ("html", "html207"):  # a captive portal's page, as 200 or as a multistatus
            self.send(200 if fault == "html" else 207,
                      "<!DOCTYPE html><html><body><h1>Sign in</h1></body></html>", "text/html")
            return True
        if fault in ("trickle", "big"):  # a multistatus byte by byte, or one with `size` blanks
            if fault == "trickle":
                body, piece, pause = (ms * 2000)[:100000], 1, float(words["every"])
            else:
                body, piece, pause = ms + b" " * int(words["size"]) + b"</d:multistatus>", 65536, 0
            self.send_response(207)
            self.send_header("Content-Type", "application/xml; charset=utf-8")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            try:
                for at in range(0, len(body), piece):
                    self.wfile.write(body[at:at + piece])
                    self.wfile.flush()
                    time.sleep(pause)
            except OSError:
                pass
            self.close_connection = True
            return True
        return False

    def handle_any(self):
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        header = self.headers.get("Authorization", "")
        sent = tuple(base64.b64decode(header[6:]).decode().partition(":")[::2]) if header.startswith("Basic ") else None
        with open(self.server.log_file, "a", encoding="utf-8") as f:
            f.write(f"{self.command} {self.path} {sent[0] if sent else '-'}\n")
        if self.fault(self.control()):
            return
        if sent != ("alice", "s3cret"):
            self.send(401, "", headers={"WWW-Authenticate": 'Basic realm="test"'})
            return
        path = urllib.parse.unquote(urllib.parse.urlsplit(self.path).path)
        getattr(self, "do_dav_" + self.command)(path, body)

    def split(self, path):
        """(collection path, resource name) for a resource; (collection path, None) for one."""
        if path.endswith("/"):
            return path, None
        parent, _, name = path.rpartition("/")
        return parent + "/", name

    def do_dav_PROPFIND(self, path, body):
        depth = self.headers.get("Depth", "1")
        if path in ("/", "/.well-known/caldav", urllib.parse.urlsplit(self.server.principal).path):
            self.multistatus([self.response(self.path, {
                "cup": f"<d:current-user-principal><d:href>{esc(self.server.principal)}</d:href></d:current-user-principal>",
                "home": f"<c:calendar-home-set><d:href>{esc(self.server.home)}</d:href></c:calendar-home-set>",
            })])
            return
        with STORE.lock:
            if path == urllib.parse.urlsplit(self.server.home).path:
                parts = [self.response(path, {"t": "<d:resourcetype><d:collection/></d:resourcetype>"})]
                if depth != "0":
                    for cpath, col in STORE.collections.items():
                        parts.append(self.response(cpath, self.collection_props(col)))
                self.multistatus(parts)
                return
            collection, name = self.split(path)
            col = STORE.collections.get(collection)
            if col is None or (name is not None and name not in col["resources"]):
                self.send(404)
                return
            if name is not None:
                etag = col["resources"][name][0]
                self.multistatus([self.response(path, {"e": f"<d:getetag>{esc(etag)}</d:getetag>"})])
                return
            parts = [self.response(collection, self.collection_props(col))]
            if depth != "0":
                for rname, (etag, _) in col["resources"].items():
                    parts.append(self.response(collection + urllib.parse.quote(rname), {
                        "t": "<d:resourcetype/>", "e": f"<d:getetag>{esc(etag)}</d:getetag>"}))
            self.multistatus(parts)

    def collection_props(self, col):
        props = {
            "t": "<d:resourcetype><d:collection/><c:calendar/></d:resourcetype>",
            "n": f"<d:displayname>{esc(col['name'])}</d:displayname>",
            "g": f"<cs:getctag>\"{STORE.seq}\"</cs:getctag>",
        }
        if self.server.sync_collection:
            props["s"] = f"<d:sync-token>http://scripted/sync/{STORE.seq}</d:sync-token>"
        return props

    def do_dav_MKCALENDAR(self, path, body):
        with STORE.lock:
            if path in STORE.collections:
                self.send(405)
                return
            STORE.collections[path] = {"name": path.rstrip("/").rpartition("/")[2], "resources": {}}
        self.send(201)

    def do_dav_PUT(self, path, body):
        collection, name = self.split(path)
        with STORE.lock:
            col = STORE.collections.get(collection)
            if col is None or name is None:
                self.send(409)
                return
            current = col["resources"].get(name)
            if self.headers.get("If-None-Match") == "*" and current is not None:
                self.send(412)
                return
            match = self.headers.get("If-Match")
            if match is not None and (current is None or (match != "*" and match != current[0])):
                self.send(412)
                return
            etag = '"' + hashlib.sha1(body + str(STORE.seq).encode()).hexdigest()[:16] + '"'
            col["resources"][name] = (etag, body.decode())
            STORE.seq += 1
        self.send(201 if current is None else 204, headers={"ETag": etag})

    def do_dav_DELETE(self, path, body):
        collection, name = self.split(path)
        with STORE.lock:
            col = STORE.collections.get(collection)
            if col is not None and name is None:  # the whole calendar
                del STORE.collections[collection]
                STORE.seq += 1
                self.send(204)
                return
            current = col["resources"].get(name) if col else None
            if current is None:
                self.send(404)
                return
            match = self.headers.get("If-Match")
            if match is not None and match != "*" and match != current[0]:
                self.send(412)
                return
            del col["resources"][name]
            STORE.seq += 1
        self.send(204)

    def do_dav_GET(self, path, body):
        collection, name = self.split(path)
        with STORE.lock:
            col = STORE.collections.get(collection)
            current = col["resources"].get(name) if col and name else None
        if current is None:
            self.send(404, "not found", "text/plain")
            return
        self.send(200, current[1], "text/calendar; charset=utf-8", {"ETag": current[0]})

    def do_dav_REPORT(self, path, body):
        root = ET.fromstring(body)
        collection = path if path.endswith("/") else path + "/"
        with STORE.lock:
            col = STORE.collections.get(collection)
            if col is None:
                self.send(404)
                return
            kind = root.tag

            def entry(name, with_data=True):
                etag, data = col["resources"][name]
                props = {"e": f"<d:getetag>{esc(etag)}</d:getetag>"}
                if with_data:
                    props["c"] = f"<c:calendar-data>{esc(data)}</c:calendar-data>"
                return self.response(collection + urllib.parse.quote(name), props)

            wants_data = root.find(f".//{{{C}}}calendar-data") is not None
            if kind == f"{{{C}}}calendar-query":
                self.multistatus([entry(n, wants_data) for n in col["resources"]])
            elif kind == f"{{{C}}}calendar-multiget":
                parts = []
                for href in root.iter(f"{{{D}}}href"):
                    name = urllib.parse.unquote(urllib.parse.urlsplit(href.text.strip()).path).rpartition("/")[2]
                    if name in col["resources"]:
                        parts.append(entry(name, wants_data))
                    else:
                        parts.append(self.response(href.text.strip(), status="404 Not Found"))
                self.multistatus(parts)
            elif kind == f"{{{D}}}sync-collection" and self.server.sync_collection:
                # Every listing is whole: the tests that use this one never pass a token.
                self.multistatus([entry(n, wants_data) for n in col["resources"]],
                                 token=f"http://scripted/sync/{STORE.seq}")
            else:
                self.send(403, f'<d:error {NS}><d:supported-report/></d:error>')

    do_PROPFIND = do_MKCALENDAR = do_PUT = do_DELETE = do_GET = do_REPORT = handle_any


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--control", required=True)
    parser.add_argument("--log", required=True)
    parser.add_argument("--principal", default="/principals/alice/")
    parser.add_argument("--home", default="/calendars/alice/")
    parser.add_argument("--no-sync-collection", action="store_true")
    args = parser.parse_args()
    server = Server(("127.0.0.1", args.port), Handler)
    server.control_file, server.log_file = args.control, args.log
    server.principal, server.home = args.principal, args.home
    server.sync_collection = not args.no_sync_collection
    server.serve_forever()

