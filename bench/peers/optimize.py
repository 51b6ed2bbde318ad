#!/usr/bin/env python3
"""An installed image brought to another order of its blocks, against a copy of the file.

    bench/peers/optimize.py [--rounds N] [--size MIB] [--only NAME] [--build DIR] [--dir DIR]

An image of random bytes is brought to orders of several kinds by `image optimize`, in place, and as a partial image by
a copy; `cp` copies the same file in the same round. Both sides end with their bytes on the device (`sync -f` after
`cp`). Values are medians of the rounds. Times are ratios to `cp`. Bytes are those that reach the device, without the
new map, divided by those of the blocks out of place; nothing else should write to it meanwhile. Beside them stands what
the system counts for the process: where the page cache holds a file in large folios, it counts a whole one for each
block that is written in it. Memory is the most that the process had. `cold` rounds begin with nothing of the image in
memory; they need root, and are left out without it.
"""

import argparse
import array
import hashlib
import json
import os
import random
import shutil
import statistics
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
from traces import BLOCK, read_app, read_map  # noqa: E402

RUN = 50
GOALS = {  # (bytes, time), as ratios
    "runs of 50": (1.2, 2.2),
    "single blocks": (1.2, 3.5),
    "exchange": (1.6, None),
    "reversal": (1.6, None),
}


def orders(n, rng):
    """For each kind of order: where the block is now that belongs at a position."""
    runs = [list(range(first, min(first + RUN, n))) for first in range(0, n, RUN)]
    rng.shuffle(runs)
    uneven, at = [], 0
    while at < n:
        length = rng.randint(1, 2 * RUN)
        uneven.append(list(range(at, min(at + length, n))))
        at += length
    rng.shuffle(uneven)
    single = list(range(n))
    rng.shuffle(single)
    pairs = [i ^ 1 if i ^ 1 < n else i for i in range(n)]
    return {
        "runs of 50": [block for run in runs for block in run],
        "uneven runs": [block for run in uneven for block in run],
        "single blocks": single,
        "exchange": pairs,
        "reversal": list(range(n - 1, -1, -1)),
        "rotation": list(range(n // 3, n)) + list(range(n // 3)),
    }


def write_index(folder, image, order):
    """An index folder that asks for that order of the image."""
    old = read_map(image)
    place = array.array("Q", bytes(8 * len(order)))
    for to, source in enumerate(order):
        place[source] = to
    new = array.array("Q", (place[entry] for entry in old))
    folder.mkdir()
    (folder / "img.idx").write_bytes(new.tobytes())
    shutil.copy(image / "img.json", folder)
    app = read_app(image)
    app["checksums"]["idx"] = hashlib.md5(new.tobytes()).hexdigest()
    app["checksums"].pop("zqf", None)
    (folder / "app.json").write_text(json.dumps(app), encoding="utf-8")


def device_bytes(folder):
    """What has been written to the disk of a folder so far."""
    device = os.stat(folder).st_dev
    stat = Path(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}/stat").read_text(encoding="utf-8")
    return int(stat.split()[6]) * 512


def copy_seconds(image, folder):
    target = folder / "copy"
    start = time.monotonic()
    lab.run("cp", image / "img.zqf", target)
    lab.run("sync", "-f", target)
    seconds = time.monotonic() - start
    target.unlink()
    return seconds


def warm(file):
    with open(file, "rb") as image:
        while image.read(1 << 24):
            pass


def make_cold():
    os.sync()
    Path("/proc/sys/vm/drop_caches").write_text("3", encoding="utf-8")


class Bench:
    def __init__(self, client, folder, size):
        self.client, self.folder = client, folder
        source = folder / "source"
        source.mkdir()
        with open(source / "data", "wb") as data:
            for _ in range(size):
                data.write(os.urandom(1 << 20))
        self.image = folder / "image"
        lab.run(client, "content", "create", source, self.image)
        shutil.rmtree(source)
        self.n = size * (1 << 20) // BLOCK

    def prepare(self, is_cold):
        os.sync()
        if is_cold:
            make_cold()
        else:
            warm(self.image / "img.zqf")

    def in_place(self, order, is_cold):
        """Ratios to cp and, two times, to the bytes out of place; the memory beyond 16 bytes for each block."""
        index = self.folder / "index"
        write_index(index, self.image, order)
        self.prepare(is_cold)
        copied = copy_seconds(self.image, self.folder)
        self.prepare(is_cold)
        os.sync()
        before = device_bytes(self.folder)
        seconds, counted, memory = lab.timed([self.client, "image", "optimize", self.image, index, "--consume", "--quiet"])
        os.sync()
        written = device_bytes(self.folder) - before
        moved = sum(1 for to, source in enumerate(order) if to != source) * BLOCK
        return seconds / copied, (written - 8 * self.n) / moved, counted / moved, memory - 16 * self.n

    def copied(self, order, is_cold):
        """The speed by a copy, as a ratio to cp."""
        whole, part = self.image / "img.zqf", self.folder / "part"
        shutil.copytree(self.image, part)
        os.truncate(part / "img.zqf", whole.stat().st_size - BLOCK)
        index = self.folder / "index"
        # All that is there stays there: the block that is missing comes last.
        order = [block for block in order if block != self.n - 1] + [self.n - 1]
        order = [block for block in order if block != self.n - 2][:-1] + [self.n - 2, self.n - 1]
        write_index(index, part, order)
        self.prepare(is_cold)
        copied = copy_seconds(part, self.folder)
        if not is_cold:
            warm(part / "img.zqf")
        seconds, _, _ = lab.timed([self.client, "image", "optimize", part, index, "--consume", "--quiet"])
        shutil.rmtree(part)
        return copied / seconds


def show(name, times, written, counted, memory, goal):
    wanted = "" if goal is None else f"  (goals: bytes {goal[0]}, time {goal[1] or '-'})"
    print(f"{name:16} {statistics.median(times):6.2f} of cp's time, {statistics.median(written):5.2f} of the bytes "
          f"(counted {statistics.median(counted):.2f}), 16 bytes a block and {statistics.median(memory) / 2**20:5.0f} MiB{wanted}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--size", type=int, default=2048, help="MiB of the image")
    parser.add_argument("--only", default="", help="kinds of orders whose name holds this")
    parser.add_argument("--build", type=Path, default=Path(__file__).resolve().parents[2] / "build/bench")
    parser.add_argument("--dir", type=Path, default=None, help="folder for the images")
    options = parser.parse_args()
    lab.end_by_exception()
    with tempfile.TemporaryDirectory(dir=options.dir, prefix="tavrin-optimize-") as folder:
        bench = Bench(options.build / "bin/tavrin", Path(folder), options.size)
        for name in orders(2, random.Random(1)):
            if options.only not in name:
                continue
            for is_cold in (False, True) if os.geteuid() == 0 else (False,):
                rounds = 1 if is_cold else options.rounds
                results = [bench.in_place(orders(bench.n, random.Random(seed))[name], is_cold) for seed in range(rounds)]
                show(name + (", cold" if is_cold else ""), *zip(*results), None if is_cold else GOALS.get(name))
        if options.only in "runs of 50":
            speeds = [bench.copied(orders(bench.n, random.Random(seed))["runs of 50"], False)
                      for seed in range(options.rounds)]
            print(f"copy, runs of 50: {statistics.median(speeds):.2f} of cp's speed  (goal: 0.7)")


if __name__ == "__main__":
    main()
