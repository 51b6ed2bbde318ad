#!/usr/bin/env python3
"""A mounted drive against the kernel alone and against other programs that serve an image as a file.

    bench/peers/drive.py [--size MIB] [--rounds N] [--only NAME] [--build DIR] [--dir DIR]

Each row says who serves our drive. "by kernel": a complete image with EROFS, as it is mounted where nothing else is
asked for. "by service": the drive service, which serves what the kernel can't. It is given the complete EROFS, too,
with a write layer that stays empty. A drive that is served by somebody else than its row says ends the run.

    erofs                 two large files in runs of 50 blocks, which lie in random order
    ext4                  the same in ext4, which only the service serves
    erofs single blocks   each block for itself, in random order; rows without goals, "as shipped" by whoever it is
    erofs small files     10,000 files of 1 to 64 KiB, in runs of 50 blocks, read once in random order
    erofs doom, supertux  a game in the order of a session that is played for it, and the reads of that session in their
                          own order, without its pauses

Images are complete. Everybody else gets the same volume as one plain file. "kernel alone" mounts that file: EROFS from
the file itself, ext4 through a buffered loop device. "direct loop" is EROFS on a loop device with direct I/O. The
others' files are attached by a loop device, as a user would do it; where the kernel mounts EROFS from them without one,
that is shown too. Warm: what is stored is in the page cache before the mount, the volume is mounted afresh for each
pass, and each block is read once. Cold: nothing is, neither before the mount nor after it. Content is compared by
digest on every side first, of the kernel's drive both ways. Values are medians of passes that all sides make in turn;
each ratio of two of them has its goal. The service's memory after a mount is that of a service which has done nothing
else. What makes the metadata for the kernel is timed by bench_metadata, with 100 GiB. Images must lie on a disk, since
the kernel serves none on a tmpfs. Needs root; what it starts, mounts and writes is gone at the end.
"""

import argparse
import contextlib
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import session_reads  # noqa: E402
from game import medians  # noqa: E402
from product import APP, Product  # noqa: E402
from sides import ALONE, DIRECT, KERNEL, NBDKIT, NO_LOOP, QEMU, SERVICE, SHIPPED, Sides  # noqa: E402
from stored import FIRST, MIB, SECOND, digest_of, scatter, write_large, write_small  # noqa: E402
from traces import read_map  # noqa: E402

RUN = 50
N_RANDOM = 20_000  # different blocks of one pass of random reads
N_SMALL = 10_000
SPARE = 4  # more readers than must be held, since a run at an end of the marked file may be there
N_MOUNTS = 10
WARM, COLD, COOLED = range(3)  # the image is in the page cache, or it isn't, or only at the mount
SETTLED_S = 7  # after a mount the service keeps some of what it took for 5 s


class Bench:
    """One image, the plain file of the same volume, and all sides that can mount them. They are made when a row is
    wanted, below `folder`; `name` begins the names of the rows."""

    kind = "erofs"
    shown_by = (KERNEL, SERVICE, ALONE)  # sides

    def __init__(self, name, folder, table, options):
        self.name, self.folder, self.table, self.options = name, folder, table, options
        self.image, self.partial, self.raw = folder / "image", folder / "partial", folder / "raw/img.raw"
        self.product, self.is_left_out = None, False

    def measure(self):
        """Prints the rows."""
        raise NotImplementedError

    def make(self):
        """Makes the image and the plain file; gives the digests of the files."""
        raise NotImplementedError

    def missing(self):
        """What it needs and this machine hasn't got."""
        return []

    def is_wanted(self, *rows):
        """Whether one of them is, for which all is made then."""
        if self.is_left_out or not any(self.options.only in f"{self.name} {row}" for row in rows):
            return False
        if missing := self.missing():
            self.is_left_out = True
            print(f"left out: {self.name}: not installed here: {', '.join(missing)}", flush=True)
            return False
        if self.product is None:
            self.folder.mkdir()
            self.product = Product(self.options.build, self.folder / "product")
            self.sides = Sides(self.product, self.kind, self.image, self.raw, self.folder)
            digests = self.make()
            os.sync()
            self.check_content(digests)
        return True

    def close(self):
        if self.product is not None:
            self.product.close()
            shutil.rmtree(self.folder)

    def build(self, write):
        """Makes image and plain file of what `write` puts into a folder; gives what it gives."""
        source = self.folder / "source"
        given = write(source)
        words = ["--fs", self.kind, "--raw", self.raw.parent, "--quiet"]
        self.product.tavrin("image", "build", source, self.image, *words)
        shutil.rmtree(source)
        return given

    def write_list(self, name, lines):
        (self.folder / name).write_bytes(os.fsencode("".join(f"{line}\n" for line in lines)))

    # -- the sides

    @contextlib.contextmanager
    def mounted(self, side, cache=WARM):
        """Gives the folder of the application. The kernel reads past the page cache where it found it empty at the
        mount: so it is emptied, or filled, before that."""
        if cache == COLD:
            lab.drop_caches()
        else:
            lab.read_into_cache(self.sides.stored(side))
        with self.sides.mounted(side) as app:
            if cache != WARM:
                lab.drop_caches()
            yield app

    def check_content(self, digests):
        """What each side shows must be what was put in."""
        for side in self.shown_by:
            for cache in (WARM, COLD) if side in (KERNEL, SHIPPED) else (WARM,):
                with self.mounted(side, cache) as app:
                    for name, expected in digests.items():
                        if digest_of(app / name) != expected:
                            raise RuntimeError(f"{self.name}, {side}: {name} has other content")

    def reader(self, app, words):
        """One pass of the reader, whose second word is a name below the folder of the application."""
        return float(lab.run(self.product.reader, words[0], app / words[1], *words[2:]))

    # -- the rows

    def speed(self, what, unit, words, rows, cache=WARM):
        """`rows`: for each of ours the sides that it is compared with, each with its goal; None without one. All take
        turns."""
        rows = {ours: others for ours, others in rows.items() if self.is_wanted(f"{what}, {ours}")}
        if not rows:
            return

        def measure(side):
            with self.mounted(side, cache) as app:
                return self.reader(app, words)

        sides = list(dict.fromkeys([*rows, *(side for others in rows.values() for side in others)]))
        values = lab.interleave(self.options.rounds, sides, measure)
        for ours, others in rows.items():
            for side, goal in others.items():
                self.table.ratio(f"{self.name} {what}, {ours}", unit, values[ours], side, values[side], goal)

    def held(self, n_held, goal):
        row = f"{n_held} reads held, {SERVICE}"
        if not self.is_wanted(row):
            return
        lab.read_into_cache(self.partial / "img.zqf")
        values = lab.interleave(self.options.rounds, [0, n_held], self.read_beside_held)
        self.table.ratio(f"{self.name} {row}", "IOPS", values[n_held], "none held", values[0], goal)

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

    def mount_times(self, servers, limit_ms, more_ms=None):
        """`more_ms`: by how much the kernel's mount may take longer than the service's."""
        rows = {server: (f"mount time, {server}", f"umount time, {server}") for server in servers}
        if not self.is_wanted(*(row for both in rows.values() for row in both)):
            return
        found = lab.interleave(N_MOUNTS, list(servers), self.time_mount, medians)
        for server, both in rows.items():
            for row, value in zip(both, found[server], strict=True):
                self.table.limit(f"{self.name} {row}", "ms", value, limit_ms)
        if more_ms is not None:
            more = found[KERNEL][0] - found[SERVICE][0]
            self.table.limit(f"{self.name} mount time, {KERNEL} more than {SERVICE}", "ms", more, more_ms)

    def time_mount(self, server):
        """Milliseconds until the first byte is there, and until the drive is gone."""
        # Looks like a change, so nothing that the service has kept from the mount before fits.
        self.image.joinpath("img.idx").chmod(0o644)
        lab.read_into_cache(self.image / "img.zqf")
        mode = self.sides.mode_of(server)
        words = ["mount", self.image, "--mode", mode, "--json"]
        start = time.monotonic()
        path = Path(json.loads(self.product.tavrin(*words))["mountPath"])
        try:
            with open(path / APP / FIRST, "rb", buffering=0) as file:
                file.read(1)
            mounted = time.monotonic() - start
            self.product.find_drive(self.image)
            self.sides.require(server)
        finally:
            start = time.monotonic()
            self.product.unmount(self.image, mode)
            lab.wait_until(lambda: not lab.mounted_at(path), "the drive is gone")
        return mounted * 1e3, (time.monotonic() - start) * 1e3

    def peak_memory(self):
        if self.product is not None and self.product.pid is not None and self.is_wanted("service, peak memory"):
            limit = (9 * len(read_map(self.image)) + 32 * MIB) / MIB
            self.table.limit(f"{self.name} service, peak memory", "MiB", self.product.memory("VmHWM") / MIB, limit)

    def settled_memory(self):
        row = f"service, memory after a mount, {KERNEL}"
        if self.is_wanted(row):
            found = lab.interleave(self.options.rounds, [KERNEL, SERVICE], self.memory_after_mount)
            self.table.limit(f"{self.name} {row}", "MiB", found[KERNEL] / MIB, found[SERVICE] / MIB)

    def memory_after_mount(self, server):
        """That of a service which has done nothing else."""
        with Product(self.options.build, self.folder / "fresh") as product:
            try:
                sides = Sides(product, self.kind, self.image, self.raw, self.folder)
                with sides.mounted(server):
                    time.sleep(SETTLED_S)
                    return product.memory()
            finally:
                shutil.rmtree(product.folder)


class InRuns(Bench):
    """Two large files, stored in runs of 50 blocks."""

    def make(self):
        digests = self.build(lambda source: write_large(source, self.options.size))
        scatter(self.image, RUN, self.partial)
        return digests


class Erofs(InRuns):
    shown_by = (KERNEL, SERVICE, ALONE, DIRECT, NBDKIT, QEMU, *NO_LOOP)

    def measure(self):
        more = dict.fromkeys(NO_LOOP)
        rows = {KERNEL: {ALONE: 0.95}, SERVICE: {ALONE: 0.4, NBDKIT: 4, QEMU: 3, **more}}
        self.speed("sequential", "MiB/s", SEQUENTIAL, rows)
        rows = {KERNEL: {ALONE: 0.85}, SERVICE: {DIRECT: 1.3, NBDKIT: 3, QEMU: 2.2, **more}}
        self.speed("random", "IOPS", random_reads(1), rows)
        self.speed("random, depth 16", "IOPS", random_reads(16), {KERNEL: {ALONE: 0.85}})
        self.speed("cold sequential", "MiB/s", SEQUENTIAL, {KERNEL: {ALONE: 1}, SERVICE: {ALONE: 0.6}}, cache=COLD)
        self.speed("cold after a warm mount", "MiB/s", SEQUENTIAL, {KERNEL: {ALONE: None, SERVICE: None}}, cache=COOLED)
        self.held(200, 0.8)
        self.mount_times([KERNEL, SERVICE], 500, 20)
        self.peak_memory()  # of a service that ends when nothing is mounted for a while
        self.settled_memory()


class Ext4(InRuns):
    kind = "ext4"
    shown_by = (SERVICE, ALONE, NBDKIT, QEMU)

    def measure(self):
        self.speed("sequential", "MiB/s", SEQUENTIAL, {SERVICE: {ALONE: 0.55}})
        self.speed("random", "IOPS", random_reads(1), {SERVICE: {ALONE: 0.65, NBDKIT: 2, QEMU: 1.6}})
        self.speed("random, depth 16", "IOPS", random_reads(16), {SERVICE: {ALONE: 0.5}})
        self.speed("cold sequential", "MiB/s", SEQUENTIAL, {SERVICE: {ALONE: 0.6}}, cache=COLD)
        self.held(100, 0.8)
        self.mount_times([SERVICE], 500)
        self.peak_memory()


class SingleBlocks(Bench):
    """The same files, each block for itself: the worst order that there is, which shows who serves such images best."""

    shown_by = (SHIPPED, SERVICE, ALONE)

    def make(self):
        digests = self.build(lambda source: write_large(source, self.options.size))
        scatter(self.image, 1)
        print(f"{self.name}: as shipped they are served {self.sides.find_shipped()}", flush=True)
        return digests

    def measure(self):
        rows = {SHIPPED: {ALONE: None, SERVICE: None}}
        self.speed("sequential", "MiB/s", SEQUENTIAL, rows)
        self.speed("random", "IOPS", random_reads(1), rows)
        self.speed("cold sequential", "MiB/s", SEQUENTIAL, rows, cache=COLD)
        self.speed("cold after a warm mount", "MiB/s", SEQUENTIAL, rows, cache=COOLED)


class SmallFiles(Bench):
    """Many small files, which are read in random order."""

    def make(self):
        digests = self.build(lambda source: write_small(source, min(N_SMALL, N_SMALL * self.options.size // 1024)))
        scatter(self.image, RUN)
        names = sorted(digests)
        random.Random(4).shuffle(names)
        self.write_list("names", names)
        return digests

    def measure(self):
        words = ["files", "", self.folder / "names"]
        self.speed("all read", "MiB/s", words, {KERNEL: {ALONE: 0.9}})
        self.speed("cold, all read", "MiB/s", words, {KERNEL: {ALONE: None, SERVICE: None}}, cache=COLD)


class Game(Bench):
    """A game in the order of one of its sessions."""

    session = cold_row = cold_goal = None

    def __init__(self, *others):
        super().__init__(*others)
        self.game = session_reads.find_game(*self.session)

    def missing(self):
        return session_reads.missing(self.game)

    def make(self):
        image, raw = self.image, self.raw.parent
        digests, reads, names = session_reads.make(self.game, self.product, self.options, self.folder, image, raw)
        self.write_list("reads", reads)
        self.write_list("names", names)
        return digests

    def measure(self):
        rows = {KERNEL: {SERVICE: 1.25, ALONE: None}}
        self.speed("reads of a session", "MiB/s", ["replay", "", self.folder / "reads"], rows)
        words = ["files", "", self.folder / "names"]
        self.speed(self.cold_row, "MiB/s", words, {KERNEL: {ALONE: self.cold_goal}}, cache=COLD)


class Doom(Game):
    """It has two large files."""

    session = ("doom", "E1M1")
    cold_row, cold_goal = "cold sequential", 1


class Supertux(Game):
    """It has thousands of small files, which no goal is for where nothing is in the page cache."""

    session = ("supertux", "world1/frosted_fields")
    cold_row, cold_goal = "cold, all read", None


BENCHES = {
    "erofs": Erofs,
    "ext4": Ext4,
    "erofs single blocks": SingleBlocks,
    "erofs small files": SmallFiles,
    "erofs doom": Doom,
    "erofs supertux": Supertux,
}
SEQUENTIAL = ["sequential", FIRST]


def random_reads(n_threads):
    return ["random", FIRST, str(N_RANDOM), "1", str(n_threads)]


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
    options.build = options.build.resolve()
    return options


def main():
    options = parse_arguments()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-peers-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        for name, make in BENCHES.items():
            bench = make(name, folder / name.replace(" ", "-"), table, options)
            with contextlib.closing(bench):
                bench.measure()
    table.close()


if __name__ == "__main__":
    main()
