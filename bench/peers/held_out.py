#!/usr/bin/env python3
"""How good an order is for a run that it wasn't made of.

    bench/peers/held_out.py [--link MBIT] [--games NAME...] [--only NAME] [--build DIR] [--dir DIR]

Each game is played from a mounted image several times, in different ways, and each time traced. Then each run in turn is
held out: the traces of all others are merged (`trace merge`) and make an order (`image order`), and the held-out run is
laid against it. It starts when `image info --speed` calls that safe, and the download goes on in order at the link's
speed:

    reads          blocks that it reads
    not named      those that none of the other runs has read
    underflows     those that haven't arrived when they are read
    at start       what is there at the start
    never used     what of that the run never reads
    first frame    what must have arrived for it: in RAW order, in this order, and what was read

A line for each game says what its runs have on average. Megabytes are those of `img.zqf`; a packed one has fewer on the
link, and is as much faster. Needs root; what it starts, mounts and writes is gone at the end.
"""

import argparse
import contextlib
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
from game import screen  # noqa: E402
from product import Product  # noqa: E402
from traces import BLOCK, NO_ENTRY, read_items, read_map  # noqa: E402

PLAY_S = 12

DOOM_WAD = "/usr/share/games/doom/freedoom1.wad"
TUX_DATA = "/usr/share/games/supertux2"
TUX_LEVELS = ["world1/journey_begins", "world1/frosted_fields", "world1/frozen_bridge", "world2/ancient_ruins",
              "world2/lost_village"]  # fmt: skip
# For each game: what its folder is made of, the words that each start has, and sessions with words of their own.
GAMES = {
    "doom": (
        [("/usr/games/chocolate-doom", "game"), (DOOM_WAD, "freedoom1.wad")],
        ["-iwad", "{}/freedoom1.wad", "-nosound", "-window"],
        [["-timedemo", f"demo{i}"] for i in (1, 2, 3)] + [["-warp", *words] for words in (("1", "2"), ("3", "5"), ("2", "7"))],
    ),
    "supertux": (
        [("/usr/games/supertux2", "game"), (TUX_DATA, "data")],
        ["--renderer", "sdl", "--disable-sound", "--disable-music", "--datadir", "{}/data"],
        [[]] + [["{}/data/levels/" + level + ".stl"] for level in TUX_LEVELS],
    ),
}


class Run:
    """What a session has read: blocks with milliseconds from its first read of content."""

    def __init__(self, trace, front, frame):
        self.trace = trace
        items = read_items(trace)
        start = next(time for block, time in items if block not in front)
        self.first = {}
        for block, time in items:
            self.first.setdefault(block, max(time - start, 0))
        self.frame = frame - start


class Bench:
    def __init__(self, product, name, options, folder):
        self.product, self.name, self.options, self.folder = product, name, options, folder
        self.files, self.words, self.sessions = GAMES[name]
        self.image, self.game = folder / "image", folder / "game"

    def build(self):
        self.game.mkdir()
        for source, target in self.files:
            copy = shutil.copytree if Path(source).is_dir() else shutil.copy
            copy(source, self.game / target)
        self.product.tavrin("image", "build", self.game, self.image)
        self.map = read_map(self.image)
        app = json.loads((self.image / "app.json").read_text(encoding="utf-8"))
        n_front = app["disk"]["sizeMnt"] // BLOCK
        self.front = {raw for raw, zqf in enumerate(self.map) if zqf < n_front}

    def play(self, number, words):
        """Plays a session from the drive, and gives what it has read."""
        trace, home, frame = (self.folder / f"{what}{number}" for what in ("trace", "home", "frame"))
        home.mkdir()
        lab.drop_caches()
        self.product.tavrin("mount", self.image, "--trace", trace)
        try:
            top = self.product.find_drive(self.image)
            environment = dict(os.environ, HOME=str(home), XDG_DATA_HOME=str(home), SDL_AUDIODRIVER="dummy",
                               DISPLAY=self.options.display, TAVRIN_FIRST_FRAME=str(frame),
                               LD_PRELOAD=str(self.options.build / "bench/support/libfirst_frame.so"))  # fmt: skip
            line = [str(top / "game")] + [word.format(top) for word in self.words + words]
            with open(self.folder / f"log{number}", "wb") as log:
                with contextlib.suppress(subprocess.TimeoutExpired):
                    subprocess.run(line, env=environment, stdout=log, stderr=log, timeout=PLAY_S, check=False)
        finally:
            self.product.tavrin("umount", self.image)
        if not frame.exists():
            raise RuntimeError(f"{self.name} {' '.join(words)}: no frame; {(self.folder / f'log{number}').read_text()}")
        return Run(trace, self.front, frame.stat().st_mtime_ns // 1_000_000)

    def judge(self, number, runs):
        """The figures of the run that is held out."""
        held = runs[number]
        merged, index = self.folder / f"merged{number}", self.folder / f"index{number}"
        self.product.tavrin("trace", "merge", merged, *(run.trace for run in runs if run is not held))
        self.product.tavrin("image", "order", self.image, merged, index)
        named = {block for block, _ in read_items(merged)}
        info = self.product.tavrin("image", "info", index, "--speed", self.options.link, "--json")
        at_start = json.loads(info)["forecast"]["sizeInit"]
        order = read_map(index)
        reads = {raw: time for raw, time in held.first.items() if order[raw] != NO_ENTRY}
        per_ms = self.options.link * 125
        late = sum((order[raw] + 1) * BLOCK > at_start + per_ms * time for raw, time in reads.items())
        there = {raw for raw, zqf in enumerate(order) if zqf < at_start // BLOCK}
        before = [raw for raw, time in reads.items() if time <= held.frame]

        def prefix(entries):
            return (max(entries[raw] for raw in before) + 1) * BLOCK / 1e6

        return (
            len(reads), len(reads.keys() - named), 100 * late / len(reads), at_start / 1e6,
            len(there - reads.keys()) * BLOCK / 1e6, prefix(self.map), prefix(order), len(before) * BLOCK / 1e6,
        )  # fmt: skip

    def measure(self):
        self.build()
        runs = [self.play(number, words) for number, words in enumerate(self.sessions)]
        print(f"\n{self.name}: an order of {len(runs) - 1} runs, the one named held out, {self.options.link} Mbit/s, MB")
        print(f"{'':<34} {'reads':>7} {'not':>6} {'under-':>7} {'at':>7} {'never':>7} {'first frame':>23}")
        print(f"{'':<34} {'':>7} {'named':>6} {'flows':>7} {'start':>7} {'used':>7} {'RAW':>7} {'order':>7} {'read':>7}")

        def row(name, values):
            reads, missing, late, *sizes = values
            print(f"{name:<34} {reads:>7.0f} {missing:>6.0f} {late:>6.2f}%", *(f"{size:>7.2f}" for size in sizes))

        rows = [self.judge(number, runs) for number in range(len(runs))]
        for words, values in zip(self.sessions, rows, strict=True):
            row("  " + (" ".join(words).replace("{}/data/levels/", "") or "menu"), values)
        means = [statistics.mean(column) for column in zip(*rows, strict=True)]
        row("  mean", means)
        late, unused = means[2], means[4]
        print(f"{self.name}: {late:.2f} % of the reads of a run that is held out would be underflows, "
              f"{unused:.2f} MB were there early and are never used", flush=True)  # fmt: skip


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--link", type=int, default=20, help="Mbit/s; %(default)s")
    parser.add_argument("--games", nargs="*", choices=GAMES, default=list(GAMES))
    build = Path(__file__).resolve().parents[2] / "build/bench"
    parser.add_argument("--build", type=Path, default=build, help="where the programs are; %(default)s")
    parser.add_argument("--dir", type=Path, default=Path(tempfile.gettempdir()), help="where files go; %(default)s")
    parser.add_argument("--only", default="", help="for the other benchmarks: this one has the name \"held out\"")
    # What else is meant for the others has no meaning here.
    options, _ = parser.parse_known_args()
    if not any(part in "held out" for part in options.only.split("|")):
        return
    lab.need_root()
    lab.end_by_exception()
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-order-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        options.display = stack.enter_context(screen())
        for name in options.games:
            missing = [source for source, _ in GAMES[name][0] if not Path(source).exists()]
            if missing:
                print(f"left out: {name}: not installed here: {', '.join(missing)}")
                continue
            below = folder / name
            below.mkdir()
            with Product(options.build, below / "product") as product:
                Bench(product, name, options, below).measure()
            shutil.rmtree(below)


if __name__ == "__main__":
    main()
