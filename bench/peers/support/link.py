"""The link of the benchmarks against peers: `tavrin serve`, and what one of the peers needs in front of it."""

import contextlib
import http.server
import json
import subprocess
import threading

LATENCY_MS = 20


class Link:
    def __init__(self, mbit):
        self.mbit, self.rate = mbit, mbit * 125_000  # bytes per second

    def __str__(self):
        return f"{self.mbit} Mbit/s, {LATENCY_MS} ms"

    def transfer_ms(self, n_bytes):
        return n_bytes / self.rate * 1000


class Server:
    """`tavrin serve` during a `with`; `rate` in bytes per second, 0 for no limit."""

    def __init__(self, client, folder, rate=0, latency_ms=0):
        words = [client, "serve", folder, "--json", "--rate", rate, "--latency", latency_ms]
        self.process = subprocess.Popen(
            [str(word) for word in words], stdout=subprocess.PIPE, text=True, start_new_session=True
        )
        self.figures = None

    def __enter__(self):
        self.url = json.loads(self.process.stdout.readline())["url"]
        return self

    def end(self):
        """Gives what was served, and serves no longer."""
        if self.figures is None:
            self.process.terminate()
            self.figures = json.loads(self.process.communicate(timeout=20)[0])
        return self.figures

    def __exit__(self, *_):
        try:
            self.end()
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()


class Listing(http.server.BaseHTTPRequestHandler):
    """A page that lists one file, and sends whoever wants that to the server; rclone needs such a page."""

    protocol_version = "HTTP/1.1"

    def do_GET(self):
        name = self.path.lstrip("/")
        page = b"" if name else f'<a href="{self.server.name}">{self.server.name}</a>'.encode()
        self.send_response(302 if name else 200)
        if name:
            self.send_header("Location", self.server.url + name)
        else:
            self.send_header("Content-Type", "text/html")
        self.send_header("Content-Length", str(len(page)))
        self.end_headers()
        if self.command == "GET":
            self.wfile.write(page)

    do_HEAD = do_GET

    def log_message(self, *_):
        pass


class ListingServer(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        pass  # whoever asked has been killed


@contextlib.contextmanager
def listing(url, name):
    with ListingServer(("127.0.0.1", 0), Listing) as server:
        server.daemon_threads = True
        server.url, server.name = url, name
        thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.01})
        thread.start()
        try:
            yield f"http://127.0.0.1:{server.server_address[1]}/"
        finally:
            server.shutdown()
            thread.join()
