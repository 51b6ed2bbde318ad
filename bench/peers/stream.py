#!/usr/bin/env python3
"""A game's first frame while its image is still on a web server: the client against what one would take instead.

    bench/peers/stream.py [--rounds N] [--link MBIT...] [--games NAME...] [--only NAME] [--size MIB] [--build DIR]
                          [--dir DIR]

Everybody gets the same folder of files over the same link: `tavrin serve`, whose rate all connections share and whose
latency comes before each response. A way begins with its first command and in an empty folder; the game's own
start-up, measured from a local folder, is subtracted from all. The file system caches are dropped before each way,
then the programs are warmed up by a start from the local folder and the served files are read, so that nothing but
the link is slow. The first frame is told by a library that is preloaded into the game; the bytes are the server's
count up to then. "ours" starts with `run --url --now`, on an image without an order, plain and packed.

What each way shows is compared with the game's folder first, over a link without limits.

Further figures: how long a read waits for a block that is missing, and how fast an image arrives that is mounted.
Values are medians of rounds that all ways make in turn. Needs root; what it starts, mounts and writes is gone at the
end.
"""

import argparse
import contextlib
import functools
import hashlib
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
import ways  # noqa: E402
from game import FIRST, GAMES, Hung, Starter, Way, choose_ways, medians, screen  # noqa: E402
from link import LATENCY_MS, Link, Server  # noqa: E402
from product import APP, Product  # noqa: E402

MIB = 1 << 20
STRETCH = 204_800  # what one on-demand request fetches
N_READS = 40  # of missing blocks
CHECK_LIMIT_S = 60


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "md5").hexdigest()


PLAIN, PACKED = "ours, plain", "ours, packed"
WAYS = [
    Way("full download, ext4", "ext4", "volumes", ["curl"], ways.download),
    Way("full download, squashfs", "squashfs", "volumes", ["curl"], ways.download),
    Way("rclone, ext4", "ext4", "volumes", ["rclone"], ways.rclone),
    Way("nbdkit, ext4", "ext4", "volumes", ways.NBDKIT, ways.nbdkit),
    Way("nbdkit, squashfs", "squashfs", "volumes", ways.NBDKIT, ways.nbdkit),
    Way("qemu, ext4", "ext4", "volumes", ways.QEMU, ways.qemu),
    Way(PLAIN, "erofs", "plain", []),
    Way(PACKED, "erofs", "packed", []),
]


class GameBench(Starter):
    """One game: its images on the server, and its start in each way."""

    def __init__(self, game, folder, options, chosen):
        super().__init__(game, folder, options)
        self.ways = chosen

    def prepare(self):
        volumes, plain, packed = (self.folder / name for name in ("volumes", "plain", "packed"))
        volumes.mkdir()
        with Product(self.options.build, self.folder / "publisher") as product:
            words = self.game.arguments(FIRST)
            product.tavrin("image", "build", self.source, plain, "--cmd", "game", *words, "--quiet")
            shutil.copytree(plain, packed)
            product.tavrin("image", "pack", packed, "--quiet")
        kinds = {way.kind for way in self.ways}
        if "ext4" in kinds:
            # A volume with room to spare has holes, which cost a download; what is left is cut off.
            size = sum(-(-file.stat().st_size // 4096) + 1 for file in self.source.rglob("*")) * 4096
            file = volumes / "img.ext4"
            words = ["-q", "-t", "ext4", "-b", "4096", "-O", "^has_journal", "-d", self.source]
            lab.run("mke2fs", *words, file, f"{(size + size // 16) // 1024 + 4096}k")
            lab.run("resize2fs", "-M", file)
        if "squashfs" in kinds:
            lab.run("mksquashfs", self.source, volumes / "img.squashfs", "-comp", "zstd", "-quiet", "-no-progress")

    def tell_sizes(self):
        for file in ("source", "volumes/img.ext4", "volumes/img.squashfs", "plain/img.zqf", "packed/img.zqf.zst"):
            path = self.folder / file
            if path.is_dir():
                sizes = [below.stat().st_size for below in path.rglob("*") if below.is_file()]
                print(f"{self.game.name}: {len(sizes):,} files, {sum(sizes) / 1e6:.1f} MB")
            elif path.exists():
                print(f"{self.game.name}: {path.name:<14} {path.stat().st_size / 1e6:8.1f} MB")
        sys.stdout.flush()

    # -- the content

    def check_all(self):
        """Peers that hang again and again are left out."""
        for way in list(self.ways):
            if self.patiently(way, functools.partial(self.check, way)) is None:
                print(f"left out: {self.game.name}, {way.name}: it hangs", flush=True)
                self.ways.remove(way)

    def check(self, way):
        """What the way shows, over a link without limits, must be what was put in. Gives true."""
        with self.working_folder() as folder, Server(self.client, self.folder / way.served) as server:
            if way.provide:
                with way.provide(folder, server.url, way.kind) as top:
                    try:
                        self.compare(way, top)
                    finally:
                        lab.kill_programs()
                return True
            with Product(self.options.build, folder / "product") as product:
                image = folder / "image"
                with product.fed(image, server.url) as top:
                    self.compare(way, top)
                    size = (self.folder / way.served / "img.zqf").stat().st_size
                    lab.wait_until(lambda: (image / "img.zqf").stat().st_size == size, "all has arrived", 60)
            if digest(image / "img.zqf") != digest(self.folder / way.served / "img.zqf"):
                raise RuntimeError(f"{self.game.name}, {way.name}: the image that arrived is another one")
        return True

    def compare(self, way, top):
        words = ["diff", "-rq", "--exclude=lost+found", self.source, top]
        with subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
            try:
                output = process.communicate(timeout=CHECK_LIMIT_S)[0]
            except BaseException as error:
                lab.kill_programs()  # it may be in a read that nobody answers
                process.kill()
                if isinstance(error, subprocess.TimeoutExpired):
                    raise Hung(f"{self.game.name}, {way.name}: reading takes over {CHECK_LIMIT_S} s") from error
                raise
        if process.returncode != 0:
            raise RuntimeError(f"{self.game.name}, {way.name}: other content: {output}")

    # -- the starts

    def measure(self, link, table):
        def measure(way):
            return self.patiently(way, lambda: self.start(way, link, FIRST))

        self.own_s[FIRST].clear()
        found = lab.interleave(self.options.rounds, self.ways, measure, medians)
        own, all_own = self.get_own(FIRST), self.own_s[FIRST]
        print(
            f"\n{self.game.name}, {link}; own start-up {own:.2f} s ({min(all_own):.2f} to {max(all_own):.2f}), "
            f"subtracted\n  {'way':<26}{'s to the frame':>16}{'MB moved':>10}{'to plain':>10}{'to packed':>10}"
        )
        by_name = {way.name: (values[0] - own, values[1]) for way, values in found.items() if values}
        for name, (seconds, moved) in by_name.items():
            ratios = [seconds / by_name[ours][0] if ours in by_name else None for ours in (PLAIN, PACKED)]
            text = f"  {name:<26}{seconds:>16.2f}{moved / 1e6:>10.1f}"
            text += "".join(f"{'-':>10}" if ratio is None else f"{ratio:>10.2f}" for ratio in ratios)
            if name.endswith("ext4") and ratios[0] is not None:
                table.goal(f"{text}  goal: plain > 1", ratios[0] > 1)
            elif name.endswith("squashfs") and ratios[1] is not None:
                table.goal(f"{text}  goal: packed >= {1 / 1.3:.2f}", ratios[1] >= 1 / 1.3)
            else:
                print(text, flush=True)


class FileBench:
    """Figures on an image of one large file of random bytes."""

    def __init__(self, folder, options, table):
        self.folder, self.options, self.table = folder, options, table
        self.client = options.build / "bin/tavrin"
        self.image = folder / "published"
        self.delays = folder / "delays"

    def prepare(self):
        source, numbers = self.folder / "source", random.Random(3)
        source.mkdir()
        with open(source / "file.bin", "wb") as file:
            for _ in range(self.options.size):
                file.write(numbers.randbytes(MIB))
        with Product(self.options.build, self.folder / "publisher") as product:
            words = ["delays", f"{{{{ZQDRIVE}}}}/{APP}/file.bin", N_READS, 4, self.delays]
            words = [f"--arg={word}" for word in words]
            product.tavrin("image", "build", source, self.image, "--cmd", product.reader, *words, "--quiet")
        shutil.rmtree(source)

    def read_missing(self, link, load):
        """The median of milliseconds of a read of a missing block, and the bytes that moved."""
        folder = self.folder / "way"
        folder.mkdir()
        self.delays.unlink(missing_ok=True)
        lab.drop_caches()
        lab.read_into_cache(self.image / "img.zqf")
        # With a byte a second the ordered download takes nothing of the link; so the records and what the mount reads
        # at the download's edge are there already.
        (folder / "image").mkdir()
        for name in ("app.json", "img.json", "img.idx"):
            shutil.copy(self.image / name, folder / "image")
        with open(self.image / "img.zqf", "rb") as file:
            (folder / "image/img.zqf").write_bytes(file.read(4 * MIB))
        words = [] if load else ["--rate", "1"]
        with Server(self.client, self.image, link.rate, LATENCY_MS) as server:
            with Product(self.options.build, folder / "product") as product, open(folder / "log", "wb") as log:
                words = [self.client, "run", folder / "image", "--url", server.url, "--now", *words]
                with lab.program(*words, env=product.env, log=log) as process:
                    lab.wait_until(lambda: self.delays.exists() or process.poll() is not None, "the reads begin", 60)
                    product.find_drive(folder / "image")
                    process.wait(300)
                if process.returncode != 0:
                    raise RuntimeError((folder / "log").read_text(encoding="utf-8"))
            moved = server.end()["bytes"]
        shutil.rmtree(folder)
        return statistics.median(map(float, self.delays.read_text(encoding="ascii").split())), moved

    def measure_delays(self, link):
        def measure(load):
            return self.read_missing(link, load)

        found = lab.interleave(self.options.rounds, [False, True], measure, medians)
        print(
            f"\nreads of 4 KiB that are missing, {N_READS} one after the other with pauses, {link}; moved without a "
            f"download {found[False][1] / 1e6:.1f} MB, with one {found[True][1] / 1e6:.1f} MB"
        )
        limit = LATENCY_MS + link.transfer_ms(STRETCH) + 15
        self.table.limit(f"underflow, {link.mbit} Mbit/s, no load", "ms", found[False][0], limit, 1)
        self.table.limit(f"underflow, {link.mbit} Mbit/s, download", "ms", found[True][0], limit + LATENCY_MS, 1)

    # -- the rate of a download without a limit

    def curl(self):
        """MB/s of a download to a file, as a tuple."""
        target = self.folder / "curl"
        with Server(self.client, self.image) as server:
            begin = time.monotonic()
            lab.run("curl", "--silent", "--fail", "--output", target, server.url + "img.zqf")
            seconds = time.monotonic() - begin
        size = target.stat().st_size
        target.unlink()
        return (size / seconds / 1e6,)

    def feed(self):
        """MB/s from the moment at which the drive is there until the file is complete, as a tuple."""
        folder = self.folder / "way"
        folder.mkdir()
        file = folder / "image/img.zqf"
        total = (self.image / "img.zqf").stat().st_size
        with Server(self.client, self.image) as server, Product(self.options.build, folder / "product") as product:
            with product.fed(folder / "image", server.url):
                begin, at_begin = time.monotonic(), file.stat().st_size
                lab.wait_until(lambda: file.stat().st_size == total, "all has arrived", 300)
                seconds = time.monotonic() - begin
        shutil.rmtree(folder)
        if at_begin > total * 3 // 4:
            raise RuntimeError("most had arrived before the drive was there; this needs a larger --size")
        return ((total - at_begin) / seconds / 1e6,)

    def measure_rate(self):
        def measure(side):
            lab.drop_caches()
            lab.read_into_cache(self.image / "img.zqf")
            return getattr(self, side)()

        found = lab.interleave(self.options.rounds, ["feed", "curl"], measure, medians)
        self.table.ratio("download, no limit", "MB/s", found["feed"][0], "curl", found["curl"][0], None)


def parse_arguments():
    root = Path(__file__).resolve().parents[2]
    names = [game.name for game in GAMES]
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=5, metavar="N", help="starts of each way (5)")
    parser.add_argument("--link", type=int, nargs="+", default=[20, 100], metavar="MBIT", help="Mbit/s (20 100)")
    parser.add_argument("--games", nargs="*", default=names, choices=names, metavar="NAME", help="of doom, supertux")
    only = "ways and figures whose name has this, such as 'nbdkit', 'underflow' or 'download, no limit'; several with |"
    parser.add_argument("--only", default="", metavar="NAME", help=only)
    parser.add_argument("--size", type=int, default=1024, metavar="MIB", help="the file of the further figures (1024)")
    parser.add_argument("--build", type=Path, default=root / "build/bench", metavar="DIR", help="of the programs")
    parser.add_argument("--dir", type=Path, metavar="DIR", help="where the images go (the folder for temporary files)")
    options = parser.parse_args()
    if options.size < 128 or options.rounds < 1 or min(options.link) < 1:
        parser.error("at least 128 MiB, one round and 1 Mbit/s")
    options.build = options.build.resolve()
    return options


def measure_games(options, folder, table, chosen, links):
    for game in (game for game in GAMES if game.name in options.games):
        if game.missing():
            print(f"left out: {game.name}: not installed here: {', '.join(game.missing())}")
            continue
        below = folder / game.name
        below.mkdir()
        bench = GameBench(game, below, options, list(chosen))
        bench.prepare()
        bench.tell_sizes()
        bench.check_all()
        for link in links:
            bench.measure(link, table)
        shutil.rmtree(below)


def main():
    options = parse_arguments()
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    links = [Link(mbit) for mbit in options.link]

    def wanted(name):
        return any(part in name for part in options.only.split("|"))

    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-stream-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        chosen = choose_ways(WAYS, wanted)
        if chosen and options.games:
            options.display = stack.enter_context(screen())
            measure_games(options, folder, table, chosen, links)
        delays = [link for link in links if wanted(f"underflow, {link.mbit} Mbit/s")]
        if delays or wanted("download, no limit"):
            bench = FileBench(folder, options, table)
            bench.prepare()
            for link in delays:
                bench.measure_delays(link)
            if wanted("download, no limit"):
                bench.measure_rate()
    table.close()


if __name__ == "__main__":
    main()
