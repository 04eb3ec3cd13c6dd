#!/usr/bin/python3
"""A loopback proxy that stands between the client and a test server and misbehaves on demand.

Usage: fault_proxy.py --target HOST:PORT --control FILE [--port-file FILE]

The proxy listens on 127.0.0.1 on a free port, writes the port to --port-file (or prints it), and
reads the mode from the control file before each connection, so a test switches modes by rewriting
that file. Modes:
  pass       forward everything
  refuse     accept and close at once (the client sees a reset or an empty answer)
  503        answer every request with 503 Service Unavailable
  refuse-put forward everything but PUT, which gets 503 (or a closed connection with "refuse-put close")
  hang       accept, read, never answer
  drop-put-answer  forward everything, but close the connection instead of passing on the answer
             to a PUT: the server has applied it, the client never learns so
Every request line seen is appended to FILE.log with its mode, so tests can count what went through.
"""
import argparse
import os
import socket
import sys
import threading

BUF = 65536


def read_mode(path):
    try:
        with open(path, encoding="utf-8") as f:
            return f.read().strip() or "pass"
    except OSError:
        return "pass"


def read_head(sock):
    """Reads up to the end of the request head; returns (head bytes, rest already read)."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(BUF)
        if not chunk:
            return None, b""
        data += chunk
        if len(data) > 1 << 20:
            return None, b""
    head, _, rest = data.partition(b"\r\n\r\n")
    return head + b"\r\n\r\n", rest


def content_length(head):
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            try:
                return int(value.strip())
            except ValueError:
                return 0
    return 0


def read_body(sock, rest, length):
    body = rest
    while len(body) < length:
        chunk = sock.recv(BUF)
        if not chunk:
            break
        body += chunk
    return body


class Proxy:
    def __init__(self, target, control):
        self.target = target
        self.control = control
        self.log_lock = threading.Lock()
        self.hung = []

    def log(self, mode, line):
        with self.log_lock:
            with open(self.control + ".log", "a", encoding="utf-8") as f:
                f.write(f"{mode} {line}\n")

    def handle(self, client):
        try:
            self.serve(client)
        except OSError:
            pass
        finally:
            if client not in self.hung:
                client.close()

    def serve(self, client):
        mode = read_mode(self.control)
        if mode == "refuse":
            self.log(mode, "-")
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            return
        # One request per connection: the proxy answers HTTP/1.0-style and closes, as the
        # test server does, which keeps the fault modes exact per request.
        head, rest = read_head(client)
        if head is None:
            return
        request_line = head.split(b"\r\n", 1)[0].decode("latin-1")
        body = read_body(client, rest, content_length(head))
        method = request_line.split(" ", 1)[0]
        self.log(mode, request_line)
        if mode == "hang":
            self.hung.append(client)
            return
        if mode == "503" or (mode == "refuse-put" and method == "PUT"):
            client.sendall(b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n"
                           b"Retry-After: 1\r\nConnection: close\r\n\r\n")
            return
        if mode == "refuse-put close" and method == "PUT":
            return
        lines = head.split(b"\r\n")
        kept = [l for l in lines[1:] if not l.lower().startswith(b"connection:")]
        head = b"\r\n".join([lines[0]] + kept[:-2] + [b"Connection: close", b"", b""])
        upstream = socket.create_connection(self.target, timeout=60)
        try:
            upstream.sendall(head + body)
            if mode == "drop-put-answer" and method == "PUT":
                while upstream.recv(BUF):
                    pass
                return
            while True:
                chunk = upstream.recv(BUF)
                if not chunk:
                    break
                client.sendall(chunk)
        finally:
            upstream.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--target", required=True)
    parser.add_argument("--control", required=True)
    parser.add_argument("--port-file")
    args = parser.parse_args()
    host, _, port = args.target.rpartition(":")
    proxy = Proxy((host, int(port)), args.control)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(64)
    bound = listener.getsockname()[1]
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            f.write(str(bound))
        os.replace(tmp, args.port_file)
    else:
        print(bound, flush=True)
    while True:
        client, _ = listener.accept()
        threading.Thread(target=proxy.handle, args=(client,), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
