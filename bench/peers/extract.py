#!/usr/bin/env python3
"""An image that becomes a plain installation, against `cp -a` from the same mounted drive.

    bench/peers/extract.py [--size MIB] [--files N] [--rounds N] [--only NAME] [--build DIR] [--dir DIR]

An image with one large file, and one with many small ones, each with EROFS and with ext4. `content extract --keep`
mounts, copies, brings the copy to the device, gives it its name and unmounts. `cp -a` copies from a drive that is
mounted already, and `sync -f` brings its copy to the device; the mount isn't counted. So the small cost of two mounts
is on our side alone, and shown beside as what an image of one small file takes. The digest isn't stated, as if the
image had been checked before. What is stored is in the page cache, the drive is mounted afresh for each side, and both
copies are compared by digest. Values are medians of rounds that both sides make in turn. Needs root; what it starts,
mounts and writes is gone at the end.
"""

import argparse
import hashlib
import json
import os
import random
import shutil
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
from product import APP, Product  # noqa: E402

MIB = 1 << 20
GOAL = 0.8


def write_large(folder, size):
    source = random.Random(1)
    with open(folder / "large.bin", "wb") as file:
        for _ in range(size):
            file.write(source.randbytes(MIB))


def write_small(folder, n):
    """Files of 0 to 32 KiB, a hundred to a folder."""
    source = random.Random(2)
    for first in range(0, n, 100):
        (folder / f"{first:06}").mkdir()
        for i in range(first, min(first + 100, n)):
            (folder / f"{first:06}" / f"{i}.bin").write_bytes(source.randbytes(source.randrange(32 << 10)))


def digest(folder):
    """One digest of all names and bytes."""
    result = hashlib.md5()
    for path in sorted(folder.rglob("*")):
        result.update(str(path.relative_to(folder)).encode())
        if path.is_file():
            with open(path, "rb") as file:
                while piece := file.read(MIB):
                    result.update(piece)
    return result.hexdigest()


class Bench:
    """One image and its copies."""

    def __init__(self, product, folder, kind, source):
        self.product, self.image, self.out = product, folder / "image", folder / "out"
        product.tavrin("image", "build", source, self.image, "--fs", kind, "--quiet")
        record = self.image / "app.json"
        app = json.loads(record.read_text(encoding="utf-8"))
        app["checksums"].pop("zqf", None)
        record.write_text(json.dumps(app), encoding="utf-8")
        self.n_bytes = sum(path.stat().st_size for path in source.rglob("*") if path.is_file())
        self.digest = digest(source)

    def copy(self, side):
        """Bytes a second."""
        lab.drop_caches()
        lab.read_into_cache(self.image / "img.zqf")
        if side == "ours":
            words = [self.product.client, "content", "extract", self.image, self.out, "--keep", "--quiet"]
            seconds, _, _ = lab.timed([str(word) for word in words], self.product.env)
        else:
            self.out.mkdir()
            with self.product.mounted(self.image) as app:
                copy = 'cp -a "$0" "$1" && sync -f "$1"'
                seconds, _, _ = lab.timed(["/bin/sh", "-c", copy, str(app.parent), str(self.out)])
        if digest(self.out / APP) != self.digest:
            raise RuntimeError(f"the copy of {side} is wrong")
        shutil.rmtree(self.out)
        os.sync()
        return self.n_bytes / seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size", type=int, default=2048, help="MiB of the large file")
    parser.add_argument("--files", type=int, default=20000, help="number of the small ones")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--only", default="", help="images whose name holds this")
    parser.add_argument("--build", type=Path, default=Path(__file__).resolve().parents[2] / "build/bench")
    parser.add_argument("--dir", type=Path, default=None, help="folder for the images")
    options = parser.parse_args()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    sources = {"large file": lambda folder: write_large(folder, options.size),
               "small files": lambda folder: write_small(folder, options.files),
               "one small file": lambda folder: write_small(folder, 1)}
    with tempfile.TemporaryDirectory(dir=options.dir, prefix="tavrin-extract-") as name:
        with Product(options.build, Path(name) / "product") as product:
            for kind in ("erofs", "ext4"):
                for title, write in sources.items():
                    title = f"{title}, {kind}"
                    if options.only not in title:
                        continue
                    folder = Path(name) / "bench"
                    source = folder / "source"
                    source.mkdir(parents=True)
                    write(source)
                    bench = Bench(product, folder, kind, source)
                    shutil.rmtree(source)
                    speeds = lab.interleave(options.rounds, ["ours", "cp"], bench.copy)
                    if title.startswith("one"):
                        table.limit(f"{title}", "s", bench.n_bytes / speeds["ours"], 1)
                    else:
                        table.ratio(title, "MB/s", speeds["ours"] / 1e6, "cp -a", speeds["cp"] / 1e6, GOAL)
                    shutil.rmtree(folder)
    table.close()


if __name__ == "__main__":
    main()
