#!/usr/bin/python3
"""HTTP(S) peer of the URL tests on 127.0.0.1, its port printed first.  usage: ROOT [CERT KEY]
/files/NAME GET, PUT, POST (stored, content type in NAME.type); /chunked/NAME chunked GET;
/json and /echo POST; /auth/... behind test:secret; /redirect/N/PATH; /status/CODE; /stall
(announces 1000 bytes, sends 10); /short/NAME (half the file, then close); /reset (RST)."""
import base64
import http.server
import json
import os
import socket
import ssl
import struct
import sys
import time

ROOT = sys.argv[1]
AUTH = "Basic " + base64.b64encode(b"test:secret").decode()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def path_of(self, name):
        return os.path.join(ROOT, os.path.basename(name))

    def reply(self, code, body=b"", ctype="text/plain"):
        self.send_response(code)
        self.send_header("Content-Type", ctype)
        self.send_header("Content-Length", str(len(body)))
        if code == 401:
            self.send_header("WWW-Authenticate", 'Basic realm="t"')
        self.end_headers()
        self.wfile.write(body)

    def body_chunks(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            while True:
                n = int(self.rfile.readline().split(b";")[0], 16)
                if n == 0:
                    self.rfile.readline()
                    return
                yield self.rfile.read(n)
                self.rfile.readline()
        left = int(self.headers.get("Content-Length", "0"))
        while left > 0:
            data = self.rfile.read(min(left, 1 << 20))
            if not data:
                return
            left -= len(data)
            yield data

    def route(self):
        path = self.path
        if path.startswith("/auth/"):
            if self.headers.get("Authorization") != AUTH:
                for _ in self.body_chunks():
                    pass
                return self.reply(401, b"who are you")
            path = path[5:]
        parts = path.split("/")
        return parts[1], "/".join(parts[2:])

    def do_GET(self):
        r = self.route()
        if r is None:
            return
        kind, rest = r
        if kind == "files" or kind == "short":
            try:
                f = open(self.path_of(rest), "rb")
            except OSError:
                return self.reply(404, b"no such file")
            size = os.fstat(f.fileno()).st_size
            self.send_response(200)
            self.send_header("Content-Length", str(size))
            self.end_headers()
            left = size if kind == "files" else size // 2
            while left > 0:
                data = f.read(min(left, 1 << 20))
                self.wfile.write(data)
                left -= len(data)
            f.close()
            if kind == "short":
                self.wfile.flush()
                self.close_connection = True
        elif kind == "chunked":
            data = open(self.path_of(rest), "rb").read()
            self.send_response(200)
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            pos, step = 0, 1
            while pos < len(data):
                piece = data[pos:pos + step]
                self.wfile.write(b"%x\r\n" % len(piece) + piece + b"\r\n")
                pos += len(piece)
                step = step * 3 + 1 if step < 70000 else 1
            self.wfile.write(b"0\r\n\r\n")
        elif kind == "redirect":
            n, _, target = rest.partition("/")
            n = int(n)
            where = "/redirect/%d/%s" % (n - 1, target) if n > 1 else "/" + target
            self.send_response(302)
            self.send_header("Location", where)
            self.send_header("Content-Length", "0")
            self.end_headers()
        elif kind == "status":
            self.reply(int(rest), b"status " + rest.encode())
        elif kind == "stall":
            self.send_response(200)
            self.send_header("Content-Length", "1000")
            self.end_headers()
            self.wfile.write(b"0123456789")
            self.wfile.flush()
            time.sleep(600)
        elif kind == "reset":
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.connection.close()
            self.close_connection = True
        else:
            self.reply(404, b"unknown")

    def store(self, rest):
        with open(self.path_of(rest) + ".part", "wb") as f:
            for data in self.body_chunks():
                f.write(data)
        os.rename(self.path_of(rest) + ".part", self.path_of(rest))
        with open(self.path_of(rest) + ".type", "w") as f:
            f.write(self.headers.get("Content-Type", ""))

    def do_PUT(self):
        r = self.route()
        if r is None:
            return
        kind, rest = r
        if kind != "files":
            return self.reply(404, b"unknown")
        self.store(rest)
        self.reply(201, b"stored")

    def do_POST(self):
        r = self.route()
        if r is None:
            return
        kind, rest = r
        if kind == "files":
            self.store(rest)
            return self.reply(200, b"stored")
        body = b"".join(self.body_chunks())
        ctype = self.headers.get("Content-Type", "")
        if kind == "json":
            try:
                answer = {"type": ctype, "echo": json.loads(body)}
            except ValueError:
                return self.reply(400, b'{"error": "not JSON"}', "application/json")
            return self.reply(200, json.dumps(answer).encode(), "application/json")
        if kind == "echo":
            return self.reply(200, body, ctype)
        self.reply(404, b"unknown")


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def handle_error(self, request, client_address):
        pass  # peers that reset or time out are what several tests do on purpose


server = Server(("127.0.0.1", 0), Handler)
if len(sys.argv) > 3:
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(sys.argv[2], sys.argv[3])
    server.socket = ctx.wrap_socket(server.socket, server_side=True)
print(server.server_address[1], flush=True)
server.serve_forever()
