#!/usr/bin/python3
"""HTTP peer (or with "ftp", a pyftpdlib FTP peer) of the URL tests on 127.0.0.1, its port
printed first; both want test:secret (HTTP on /auth/...). usage: ROOT [ftp]
HTTP routes: the methods below, named <method>_<first path component>."""
import base64
import http.server
import json
import logging
import os
import socket
import struct
import sys
import time

ROOT = sys.argv[1]
AUTH = "Basic " + base64.b64encode(b"test:secret").decode()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def reply(self, code, body=b"", ctype="text/plain", extra=()):
        self.send_response(code)
        for k, v in (("Content-Type", ctype), ("Content-Length", str(len(body)))) + tuple(extra):
            self.send_header(k, v)
        self.end_headers()
        self.wfile.write(body)

    def body(self):
        return self.rfile.read(int(self.headers.get("Content-Length", "0")))

    def handle_any(self):
        path = self.path
        if path.startswith("/auth/"):
            if self.headers.get("Authorization") != AUTH:
                self.body()
                return self.reply(401, b"who are you", extra=[("WWW-Authenticate", 'Basic realm="t"')])
            path = path[5:]
        _, kind, rest = path.split("/", 2) if path.count("/") > 1 else (None, path[1:], "")
        name = os.path.join(ROOT, os.path.basename(rest))
        getattr(self, "%s_%s" % (self.command, kind), self.unknown)(rest, name)

    do_GET = do_PUT = do_POST = handle_any

    def unknown(self, rest, name):
        self.body()
        self.reply(404, b"unknown")

    def GET_files(self, rest, name, part=1.0):
        if not os.path.exists(name):
            return self.reply(404, b"no such file")
        data = open(name, "rb").read()
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[:int(len(data) * part)])
        self.close_connection = part < 1.0

    def GET_short(self, rest, name):  # the length of the file announced, half of it sent
        self.GET_files(rest, name, 0.5)

    def GET_chunked(self, rest, name):
        data = open(name, "rb").read()
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

    def GET_redirect(self, rest, name):
        n, target = rest.split("/", 1)
        where = "/redirect/%d/%s" % (int(n) - 1, target) if int(n) > 1 else "/" + target
        self.reply(302, extra=[("Location", where)])

    def GET_status(self, rest, name):
        self.reply(int(rest), b"status " + rest.encode())

    def GET_stall(self, rest, name):
        self.send_response(200)
        self.send_header("Content-Length", "1000")
        self.end_headers()
        self.wfile.write(b"0123456789")
        self.wfile.flush()
        time.sleep(600)

    def GET_reset(self, rest, name):
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()
        self.close_connection = True

    def PUT_files(self, rest, name, code=201):
        open(name, "wb").write(self.body())
        open(name + ".type", "w").write(self.headers.get("Content-Type", ""))
        self.reply(code, b"stored")

    def POST_files(self, rest, name):
        self.PUT_files(rest, name, 200)

    def POST_json(self, rest, name):
        try:
            answer = {"type": self.headers.get("Content-Type"), "echo": json.loads(self.body())}
        except ValueError:
            return self.reply(400, b'{"error": "not JSON"}', "application/json")
        self.reply(200, json.dumps(answer).encode(), "application/json")

    def POST_echo(self, rest, name):
        self.reply(200, self.body(), self.headers.get("Content-Type", ""))


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def handle_error(self, request, client_address):
        pass  # peers that reset or time out are what several tests do on purpose


if sys.argv[2:] == ["ftp"]:
    from pyftpdlib.authorizers import DummyAuthorizer
    from pyftpdlib.handlers import FTPHandler
    from pyftpdlib.servers import ThreadedFTPServer

    logging.disable(logging.CRITICAL)
    FTPHandler.authorizer = DummyAuthorizer()
    FTPHandler.authorizer.add_user("test", "secret", ROOT, perm="elradfmwMT")
    server = ThreadedFTPServer(("127.0.0.1", 0), FTPHandler)
    print(server.address[1], flush=True)
else:
    server = Server(("127.0.0.1", 0), Handler)
    print(server.server_address[1], flush=True)
server.serve_forever()
