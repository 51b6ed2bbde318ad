#!/usr/bin/env python3
"""What a statistics service that never answers adds to the first frame of a run, and to its end.

    bench/peers/statistics_service.py [--rounds N] [--rate BYTES_PER_S] [--build DIR]

One application, of which a shell reads 6 MB before it shows its first frame, is run again and again from nothing over
a server of that rate: without a consent, with one to a service that answers at once, and with one to a service that
takes the connection and says nothing. Each report has all sections, so that the facts of the machine are taken beside
the start. The first frame is that of the run's own report. Values are medians of rounds that all sides make in turn.
Needs root; what it starts and writes is gone at the end.
"""

import argparse
import contextlib
import json
import random
import shutil
import socket
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
from product import Product  # noqa: E402

GOAL_MS = 20
SECTIONS = ("env", "apps", "host", "rt", "dl", "odr", "trc", "prep")
PLAY = """#!/bin/sh
cd "$(dirname "$0")" || exit 1
cat level.bin >/dev/null
date >"$FRAME_FILE"
"""


@contextlib.contextmanager
def service(answer):
    """Listens on loopback and gives the address; answers requests with `answer`, or not at all without one."""
    listener = socket.create_server(("127.0.0.1", 0))
    open_ones = []

    def serve():
        while True:
            try:
                client, _ = listener.accept()
            except OSError:
                return
            open_ones.append(client)
            if answer:
                client.recv(1 << 20)
                client.sendall(answer)
                client.close()

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    try:
        yield f"http://127.0.0.1:{listener.getsockname()[1]}/{{{{TOKEN}}}}"
    finally:
        listener.shutdown(socket.SHUT_RDWR)
        listener.close()
        for client in open_ones:
            client.close()


class Bench:
    def __init__(self, product, folder, url, services):
        self.product, self.folder, self.url, self.services = product, folder, url, services
        product.env["FRAME_FILE"] = product.env["TAVRIN_FIRST_FRAME"] = str(folder / "frame")
        product.env["XDG_CONFIG_HOME"] = str(folder / "config")

    def run(self, side):
        """Milliseconds to the first frame, and of the run's end after that."""
        got, report = self.folder / "got", self.folder / "report.json"
        shutil.rmtree(got, ignore_errors=True)
        shutil.rmtree(self.folder / "config", ignore_errors=True)
        words = ["run", got, "--url", self.url, "--now", "--quiet", "--report", report]
        if self.services[side]:
            words += ["--stats-url", self.services[side]]
            for section in SECTIONS:
                words += ["--stats-section", section]
        begun = time.monotonic()
        self.product.tavrin(*words)
        length = (time.monotonic() - begun) * 1000
        frame = json.loads(report.read_text(encoding="utf-8"))["firstFrameMs"]
        return frame, length - frame


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=15)
    parser.add_argument("--rate", type=int, default=6_000_000, help="of the server, in bytes a second")
    parser.add_argument("--build", type=Path, default=Path(__file__).resolve().parents[2] / "build/bench")
    options = parser.parse_args()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    ok = b'HTTP/1.1 200 OK\r\nContent-Length: 19\r\nConnection: close\r\n\r\n{"clientToken":"t"}'
    with tempfile.TemporaryDirectory(prefix="tavrin-statistics-") as name, contextlib.ExitStack() as stack:
        folder = Path(name)
        source = folder / "source"
        source.mkdir()
        (source / "level.bin").write_bytes(random.Random(1).randbytes(6_000_000))
        (source / "play.sh").write_text(PLAY, encoding="ascii")
        (source / "play.sh").chmod(0o755)
        product = stack.enter_context(Product(options.build, folder / "product"))
        product.tavrin("image", "build", source, folder / "served/game", "--quiet", "--cmd",
                       "{{ZQDRIVE}}/TAVRIN-protected/app/play.sh")
        log = folder / "serve.log"
        with open(log, "wb") as out:
            stack.enter_context(lab.program(product.client, "serve", folder / "served", "--rate", options.rate,
                                            env=product.env, log=out))
        lab.wait_until(lambda: log.read_bytes().endswith(b"/\n"), "the server is up")
        url = log.read_text(encoding="ascii").split()[0] + "game/"
        services = {"none": None, "right": stack.enter_context(service(ok)),
                    "silent": stack.enter_context(service(None))}
        bench = Bench(product, folder, url, services)

        def middle(found):
            halves = list(zip(*found))
            return tuple(sorted(half)[len(half) // 2] for half in halves)

        values = lab.interleave(options.rounds, list(services), bench.run, middle)
        for side, (frame, end) in values.items():
            print(f"{side:8} first frame {frame:6.0f} ms, end of the run {end:6.0f} ms later")
        for side in ("right", "silent"):
            table.limit(f"a {side} service adds to the first frame", "ms", values[side][0] - values["none"][0], GOAL_MS)
    table.close()


if __name__ == "__main__":
    main()
