#!/usr/bin/python3
"""The fault proxy in front of a real Radicale: each mode does what the end-to-end tests rely on,
and switching modes takes effect on the next connection."""
import base64
import http.client
import os
import socket
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from servers import Radicale, FaultProxy  # noqa: E402

EVENT = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//t//t//EN\r\nBEGIN:VEVENT\r\nUID:{uid}\r\n"
         "DTSTAMP:20260101T000000Z\r\nDTSTART;VALUE=DATE:20260101\r\nSUMMARY:{uid}\r\n"
         "END:VEVENT\r\nEND:VCALENDAR\r\n")


class FaultProxyTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.server = Radicale(os.path.join(cls.dir.name, "radicale"))
        try:
            cls.proxy = FaultProxy(cls.dir.name, cls.server.port)
        except Exception:
            cls.server.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.proxy.stop()
        cls.server.stop()
        cls.dir.cleanup()

    def request(self, method, path, body=None, timeout=5):
        conn = http.client.HTTPConnection("127.0.0.1", self.proxy.port, timeout=timeout)
        auth = base64.b64encode(b"alice:s3cret").decode()
        headers = {"Authorization": "Basic " + auth}
        if body is not None:
            headers["Content-Type"] = "text/calendar; charset=utf-8"
        try:
            conn.request(method, path, body=body, headers=headers)
            resp = conn.getresponse()
            return resp.status, resp.read()
        finally:
            conn.close()

    def test_modes(self):
        self.proxy.set("pass")
        status, _ = self.request("MKCALENDAR", "/alice/zone/")
        self.assertEqual(status, 201)
        # A body larger than one read passes whole.
        big = EVENT.format(uid="big").replace("SUMMARY:big", "DESCRIPTION:" + "x" * 70 + "\r\n " +
                                              ("é" * 30 + "\r\n ") * 4000 + "y")
        self.assertEqual(self.request("PUT", "/alice/zone/big.ics", big.encode())[0], 201)
        self.assertEqual(self.server.resources("zone"), ["big.ics"])

        self.proxy.set("503")
        self.assertEqual(self.request("GET", "/alice/zone/big.ics")[0], 503)

        self.proxy.set("refuse-put")
        self.assertEqual(self.request("PUT", "/alice/zone/a.ics", EVENT.format(uid="a").encode())[0],
                         503)
        self.assertEqual(self.request("GET", "/alice/zone/big.ics")[0], 200)
        self.assertEqual(self.server.resources("zone"), ["big.ics"], "a refused PUT reached the server")

        self.proxy.set("refuse-put close")
        with self.assertRaises((http.client.HTTPException, ConnectionError)):
            self.request("PUT", "/alice/zone/a.ics", EVENT.format(uid="a").encode())
        self.assertEqual(self.server.resources("zone"), ["big.ics"])

        self.proxy.set("refuse")
        with self.assertRaises((http.client.HTTPException, ConnectionError)):
            self.request("GET", "/alice/zone/big.ics")

        self.proxy.set("hang")
        started = time.monotonic()
        with self.assertRaises(socket.timeout):
            self.request("GET", "/alice/zone/big.ics", timeout=1)
        self.assertLess(time.monotonic() - started, 30)

        # Back to passing: the server is intact and the log holds one line per request.
        self.proxy.set("pass")
        self.assertEqual(self.request("PUT", "/alice/zone/a.ics", EVENT.format(uid="a").encode())[0],
                         201)
        self.assertEqual(self.server.resources("zone"), ["a.ics", "big.ics"])
        modes = [line.split(" ")[0] for line in self.proxy.seen()]
        self.assertEqual(modes, ["pass", "pass", "503", "refuse-put", "refuse-put", "refuse-put",
                                 "refuse", "hang", "pass"])


if __name__ == "__main__":
    unittest.main()
