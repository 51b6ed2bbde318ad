#!/usr/bin/env python3
"""A game's first frame from an image that a trace has ordered, against the best that one gets without: files sorted by
first access, and the ideal.

    bench/peers/ordered.py [--rounds N] [--link MBIT...] [--games NAME...] [--only NAME] [--build DIR] [--dir DIR]

A session of a game is played from a mounted image three times and traced; `trace merge` and `image build --order` make
the ordered image of that, and `image pack` its packed form. Then that session, and another one that no trace has, are
started by `run --url --now`, as stream.py does it: a server whose rate all connections share, warm programs and served
files, the game's own start-up subtracted. The same sessions are started from a squashfs whose files are sorted by their
first access in the traced session (`mksquashfs -sort`), which rclone or nbdkit shows.

The ideal of a session are the blocks that it reads until its first frame, compressed with zstd level 3 in pieces of
256 KiB, over the link's rate, and two round trips. One further run of ours goes on after the first frame, and tells
how much of the image, compressed, had to be there for it, what was fetched on demand, and when the last underflow was.

Values are medians of rounds that all ways make in turn. Needs root; what it starts, mounts and writes is gone at the
end.
"""

import argparse
import contextlib
import json
import os
import re
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import ways  # noqa: E402
from game import FIRST, GAMES, OTHER, Starter, Way, choose_ways, medians, screen  # noqa: E402
from link import LATENCY_MS, Link, Server  # noqa: E402
from product import Product  # noqa: E402
from traces import BLOCK, NO_ENTRY, packed_sizes, read_app, read_items, read_map  # noqa: E402

N_TRACES = 3
PIECE = 256 << 10
PLAY_S = 5  # after the first frame
LATE_MS = 1000
NAMES = {FIRST: "traced", OTHER: "other"}  # of the sessions
OURS = "ours, ordered"
WAYS = [
    Way("sorted squashfs, rclone", "squashfs", "sorted", ["rclone", "mksquashfs", "strace"], ways.rclone),
    Way("sorted squashfs, nbdkit", "squashfs", "sorted", [*ways.NBDKIT, "mksquashfs", "strace"], ways.nbdkit),
    Way(OURS, "erofs", "", []),
]


class OrderBench(Starter):
    """One game: its ordered images on the server, and the start of its sessions in each way."""

    def __init__(self, game, folder, options, chosen):
        super().__init__(game, folder, options)
        self.sides = [(way, session) for way in chosen for session in (FIRST, OTHER)]
        self.ideals = {}  # bytes

    # -- what is served

    def prepare(self):
        plain = self.folder / "plain"
        with Product(self.options.build, self.folder / "publisher") as product:
            product.tavrin("image", "build", self.source, plain, "--quiet")
            traces = [self.folder / f"trace{number}" for number in range(N_TRACES)]
            for trace in traces:
                self.ideals[FIRST] = self.record(product, plain, trace, FIRST)
            self.ideals[OTHER] = self.record(product, plain, self.folder / "trace-other", OTHER)
            merged = self.folder / "merged"
            product.tavrin("trace", "merge", merged, *traces, "--quiet")
            ordered, words = self.folder / NAMES[FIRST], self.game.arguments(FIRST)
            words = ["--order", merged, "--cmd", "game", *words, "--quiet"]
            product.tavrin("image", "build", self.source, ordered, *words)
            product.tavrin("image", "pack", ordered, "--quiet")
        other = self.folder / NAMES[OTHER]
        shutil.copytree(ordered, other)
        app = read_app(other)
        app["app"]["args"] = [word.removeprefix("--arg=") for word in self.game.arguments(OTHER)]
        (other / "app.json").write_text(json.dumps(app), encoding="utf-8")
        if any(way.served == "sorted" for way, _ in self.sides):
            self.make_sorted()
        sizes = ", ".join(f"{name} {self.ideals[session] / 1e6:.2f} MB" for session, name in NAMES.items())
        packed = (ordered / "img.zqf.zst").stat().st_size
        print(f"\n{self.game.name}: packed image {packed / 1e6:.1f} MB; ideal {sizes}", flush=True)

    def record(self, product, image, trace, session):
        """Traces a session, and gives the bytes of its ideal."""
        lab.drop_caches()
        product.tavrin("mount", image, "--trace", trace)
        try:
            top = product.find_drive(image)
            with self.working_folder() as folder, self.played(top, folder, session) as process:
                begin = time.time()
                seconds = self.wait_for_frame(folder, process, begin)
                lab.pause(process, PLAY_S)
        finally:
            product.tavrin("umount", image)
        return self.compressed_size(image, blocks_until(trace, begin + seconds))

    def compressed_size(self, image, blocks):
        entries = read_map(image)
        with open(image / "img.zqf", "rb") as file, tempfile.TemporaryDirectory(dir=self.folder) as folder:
            data = b"".join(read_block(file, entries[block]) for block in blocks if entries[block] != NO_ENTRY)
            for first in range(0, len(data), PIECE):
                (Path(folder) / str(first)).write_bytes(data[first : first + PIECE])
            pieces = list(Path(folder).iterdir())
            lab.run("zstd", "-3", "-q", *pieces)
            return sum(piece.with_name(piece.name + ".zst").stat().st_size for piece in pieces)

    def make_sorted(self):
        calls, names = self.folder / "calls", self.folder / "names"
        with self.working_folder() as folder:
            front = ["strace", "-f", "-y", "-qq", "-e", "trace=execve,open,openat", "-o", calls]
            with self.played(self.source, folder, FIRST, front) as process:
                self.wait_for_frame(folder, process, time.time())
                lab.pause(process, PLAY_S)
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)  # strace alone would leave the game
        opened = re.findall(r"= \d+<" + re.escape(str(self.source)) + r"/([^>\n]+)>", calls.read_text(errors="replace"))
        files = [name for name in dict.fromkeys(["game", *opened]) if (self.source / name).is_file()]
        # Higher priorities come first; 32767 is the highest.
        names.write_text("".join(f"{name} {32767 - place}\n" for place, name in enumerate(files)), encoding="utf-8")
        served = self.folder / "sorted"
        served.mkdir()
        words = ["-comp", "zstd", "-sort", names, "-quiet", "-no-progress"]
        lab.run("mksquashfs", self.source, served / "img.squashfs", *words)

    # -- the starts

    def measure(self, link, table):
        def measure(side):
            way, session = side
            if not way.provide:
                way = Way(way.name, way.kind, NAMES[session], way.needs)
            return self.patiently(way, lambda: self.start(way, link, session))

        for session in NAMES:
            self.own_s[session].clear()
        found = lab.interleave(self.options.rounds, self.sides, measure, medians)
        print(f"\n{self.game.name}, {link}\n  {'way':<26}{'session':<10}{'s to the frame':>14}{'MB moved':>10}")
        for session, name in NAMES.items():
            own = self.get_own(session)
            values = {way.name: found[way, session] for way, of in self.sides if of == session and found[way, session]}
            ideal_s = self.ideals[session] / link.rate + 2 * LATENCY_MS / 1000
            for way, (seconds, moved) in values.items():
                text = f"  {way:<26}{name:<10}{seconds - own:>14.2f}{moved / 1e6:>10.1f}"
                if way == OURS or OURS not in values:
                    print(text)
                else:
                    table.goal(f"{text}  goal: ours is faster", values[OURS][0] < seconds)
            print(f"  {'ideal':<26}{name:<10}{ideal_s:>14.2f}{self.ideals[session] / 1e6:>10.1f}  own {own:.2f} s")
            if OURS in values:
                factor = 1.3 if session == FIRST else 2
                limit, seconds = factor * ideal_s + 0.5, values[OURS][0] - own
                table.limit(f"  {name}, to {factor:g} ideals", "s", seconds, limit)
                self.watch(link, session, table)

    def watch(self, link, session, table):
        """What else must hold for the session that was traced, and how it is for the other."""
        served, name = self.folder / NAMES[session], NAMES[session]
        self.warm_up(served, session)
        with self.working_folder() as folder, Server(self.client, served, link.rate, LATENCY_MS) as server:
            begin = time.time()
            with self.running(folder, server, 60) as seconds:
                time.sleep(PLAY_S)
            report = json.loads((folder / "report").read_text(encoding="utf-8"))
            (trace,) = (folder / "image/traces").iterdir()
            entries = read_map(served)
            blocks = blocks_until(trace, begin + seconds)
            end = max(entries[block] for block in blocks if entries[block] != NO_ENTRY) + 1
        frames = packed_sizes(served / "img.zqf.zst")
        n_frames = -(-end * BLOCK // (50 * BLOCK))
        prefix, ideal = sum(frames[:n_frames]), self.ideals[session]
        late = report.get("lastWaitMs", 0) - report["firstFrameMs"]
        demanded = report["bytesOnDemand"]
        text = f"  {name}: the frame needed the first {prefix / 1e6:.2f} MB, {prefix / ideal:.2f} of the ideal"
        table.goal(f"{text}  goal <= 1.2", prefix <= 1.2 * ideal) if session == FIRST else print(text)
        text = f"  {name}: on demand {demanded / 1e6:.2f} MB in {report['nOnDemandFetches']} requests"
        table.goal(f"{text}  goal: none", demanded == 0) if session == FIRST else print(text)
        text = f"  {name}: the last underflow {late} ms after the frame"
        table.goal(f"{text}  goal <= {LATE_MS}", late <= LATE_MS) if session == FIRST else print(text)


def blocks_until(trace, end):
    """The blocks that a trace has until then, in seconds of time.time(), each once."""
    return list(dict.fromkeys(block for block, ms in read_items(trace) if ms <= end * 1000))


def read_block(file, entry):
    file.seek(entry * BLOCK)
    return file.read(BLOCK)


def parse_arguments():
    root = Path(__file__).resolve().parents[2]
    names = [game.name for game in GAMES]
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5, metavar="N", help="starts of each way (5)")
    parser.add_argument("--link", type=int, nargs="+", default=[20, 100], metavar="MBIT", help="Mbit/s (20 100)")
    parser.add_argument("--games", nargs="*", default=names, choices=names, metavar="NAME", help="of doom, supertux")
    parser.add_argument("--only", default="", metavar="NAME", help="ways whose name has this; several with |")
    parser.add_argument("--build", type=Path, default=root / "build/bench", metavar="DIR", help="of the programs")
    parser.add_argument("--dir", type=Path, metavar="DIR", help="where the images go (the folder for temporary files)")
    # What else is meant for the other benchmarks has no meaning here.
    options, _ = parser.parse_known_args()
    if options.rounds < 1 or min(options.link) < 1:
        parser.error("at least one round and 1 Mbit/s")
    options.build = options.build.resolve()
    return options


def main():
    options = parse_arguments()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    chosen = choose_ways(WAYS, lambda name: any(part in name for part in options.only.split("|")))
    if not chosen:
        return
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-ordered-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        options.display = stack.enter_context(screen())
        for game in (game for game in GAMES if game.name in options.games):
            if game.missing():
                print(f"left out: {game.name}: not installed here: {', '.join(game.missing())}")
                continue
            below = folder / game.name
            below.mkdir()
            bench = OrderBench(game, below, options, chosen)
            bench.prepare()
            for mbit in options.link:
                bench.measure(Link(mbit), table)
            shutil.rmtree(below)
    table.close()


if __name__ == "__main__":
    main()
