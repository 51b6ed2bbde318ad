#!/usr/bin/env python3
"""A mounted drive against the kernel alone and against other programs that serve an image as a file.

    bench/peers/drive.py [--size MIB] [--rounds N] [--only NAME] [--build DIR] [--dir DIR]

The image is complete and lies in runs of 50 blocks in random order. Everybody else gets the same volume as one
plain file. "kernel alone" mounts that file: EROFS from the file itself, ext4 through a buffered loop device.
"direct loop" is EROFS on a loop device with direct I/O. The others' files are attached by a loop device, as a user
would do it; where the kernel mounts EROFS from them without one, that is shown too. Warm: what is stored is in the page cache, the volume is
mounted afresh for each pass, and each block is read once. Cold: nothing is. Content is compared by digest on every
side first. Values are medians of passes that all sides make in turn; each ratio of two of them has its goal. Needs root; what it starts, mounts and writes is gone at the end.
"""

import argparse
import array
import contextlib
import functools
import hashlib
import json
import mmap
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import peers  # noqa: E402
from product import APP, Product  # noqa: E402

BLOCK, RUN = 4096, 50
MIB = 1 << 20
N_RANDOM = 20_000  # different blocks of one pass of random reads
SPARE = 4  # more readers than must be held, since a run at an end of the marked file may be there
MARK = b"held back"  # begins each block of the file that a partial image lacks
FIRST, SECOND = "first.bin", "second.bin"


def write_source(folder, size):
    """Two files of random bytes, the second marked; gives their digests."""
    source = random.Random(1)
    digests = {}
    folder.mkdir()
    for name, size_mib in ((FIRST, size * 3 // 4), (SECOND, size - size * 3 // 4)):
        digest = hashlib.md5()
        with open(folder / name, "wb") as file:
            for _ in range(size_mib):
                data = bytearray(source.randbytes(MIB))
                if name == SECOND:
                    for at in range(0, MIB, BLOCK):
                        data[at : at + len(MARK)] = MARK
                digest.update(data)
                file.write(data)
        digests[name] = digest.hexdigest()
    return digests


def write_records(image, idx_bytes, app):
    (image / "img.idx").write_bytes(idx_bytes)
    app["checksums"]["idx"] = hashlib.md5(idx_bytes).hexdigest()
    (image / "app.json").write_text(json.dumps(app), encoding="utf-8")


def scatter(image, partial):
    """Stores the image in runs in random order, those that only the marked file has after all others; makes the
    partial image of the part before these. Gives the number of RAW blocks."""
    idx = array.array("Q", (image / "img.idx").read_bytes())
    app = json.loads((image / "app.json").read_text(encoding="utf-8"))
    new_place = array.array("Q", bytes(app["disk"]["sizeZqf"] // BLOCK * 8))
    with open(image / "img.zqf", "rb") as old, open(image / "img.zqf.scattered", "wb") as new:
        with mmap.mmap(old.fileno(), 0, prot=mmap.PROT_READ) as data:
            kept, held_back = [], []
            for start in range(0, len(new_place), RUN):
                blocks = range(start, min(start + RUN, len(new_place)))
                marked = all(data[b * BLOCK : b * BLOCK + len(MARK)] == MARK for b in blocks)
                (held_back if marked else kept).append(blocks)
            order = random.Random(2)
            order.shuffle(kept)
            order.shuffle(held_back)
            n_kept = sum(map(len, kept))
            for zqf_idx, block in enumerate(block for run in kept + held_back for block in run):
                new_place[block] = zqf_idx
            for run in kept + held_back:
                new.write(data[run.start * BLOCK : run.stop * BLOCK])
    os.replace(image / "img.zqf.scattered", image / "img.zqf")
    none = (1 << 64) - 1
    scattered = array.array("Q", (none if zqf_idx == none else new_place[zqf_idx] for zqf_idx in idx)).tobytes()
    app["checksums"].pop("zqf", None)
    app["disk"]["sizeMnt"] = app["disk"]["sizeZqf"]
    write_records(image, scattered, app)

    partial.mkdir()
    shutil.copy(image / "img.json", partial)
    shutil.copy(image / "img.zqf", partial)
    os.truncate(partial / "img.zqf", n_kept * BLOCK)
    app["disk"]["sizeMnt"] = n_kept * BLOCK
    write_records(partial, scattered, app)
    return len(idx)


class Bench:
    """One file system: the image, the plain file, and all sides that can mount them."""

    def __init__(self, product, kind, folder, table, options):
        self.product, self.kind, self.folder, self.table, self.options = product, kind, folder, table, options
        self.image, self.partial, self.raw = folder / "image", folder / "partial", folder / "raw/img.raw"
        self.sides = {
            "ours": lambda: product.mounted(self.image),
            "kernel alone": self.kernel_alone,
            "direct loop": self.direct_loop,
            "nbdkit": self.nbdkit,
            "qemu": self.qemu,
            "nbdkit, no loop": functools.partial(self.nbdkit, through_loop=False),
            "qemu, no loop": functools.partial(self.qemu, through_loop=False),
        }
        if kind != "erofs":
            for side in ("direct loop", "nbdkit, no loop", "qemu, no loop"):
                del self.sides[side]

    def prepare(self, source):
        raw = self.raw.parent
        self.product.tavrin("image", "build", source, self.image, "--fs", self.kind, "--raw", raw, "--quiet")
        self.n_raw = scatter(self.image, self.partial)
        os.sync()

    # -- the sides: each is mounted during a `with`, which gives the folder of the application

    def attach(self, stack, file, direct=False, through_loop=False):
        if self.kind == "erofs" and not through_loop:
            return stack.enter_context(lab.volume(file, self.kind, self.folder / "volume")) / APP
        device = stack.enter_context(lab.loop(file, direct))
        return stack.enter_context(lab.volume(device, self.kind, self.folder / "volume")) / APP

    @contextlib.contextmanager
    def kernel_alone(self):
        with contextlib.ExitStack() as stack:
            yield self.attach(stack, self.raw)

    @contextlib.contextmanager
    def direct_loop(self):
        with contextlib.ExitStack() as stack:
            yield self.attach(stack, self.raw, direct=True, through_loop=True)

    @contextlib.contextmanager
    def nbdkit(self, through_loop=True):
        with peers.nbdkit_file(self.folder, "file", self.raw) as file, contextlib.ExitStack() as stack:
            yield self.attach(stack, file, through_loop=through_loop)

    @contextlib.contextmanager
    def qemu(self, through_loop=True):
        blockdev = f"driver=file,node-name=f,filename={self.raw},read-only=on"
        with peers.qemu_file(self.folder, "f", blockdev) as file, contextlib.ExitStack() as stack:
            yield self.attach(stack, file, direct=True, through_loop=through_loop)

    # -- the figures

    def read(self, side, words, cold=False):
        """One pass of the reader."""
        if not cold:
            lab.read_into_cache(self.image / "img.zqf" if side == "ours" else self.raw)
        with self.sides[side]() as app:
            if cold:
                lab.drop_caches()
            return self.reader(app, words)

    def reader(self, app, words):
        return float(lab.run(self.product.reader, words[0], app / FIRST, *words[1:]))

    def speed(self, name, unit, words, goals, also=(), cold=False):
        if not self.wanted(name):
            return
        sides = ["ours", *goals, *also]
        values = lab.interleave(self.options.rounds, sides, lambda side: self.read(side, words, cold))
        for side, goal in goals.items():
            self.table.ratio(f"{self.kind} {name}", unit, values["ours"], side, values[side], goal)
        for side in sides[1 + len(goals) :]:
            self.table.ratio(f"{self.kind} {name}", unit, values["ours"], side, values[side])

    def wanted(self, name):
        return self.options.only in f"{self.kind} {name}"

    def check_content(self, digests):
        """What each side shows must be what was put in."""
        for side, mounted in self.sides.items():
            with mounted() as app:
                for name, expected in digests.items():
                    with open(app / name, "rb") as file:
                        if hashlib.file_digest(file, "md5").hexdigest() != expected:
                            raise RuntimeError(f"{self.kind}, {side}: {name} has other content")

    def held(self, n_held, goal):
        name = f"{n_held} reads held"
        if not self.wanted(name):
            return
        lab.read_into_cache(self.partial / "img.zqf")
        values = lab.interleave(self.options.rounds, [0, n_held], self.read_beside_held)
        self.table.ratio(f"{self.kind} {name}", "IOPS", values[n_held], "none held", values[0], goal)

    def read_beside_held(self, n_held):
        waiting = None
        try:
            with self.product.mounted(self.partial) as app:
                if n_held:
                    words = [self.product.reader, "wait", app / SECOND, str(n_held + SPARE)]
                    waiting = subprocess.Popen(words, stdout=subprocess.PIPE, text=True)
                    self.wait_until_held(n_held)
                value = self.reader(app, random_reads(1))
                if n_held and self.product.status(self.partial)["held"] < n_held:
                    raise RuntimeError("some reads were not held to the end")
            if n_held and int(waiting.communicate(timeout=20)[0]) > SPARE:
                raise RuntimeError("a read of a missing block got data")
            return value
        finally:
            if waiting and waiting.poll() is None:
                waiting.kill()
                waiting.wait()

    def wait_until_held(self, n_held):
        limit = time.monotonic() + 20
        while (found := self.product.status(self.partial)["held"]) < n_held:
            if time.monotonic() > limit:
                raise RuntimeError(f"only {found} of {n_held} reads are held")
            time.sleep(0.05)

    def mount_times(self, limit_ms):
        if not self.wanted("mount time"):
            return
        mount, umount = [], []
        for _ in range(10):
            start = time.monotonic()
            path = Path(json.loads(self.product.tavrin("mount", self.image, "--mode", "ro", "--json"))["mountPath"])
            try:
                with open(path / APP / FIRST, "rb", buffering=0) as file:
                    file.read(BLOCK)
                mount.append(time.monotonic() - start)
            finally:
                start = time.monotonic()
                self.product.tavrin("umount", self.image)
                lab.wait_until(lambda: not lab.mounted_at(path), "the drive is gone")
            umount.append(time.monotonic() - start)
        self.table.limit(f"{self.kind} mount time", "ms", statistics.median(mount) * 1e3, limit_ms)
        self.table.limit(f"{self.kind} umount time", "ms", statistics.median(umount) * 1e3, limit_ms)

    def memory(self):
        if self.product.pid is not None and self.wanted("memory"):
            limit = (9 * self.n_raw + 32 * MIB) / MIB
            self.table.limit(f"{self.kind} service memory", "MiB", self.product.peak_memory() / MIB, limit)


def random_reads(n_threads):
    return ["random", str(N_RANDOM), "1", str(n_threads)]


def measure_erofs(bench):
    no_loop = ["nbdkit, no loop", "qemu, no loop"]
    bench.speed("sequential", "MiB/s", ["sequential"], {"kernel alone": 0.4, "nbdkit": 4, "qemu": 3}, no_loop)
    bench.speed("random", "IOPS", random_reads(1), {"direct loop": 1.3, "nbdkit": 3, "qemu": 2.2}, no_loop)
    bench.speed("cold sequential", "MiB/s", ["sequential"], {"kernel alone": 0.6}, cold=True)
    bench.held(200, 0.8)
    bench.mount_times(500)
    bench.memory()


def measure_ext4(bench):
    bench.speed("sequential", "MiB/s", ["sequential"], {"kernel alone": 0.55})
    bench.speed("random", "IOPS", random_reads(1), {"kernel alone": 0.65, "nbdkit": 2, "qemu": 1.6})
    bench.speed("random, depth 16", "IOPS", random_reads(16), {"kernel alone": 0.5})
    bench.speed("cold sequential", "MiB/s", ["sequential"], {"kernel alone": 0.6}, cold=True)
    bench.held(100, 0.8)
    bench.mount_times(500)
    bench.memory()


def parse_arguments():
    root = Path(__file__).resolve().parents[2]
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=1024, metavar="MIB", help="content of the image (1024)")
    parser.add_argument("--rounds", type=int, default=5, metavar="N", help="passes of each side (5)")
    parser.add_argument("--only", default="", metavar="NAME", help="figures whose name has this, such as 'ext4 random'")
    parser.add_argument("--build", type=Path, default=root / "build/bench", metavar="DIR", help="build folder (build/bench)")
    parser.add_argument("--dir", type=Path, metavar="DIR", help="where the images go (the folder for temporary files)")
    options = parser.parse_args()
    if options.size < 64 or options.rounds < 1:
        parser.error("at least 64 MiB and one round")
    return options


def main():
    options = parse_arguments()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-peers-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        digests = write_source(folder / "source", options.size)
        kinds = {"erofs": measure_erofs, "ext4": measure_ext4}
        named = [kind for kind in kinds if kind in options.only]
        for kind in named or kinds:
            below = folder / kind
            below.mkdir()
            product = Product(options.build, below / "product")
            try:
                bench = Bench(product, kind, below, table, options)
                bench.prepare(folder / "source")
                bench.check_content(digests)
                kinds[kind](bench)
            finally:
                product.close()
            shutil.rmtree(below)
    table.close()


if __name__ == "__main__":
    main()
