#!/usr/bin/env python3
"""A game's first frame from an image that a trace has ordered, against the best that one gets without: files sorted by
first access, and the ideal.

    bench/peers/ordered.py [--rounds N] [--link MBIT...] [--games NAME...] [--only NAME] [--build DIR] [--dir DIR]

A session of a game is played from a mounted image three times and traced; `image build --order` makes the ordered image
of these runs, and `image pack` its packed form. Then that session, and another one that no trace has, are started by
`run --url --now`, as stream.py does it: a server whose rate all connections share, warm programs and served files, the
game's own start-up subtracted. The other one is also started from an image whose order is of three further sessions,
each traced once. All are started, too, from a squashfs whose files are sorted by their first access in the same
sessions (`mksquashfs -sort`), those first that more of these have opened; rclone or nbdkit shows it.

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
from typing import NamedTuple

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import ways  # noqa: E402
from game import BESIDE, FIRST, GAMES, OTHER, Starter, Way, choose_ways, medians, screen  # noqa: E402
from link import LATENCY_MS, Link, Server  # noqa: E402
from product import Product  # noqa: E402
from traces import BLOCK, NO_ENTRY, packed_sizes, read_app, read_items, read_map  # noqa: E402

N_TRACES = 3
PIECE = 256 << 10
PLAY_S = 5  # after the first frame
LATE_MS = 1000
OURS = "ours, ordered"
WAYS = [
    Way("sorted squashfs, rclone", "squashfs", "", ["rclone", "mksquashfs", "strace"], ways.rclone),
    Way("sorted squashfs, nbdkit", "squashfs", "", [*ways.NBDKIT, "mksquashfs", "strace"], ways.nbdkit),
    Way(OURS, "erofs", "", []),
]


class Case(NamedTuple):
    """A session that is started, from an order of `traced`: sessions, each as often as it is named."""

    name: str
    session: int
    traced: tuple


CASES = [
    Case("traced", FIRST, (FIRST,) * N_TRACES),
    Case("other", OTHER, (FIRST,) * N_TRACES),
    Case("other, three beside", OTHER, BESIDE),
]


class OrderBench(Starter):
    """One game: its ordered images on the server, and the start of its sessions in each way."""

    def __init__(self, game, folder, options, chosen):
        super().__init__(game, folder, options)
        self.sides = [(way, case) for way in chosen for case in CASES]
        self.ideals = {}  # bytes, by session

    # -- what is served

    def prepare(self):
        plain = self.folder / "plain"
        needs_sorted = any(way.provide for way, _ in self.sides)
        made = {}  # folders, by what was traced
        with Product(self.options.build, self.folder / "publisher") as product:
            product.tavrin("image", "build", self.source, plain, "--quiet")
            self.record(product, plain, self.folder / "trace-other", OTHER)
            for case in CASES:
                if case.traced not in made:
                    made[case.traced] = self.folder / f"image{len(made)}"
                    self.make_ordered(product, plain, made[case.traced], case.traced)
                    if needs_sorted:
                        self.make_sorted(self.sorted_for(case), case.traced)
                self.serve(made[case.traced], case)
        sizes = ", ".join(f"{case.name} {self.ideals[case.session] / 1e6:.2f} MB" for case in CASES[:2])
        packed = (made[CASES[0].traced] / "img.zqf.zst").stat().st_size
        print(f"\n{self.game.name}: packed image {packed / 1e6:.1f} MB; ideal {sizes}", flush=True)

    def make_ordered(self, product, plain, image, traced):
        orders = []
        for number, session in enumerate(traced):
            trace = self.folder / f"trace-{image.name}-{number}"
            self.record(product, plain, trace, session)
            orders += ["--order", trace]
        words = [*orders, "--cmd", "game", "--quiet"]
        product.tavrin("image", "build", self.source, image, *words)
        product.tavrin("image", "pack", image, "--quiet")

    def serve(self, image, case):
        """The image, whose application has the session's arguments."""
        served = self.folder / case.name
        shutil.copytree(image, served)
        app = read_app(served)
        app["app"]["args"] = [word.removeprefix("--arg=") for word in self.game.arguments(case.session)]
        (served / "app.json").write_text(json.dumps(app), encoding="utf-8")

    def sorted_for(self, case):
        return self.folder / ("sorted" + "-".join(map(str, dict.fromkeys(case.traced))))

    def record(self, product, image, trace, session):
        """Traces a session, and notes the bytes of its ideal."""
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
        self.ideals[session] = self.compressed_size(image, blocks_until(trace, begin + seconds))

    def compressed_size(self, image, blocks):
        entries = read_map(image)
        with open(image / "img.zqf", "rb") as file, tempfile.TemporaryDirectory(dir=self.folder) as folder:
            data = b"".join(read_block(file, entries[block]) for block in blocks if entries[block] != NO_ENTRY)
            for first in range(0, len(data), PIECE):
                (Path(folder) / str(first)).write_bytes(data[first : first + PIECE])
            pieces = list(Path(folder).iterdir())
            lab.run("zstd", "-3", "-q", *pieces)
            return sum(piece.with_name(piece.name + ".zst").stat().st_size for piece in pieces)

    def make_sorted(self, served, traced):
        runs = [self.list_opened(session) for session in dict.fromkeys(traced)]
        files = dict.fromkeys(name for run in runs for name in run)

        def key(name):
            places = [run.index(name) / len(run) for run in runs if name in run]
            return -len(places), sum(places) / len(places)

        # Higher priorities come first; 32767 is the highest.
        lines = [f"{name} {32767 - place}\n" for place, name in enumerate(sorted(files, key=key))]
        names = self.folder / "names"
        names.write_text("".join(lines), encoding="utf-8")
        served.mkdir()
        words = ["-comp", "zstd", "-sort", names, "-quiet", "-no-progress"]
        lab.run("mksquashfs", self.source, served / "img.squashfs", *words)

    def list_opened(self, session):
        """The files that a session opens, in the order of that."""
        calls = self.folder / "calls"
        with self.working_folder() as folder:
            front = ["strace", "-f", "-y", "-qq", "-e", "trace=execve,open,openat", "-o", calls]
            with self.played(self.source, folder, session, front) as process, contextlib.ExitStack() as stack:
                stack.callback(kill_group, process)  # strace alone would leave the game
                self.wait_for_frame(folder, process, time.time())
                lab.pause(process, PLAY_S)
        opened = re.findall(r"= \d+<" + re.escape(str(self.source)) + r"/([^>\n]+)>", calls.read_text(errors="replace"))
        return [name for name in dict.fromkeys(["game", *opened]) if (self.source / name).is_file()]

    # -- the starts

    def measure(self, link, table):
        def measure(side):
            way, case = side
            served = self.sorted_for(case).name if way.provide else case.name
            way = Way(way.name, way.kind, served, way.needs, way.provide)
            return self.patiently(way, lambda: self.start(way, link, case.session))

        for times in self.own_s.values():
            times.clear()
        found = lab.interleave(self.options.rounds, self.sides, measure, medians)
        print(f"\n{self.game.name}, {link}\n  {'way':<26}{'session':<22}{'s to the frame':>14}{'MB moved':>10}")
        for case in CASES:
            own, ideal = self.get_own(case.session), self.ideals[case.session]
            values = {way.name: found[way, of] for way, of in self.sides if of == case and found[way, of]}
            ideal_s = ideal / link.rate + 2 * LATENCY_MS / 1000
            for way, (seconds, moved) in values.items():
                text = f"  {way:<26}{case.name:<22}{seconds - own:>14.2f}{moved / 1e6:>10.1f}"
                if way == OURS or OURS not in values:
                    print(text)
                else:
                    table.goal(f"{text}  goal: ours is faster", values[OURS][0] < seconds)
            print(f"  {'ideal':<26}{case.name:<22}{ideal_s:>14.2f}{ideal / 1e6:>10.1f}  own {own:.2f} s")
            if OURS in values:
                factor = 1.3 if case.session == FIRST else 2
                limit, seconds = factor * ideal_s + 0.5, values[OURS][0] - own
                table.limit(f"  {case.name}, to {factor:g} ideals", "s", seconds, limit)
                self.watch(link, case, table)

    def watch(self, link, case, table):
        """What else must hold for the session that was traced, and how it is for the other."""
        name, is_traced = case.name, case.session in case.traced
        served = self.folder / name
        self.warm_up(served, case.session)
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
        prefix, ideal = sum(frames[:n_frames]), self.ideals[case.session]
        late = report.get("lastWaitMs", 0) - report["firstFrameMs"]
        demanded = report["bytesOnDemand"]
        text = f"  {name}: the frame needed the first {prefix / 1e6:.2f} MB, {prefix / ideal:.2f} of the ideal"
        table.goal(f"{text}  goal <= 1.2", prefix <= 1.2 * ideal) if is_traced else print(text)
        text = f"  {name}: on demand {demanded / 1e6:.2f} MB in {report['nOnDemandFetches']} requests"
        table.goal(f"{text}  goal: none", demanded == 0) if is_traced else print(text)
        text = f"  {name}: the last underflow {late} ms after the frame"
        table.goal(f"{text}  goal <= {LATE_MS}", late <= LATE_MS) if is_traced else print(text)


def kill_group(process):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)


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
