"""A web server with habits that are permitted or at least met with, and that none of the packaged servers shows by
its configuration alone."""

import http.server
import os
import re
import threading
import time
from email.utils import formatdate

SLICE = 1 << 20
PIECE = 64 << 10
SIGNED_S = 2.0
SLOW_EACH, SLOW_S = 9, 5.0


class Handler(http.server.BaseHTTPRequestHandler):
    """`server.habits` says what it does otherwise than usual."""

    protocol_version = "HTTP/1.1"

    def has(self, habit):
        return habit in self.server.habits

    def do_GET(self):
        path = self.path
        if self.has("signed"):
            path = self.signed(path)
            if path is None:
                return
        name = os.path.normpath(path.partition("?")[0]).lstrip("/")
        try:
            with open(self.server.www / name, "rb") as file:
                self.answer(file, os.fstat(file.fileno()))
        except (FileNotFoundError, IsADirectoryError):
            self.refuse(404)

    do_HEAD = do_GET

    def refuse(self, status, **heads):
        self.send_response(status)
        for name, value in heads.items():
            self.send_header(name, value)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def signed(self, path):
        """Redirects to an address that is good for a short time; gives the path of one that is."""
        parts = path.split("/", 3)
        if parts[1] != "signed":
            self.refuse(302, Location=f"/signed/{time.time()}{path}")
            return None
        if time.time() > float(parts[2]) + SIGNED_S:
            self.refuse(403)
            return None
        return "/" + parts[3]

    def answer(self, file, status):
        size = status.st_size
        tag = f'"{int(status.st_mtime):x}-{size:x}"'
        first, last = 0, size - 1
        wanted = re.fullmatch(r"bytes=(\d*)-(\d*)", self.headers.get("Range", ""))
        if wanted and self.has("no suffixes") and not wanted[1]:
            wanted = None
        if wanted and self.headers.get("If-Range", tag) in (tag, formatdate(status.st_mtime, usegmt=True)):
            first = int(wanted[1]) if wanted[1] else max(0, size - int(wanted[2]))
            last = min(last, int(wanted[2])) if wanted[1] and wanted[2] else last
            if first > last:
                self.refuse(416, **{"Content-Range": f"bytes */{size}"})
                return
        else:
            wanted = None
        if self.has("large ranges"):
            first, last = first // SLICE * SLICE, min(size, (last // SLICE + 1) * SLICE) - 1
        with self.server.lock:
            self.server.n_requests += 1
            slow = self.has("slow") and self.server.n_requests % SLOW_EACH == 0
        if slow:
            time.sleep(SLOW_S)
        self.send_response(206 if wanted else 200)
        if wanted:
            unit, total = "Bytes" if self.has("letters") else "bytes", "*" if self.has("no total") else size
            self.send_header("Content-Range", f"{unit} {first}-{last}/{total}")
        self.send_header("ETag", "W/" + tag if self.has("weak") else tag)
        self.send_header("Last-Modified", formatdate(status.st_mtime, usegmt=True))
        self.send_body(file, first, last + 1 - first)

    def send_body(self, file, first, n_bytes):
        chunked = self.has("chunked")
        if chunked:
            self.send_header("Transfer-Encoding", "chunked")
        elif self.has("no length"):
            self.send_header("Connection", "close")
            self.close_connection = True
        else:
            self.send_header("Content-Length", str(n_bytes))
        self.end_headers()
        if self.command == "HEAD":
            return
        file.seek(first)
        while n_bytes > 0:
            data = file.read(min(PIECE, n_bytes))
            n_bytes -= len(data)
            self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data) if chunked else data)
        if chunked:
            self.wfile.write(b"0\r\n\r\n")

    def log_message(self, *_):
        pass


class HttpServer(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, *_):
        pass  # the client has gone


class Peculiar:
    """A server with these habits, for as long as the ground lasts."""

    def __init__(self, ground, *habits):
        server = ground.enter_context(HttpServer(("127.0.0.1", 0), Handler))
        server.www, server.habits, server.lock, server.n_requests = ground.www, habits, threading.Lock(), 0
        self.port = server.server_address[1]
        self.url = f"http://127.0.0.1:{self.port}/"
        thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.05})
        thread.start()
        ground.callback(thread.join)
        ground.callback(server.shutdown)
