#!/usr/bin/env python3
"""Looks at the progress line of the client on terminals of some widths, and at what it writes into pipes.

    terminal_test.py CLIENT [unittest's arguments]
"""

import fcntl
import http.server
import json
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import termios
import threading
import time
import unicodedata
import unittest
from pathlib import Path

import home

CLIENT = Path(sys.argv[1]).resolve()
WIDTHS = (10, 20, 40, 80, 200)
NAME = "\u6e38\u620fe\u0301\x1b[2J" + "\u4e16\u754c" * 20


def columns(text):
    """The columns of `text` on a terminal, by Python's own tables."""
    return sum(0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


class Terminal:
    """A command on a terminal of its own."""

    def __init__(self, words, width):
        self.master, slave = pty.openpty()
        self.resize(width)
        environment = {**os.environ, "TERM": "xterm", "LC_ALL": "C"}
        self.process = subprocess.Popen([CLIENT, *words], stdin=slave, stdout=slave, stderr=slave, env=environment,
                                        start_new_session=True)
        os.close(slave)

    def resize(self, width):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", 25, width, 0, 0))

    def lines(self, ended):
        """The progress lines that are drawn from now on until `ended` says so of them, or the command has ended."""
        drawn, data = [], b""
        limit = time.monotonic() + 20
        while not ended(drawn) and time.monotonic() < limit:
            try:
                data += os.read(self.master, 65536)
            except OSError:
                break
            drawn = re.findall(r"\r([^\r\n]*)\x1b\[K", data.decode(errors="replace"))
        return [line for line in drawn if line]

    def end(self):
        """Ends the command by a signal, and gives its exit code."""
        self.process.send_signal(signal.SIGINT)
        self.lines(lambda drawn: False)
        code = self.process.wait(timeout=20)
        os.close(self.master)
        return code


class ProgressLineTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        home.enter(cls)
        Path("game").mkdir()
        Path("game/data").write_bytes(os.urandom(3000000))
        subprocess.run([CLIENT, "image", "build", "game", "served", "--quiet", "--cmd", "/bin/sleep", "--arg", "60",
                        "--name", NAME], check=True)
        cls.server = subprocess.Popen([CLIENT, "serve", "served", "--json", "--rate", "300kB"],
                                      stdout=subprocess.PIPE, text=True)
        cls.addClassCleanup(cls.server.stdout.close)
        cls.addClassCleanup(cls.server.wait)
        cls.addClassCleanup(cls.server.terminate)
        cls.url = json.loads(cls.server.stdout.readline())["url"]

    def look(self, words, word, whole):
        """Looks at the lines that begin with `word`, on terminals of all widths. The widest has room for `whole`."""
        terminal = Terminal(words, WIDTHS[0])
        try:
            for width in WIDTHS:
                terminal.resize(width)
                # These may have been drawn for the former width.
                terminal.lines(lambda drawn: len(drawn) > 2)
                lines = terminal.lines(lambda drawn: any(line.startswith(word[: width - 1]) for line in drawn[:-1]))
                self.assertTrue(any(line.startswith(word[: width - 1]) for line in lines), lines)
                for line in lines:
                    with self.subTest(width=width, line=line):
                        self.assertLess(columns(line), width)
                        self.assertNotRegex(line, r"[\x00-\x1f\x7f]")
            self.assertRegex(lines[-1], whole)
        finally:
            code = terminal.end()
        return code

    def test_a_download_shows_how_far_it_is(self):
        whole = r"^downloading +\d+ %  \[#*-+\] .* of .*/s +\d:\d\d left$"
        self.assertEqual(self.look(["fetch", "got", "--url", self.url], "downloading", whole), 1)

    def test_a_download_shows_what_it_waits_for(self):
        class Busy(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_error(503)

            def log_message(self, *_):
                pass

        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Busy) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            try:
                url = f"http://127.0.0.1:{server.server_port}/"
                whole = "^waiting for the server: the server answers 503$"
                self.assertEqual(self.look(["fetch", "none", "--url", url], "waiting", whole), 1)
            finally:
                server.shutdown()

    @unittest.skipUnless(os.geteuid() == 0 and Path("/dev/fuse").exists(), "drives need root and /dev/fuse")
    def test_names_of_wide_and_combined_characters_fit(self):
        self.look(["run", "played", "--url", self.url, "--now", "--no-notify"], "waiting",
                  rf"^waiting for the process '{NAME[:4]}\\x1b\[2J{NAME[-40:]}' ")

    @unittest.skipUnless(os.geteuid() == 0 and Path("/dev/fuse").exists(), "drives need root and /dev/fuse")
    def test_a_terminal_that_goes_costs_no_report(self):
        subprocess.run([CLIENT, "image", "build", "game", "own", "--quiet", "--cmd", "/bin/sleep", "--arg", "60"],
                       check=True)
        terminal = Terminal(["run", "own", "--no-notify", "--report", "report.json"], 80)
        limit = time.monotonic() + 20
        while not list(Path("own").glob("runs/*.json")) and time.monotonic() < limit:
            time.sleep(0.05)
        os.close(terminal.master)
        terminal.process.send_signal(signal.SIGHUP)
        # A key that is held down goes on until the very end.
        while terminal.process.poll() is None and time.monotonic() < limit:
            terminal.process.send_signal(signal.SIGINT)
            time.sleep(0.0005)
        self.assertEqual(terminal.process.wait(timeout=1), 0)
        self.assertIsNone(json.loads(Path("report.json").read_text())["exitCode"])

    def test_a_pipe_gets_plain_lines(self):
        command = subprocess.Popen([CLIENT, "fetch", "piped", "--url", self.url, "--json"], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env={**os.environ, "TERM": "xterm"}, text=True)
        first = command.stderr.readline()
        command.send_signal(signal.SIGINT)
        out, rest = command.communicate(timeout=20)
        self.assertRegex(first, r"^downloading +\d+ %  .* left\n$")
        self.assertNotRegex(first + rest, r"[\r\x1b]")
        self.assertFalse(json.loads(out)["complete"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
