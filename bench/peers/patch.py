#!/usr/bin/env python3
"""An update of an installed image by a patch, against what one would take instead.

    bench/peers/patch.py [--rounds N] [--only NAME] [--build DIR] [--dir DIR] [--cache DIR]

Two versions of a game's folder of 400 MB, the second made from the first by a script, and two releases of a program
as they were published. `patch create` makes a patch from their images; the peers work on tar files of the same folders:
xdelta3, zstd --patch-from, zsync's transfer with its control file, casync's chunks that the old version hasn't with its
index, and `hdiffz` over both with the same compression. In each round the patch is applied to a copy of the old image,
from a folder and from a server, and what came out is compared with the new image. Times are medians of the rounds.

An image of random bytes with a third of its blocks new shows the speed of the work where no tool runs, as a ratio to
MD5 on one thread. Memory is the most that the client had. Extra room is the most that the image's folder took beyond
what it has before and after; it is sampled.

Packages of games and programs are fetched into --cache, unless they are there.
"""

import argparse
import contextlib
import hashlib
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import versions  # noqa: E402
from link import Server  # noqa: E402
from traces import BLOCK, NO_ENTRY, read_map  # noqa: E402

LEVELS = {"LZMA": "lzma2-9", "ZSTD": "zstd-21"}
SERVER_RATE, FAST_RATE = 2_500_000, 12_500_000  # bytes a second
LATENCY_MS = 20
SYNTHETIC_MIB = 1024


def size_of(path):
    return path.stat().st_size


def tree_size(folder):
    return sum(size_of(path) for path in folder.rglob("*") if path.is_file())


def allocated(folder):
    """Bytes that the files of a folder take, whatever comes and goes there. One with a second name takes no room of its
    own."""
    total = 0
    for at, _, names in os.walk(folder):
        for name in names:
            with contextlib.suppress(FileNotFoundError):
                file = os.lstat(os.path.join(at, name))
                total += file.st_blocks * 512 if file.st_nlink == 1 else 0
    return total


class Room:
    """The most that a folder takes during the `with`, beyond what it has before and after."""

    def __init__(self, folder):
        self.folder, self.extra = folder, 0

    def __enter__(self):
        self.before = self.most = allocated(self.folder)
        self.ends = threading.Event()
        self.thread = threading.Thread(target=self.watch)
        self.thread.start()
        return self

    def watch(self):
        while not self.ends.wait(0.02):
            self.most = max(self.most, allocated(self.folder))

    def __exit__(self, *_):
        self.ends.set()
        self.thread.join()
        self.extra = self.most - max(self.before, allocated(self.folder))


def blocks_of(image):
    """The blocks that an image includes, in RAW order, each with its index. One at a time: what is measured begins with
    the memory of this process."""
    with open(image / "img.zqf", "rb") as file:
        for item, slot in enumerate(read_map(image)):
            if slot != NO_ENTRY:
                yield item, os.pread(file.fileno(), BLOCK, slot * BLOCK)


def content_digest(image):
    """Of all blocks, whatever their places."""
    total = hashlib.md5()
    for item, block in blocks_of(image):
        total.update(item.to_bytes(8, "little") + block)
    return total.hexdigest()


def timed_run(*words):
    start = time.monotonic()
    lab.run(*words)
    return time.monotonic() - start


class Case:
    """Two versions of one folder, their images and tar files."""

    def __init__(self, name, make, client, folder, cache):
        self.name, self.client, self.folder = name, client, folder
        folder.mkdir()
        self.folders = make(folder, cache)
        self.tars, self.images = [], []
        for number, version in enumerate(self.folders, 1):
            tar, image = folder / f"{number}.tar", folder / f"image{number}"
            lab.run("tar", "--sort=name", "--mtime=2024-01-01", "--owner=0", "--group=0", "--numeric-owner", "-cf", tar,
                    "-C", version, ".")
            lab.run(client, "image", "build", version, image, "--quiet")
            self.tars.append(tar)
            self.images.append(image)
        self.digest = content_digest(self.images[1])

    # --- sizes

    def xdelta3(self):
        target = self.folder / "xdelta"
        lab.run("xdelta3", "-9", "-S", "lzma", "-B", str(1 << 29), "-f", "-e", "-s", *self.tars, target)
        return size_of(target)

    def zstd(self):
        target, best = self.folder / "zstd", None
        for level in ("-3", "-19"):
            lab.run("zstd", "-q", "-f", level, "--long=30", f"--patch-from={self.tars[0]}", self.tars[1], "-o", target)
            best = min(best or size_of(target), size_of(target))
        return best

    def zsync(self):
        """Control file and the bytes of the blocks that the old file hasn't."""
        control = self.folder / "2.tar.zsync"
        lab.run("zsyncmake", "-u", "http://127.0.0.1:1/2.tar", "-o", control, self.tars[1])
        said = lab.run("sh", "-c", f"cd {self.folder} && zsync -i {self.tars[0]} -o got {control} 2>&1 || true")
        # Without a server it tells how much it has, and gives up.
        done = float(re.findall(r"([0-9.]+)% complete", said)[-1]) / 100
        return size_of(control) + int((1 - done) * size_of(self.tars[1]))

    def casync(self):
        stores = []
        for number, version in enumerate(self.folders, 1):
            store, index = self.folder / f"store{number}", self.folder / f"{number}.caidx"
            lab.run("casync", "make", "--without=all", f"--store={store}", index, version)
            stores.append({path.name: size_of(path) for path in store.rglob("*.cacnk")})
        new = sum(size for name, size in stores[1].items() if name not in stores[0])
        return new + size_of(self.folder / "2.caidx")

    def hdiffz(self, level, old=None, new=None):
        """Bytes and seconds over both files, the tar files where none are given."""
        target = self.folder / "hdiffz"
        seconds = timed_run(self.client.parent / "hdiffz", "-m-6", f"-c-{level}", "-p-4", "-f", old or self.tars[0],
                            new or self.tars[1], target)
        return size_of(target), seconds

    def sizes(self, table):
        peers = {"xdelta3": self.xdelta3, "zstd": self.zstd, "zsync": self.zsync, "casync": self.casync}
        found = {name: peer() for name, peer in peers.items()}
        print("  " + ", ".join(f"{name} {size:,}" for name, size in found.items()) + " bytes")
        for compression, level in LEVELS.items():
            patch = self.folder / compression
            lab.run(self.client, "patch", "create", *self.images, patch, "--compression", compression, "--quiet")
            ours, (tool, _) = tree_size(patch), self.hdiffz(level)
            best = min(found, key=found.get)
            print(f"  {compression}: {ours:,} bytes, hdiffz over both tars {tool:,}")
            if compression == "LZMA":
                table.limit(f"{self.name}, to the best ({best})", "", ours / found[best], 1)
            table.limit(f"{self.name}, {compression}, to hdiffz", "", ours / tool, 1.1)

    # --- times

    def changed_bytes(self):
        """Files of the blocks that only one of both has."""
        contents = [{hashlib.md5(block).digest() for _, block in blocks_of(image)} for image in self.images]
        files = [self.folder / "changed1", self.folder / "changed2"]
        for side, name in enumerate(files):
            with open(name, "wb") as file:
                for _, block in blocks_of(self.images[side]):
                    if hashlib.md5(block).digest() not in contents[1 - side]:
                        file.write(block)
        return files

    def creation(self, table, rounds):
        changed = self.changed_bytes()
        ours, bounds, memory = [], [], 0
        for _ in range(rounds):
            patch = self.folder / "again"
            seconds, _, memory = lab.timed([self.client, "patch", "create", *self.images, patch, "--quiet"])
            shutil.rmtree(patch)
            ours.append(seconds)
            tool = self.hdiffz(LEVELS["LZMA"], *changed)[1]
            bounds.append(2 * (tool + timed_run("md5sum", *(image / "img.zqf" for image in self.images))))
        table.limit(f"{self.name}, create", "s", statistics.median(ours), statistics.median(bounds))
        print(f"  the most memory of the client or a tool: {memory / 1e6:.0f} MB")

    def apply(self, patch, words=()):
        """Seconds, extra room and the report of one application, whose result is right."""
        image = self.folder / "applied"
        shutil.copytree(self.images[0], image)
        os.sync()
        with Room(image) as room:
            start = time.monotonic()
            report = json.loads(lab.run(self.client, "patch", "apply", image, patch, "--json", *words))
            seconds = time.monotonic() - start
        if content_digest(image) != self.digest:
            raise RuntimeError("the patched image isn't the new version")
        shutil.rmtree(image)
        return seconds, room.extra, report

    def applications(self, table, rounds):
        patch = self.folder / "LZMA"
        local = statistics.median(self.apply(patch)[0] for _ in range(rounds))
        download = tree_size(patch) / SERVER_RATE
        remote = []
        for _ in range(rounds):
            with Server(self.client, patch, SERVER_RATE, LATENCY_MS) as server:
                remote.append(self.apply(server.url)[0])
        print(f"  from a folder {local:.2f} s, download {download:.2f} s, from a server {statistics.median(remote):.2f} s")
        table.limit(f"{self.name}, from a server", "", statistics.median(remote) / max(local, download), 1.2)


class Synthetic(Case):
    """An image of random bytes, and a version with a third of its blocks new."""

    def __init__(self, client, folder):
        self.name, self.client, self.folder = "random bytes", client, folder
        folder.mkdir()
        self.images = []
        data = bytearray(os.urandom(SYNTHETIC_MIB << 20))
        for number in (1, 2):
            source, image = folder / "source", folder / f"image{number}"
            source.mkdir()
            (source / "data").write_bytes(data)
            lab.run(client, "content", "create", source, image)
            shutil.rmtree(source)
            self.images.append(image)
            for at in range(0, len(data), 300 * BLOCK):
                data[at : at + 100 * BLOCK] = os.urandom(100 * BLOCK)
        self.digest = content_digest(self.images[1])

    def speed(self, table, rounds):
        patch = self.folder / "patch"
        lab.run(self.client, "patch", "create", *self.images, patch, "--compression", "REPLACE", "--quiet")
        changed = size_of(patch / "patch.data")
        ratios, rooms = [], []
        for _ in range(rounds):
            md5 = size_of(self.images[0] / "img.zqf") / timed_run("md5sum", self.images[0] / "img.zqf")
            seconds, room, report = self.apply(patch)
            # A part's stream, its new data made and put into the image.
            ratios.append(3 * changed / seconds / md5)
            rooms.append(room)
        download = tree_size(patch) / FAST_RATE
        with Server(self.client, patch, FAST_RATE, LATENCY_MS) as server:
            remote, room, _ = self.apply(server.url)
        print(f"  from a folder {seconds:.2f} s, download {download:.2f} s, from a server {remote:.2f} s")
        table.limit(f"{self.name}, from a server", "", remote / max(seconds, download), 1.2)
        print(f"  extra room from a server {room / 1e6:.1f} MB of the patch's {changed / 1e6:.1f}")
        table.goal(f"work where no tool runs, to MD5: {statistics.median(ratios):.2f}  goal >= 0.4",
                   statistics.median(ratios) >= 0.4)
        part, maps = 2 * changed / report["parts"], 16 * size_of(self.images[1] / "img.zqf") / BLOCK
        print(f"  extra room {max(rooms) / 1e6:.1f} MB; a part and both maps {(part + maps) / 1e6:.1f} MB")
        image = self.folder / "applied"
        shutil.copytree(self.images[0], image)
        _, _, memory = lab.timed([self.client, "patch", "apply", image, patch, "--quiet"])
        lists = 8 * changed / BLOCK
        table.limit("memory beside maps and lists", "MB", (memory - maps - lists) / 1e6, 64, 0)
        shutil.rmtree(image)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--only", default="", help="cases whose name holds this: game, program, random bytes")
    parser.add_argument("--build", type=Path, default=Path(__file__).resolve().parents[2] / "build/bench")
    parser.add_argument("--dir", type=Path, default=None, help="folder for the images")
    parser.add_argument("--cache", type=Path, default=None, help="folder for what is fetched")
    options = parser.parse_args()
    lab.end_by_exception()
    table = lab.Table()
    client = options.build / "bin/tavrin"
    with tempfile.TemporaryDirectory(dir=options.dir, prefix="tavrin-patch-") as name:
        folder = Path(name)
        cache = options.cache or folder / "cache"
        cache.mkdir(exist_ok=True)
        for name, make in (("game", versions.game), ("program", versions.program)):
            if options.only not in name:
                continue
            try:
                case = Case(name, make, client, folder / name, cache)
            except (OSError, subprocess.CalledProcessError) as error:
                print(f"left out: {name}: its versions can't be had here: {error}", flush=True)
                continue
            print(f"{name}: {size_of(case.tars[0]) / 1e6:.0f} and {size_of(case.tars[1]) / 1e6:.0f} MB of files", flush=True)
            case.sizes(table)
            case.creation(table, options.rounds)
            case.applications(table, options.rounds)
            shutil.rmtree(folder / name)
        if options.only in "random bytes":
            Synthetic(client, folder / "random").speed(table, options.rounds)
    table.close()


if __name__ == "__main__":
    main()
