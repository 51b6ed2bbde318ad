#!/usr/bin/env python3
"""A game's first frame while its image is still on a web server: the client against what one would take instead.

    bench/peers/stream.py [--rounds N] [--link MBIT...] [--games NAME...] [--only NAME] [--size MIB] [--build DIR]
                          [--dir DIR]

Everybody gets the same folder of files over the same link: `tavrin serve`, whose rate all connections share and whose
latency goes ahead of each response. A way begins with its first command and in an empty folder; the game's own
start-up, measured from a local folder, is subtracted from all. The file system caches are dropped ahead of each way,
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
import os
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import peers  # noqa: E402
from link import LATENCY_MS, Link, Server, listing  # noqa: E402
from product import APP, Product  # noqa: E402

MIB = 1 << 20
STRETCH = 204_800  # what one on-demand request fetches
N_READS = 40  # of missing blocks
CHECK_LIMIT_S = 120


class Game:
    """A game of the system as a folder of its own, and how it is started there."""

    def __init__(self, name, files, words, needs):
        self.name, self.files, self.words, self.needs = name, files, words, needs

    def missing(self):
        return [str(file) for file in self.needs if not Path(file).exists()]

    def copy_to(self, folder):
        folder.mkdir()
        for source, target in self.files:
            if Path(source).is_dir():
                shutil.copytree(source, folder / target)
            else:
                shutil.copy(source, folder / target)


DOOM_WAD = "/usr/share/games/doom/freedoom1.wad"
TUX_DATA = "/usr/share/games/supertux2"
TUX_LEVEL = "data/levels/world1/welcome_antarctica.stl"
GAMES = [
    Game(
        "doom",  # plays its recorded demo
        [("/usr/games/chocolate-doom", "game"), (DOOM_WAD, "freedoom1.wad")],
        ["-iwad", "{}/freedoom1.wad", "-timedemo", "demo1", "-nosound", "-window"],
        ["/usr/games/chocolate-doom", DOOM_WAD],
    ),
    Game(
        "supertux",  # begins a level
        [("/usr/games/supertux2", "game"), (TUX_DATA, "data")],
        ["--renderer", "sdl", "--disable-sound", "--disable-music", "--datadir", "{}/data", "{}/" + TUX_LEVEL],
        ["/usr/games/supertux2", f"{TUX_DATA}/levels"],
    ),
]


class Hung(RuntimeError):
    """Something hasn't come within its limit."""


def medians(found):
    return tuple(map(statistics.median, zip(*found, strict=True)))


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "md5").hexdigest()


# -- the ways: each is a `with` that gives the folder of the game, on the volume that `url` has as `name`


@contextlib.contextmanager
def attached(file, kind, folder):
    with lab.loop(file, direct=False) as device, lab.volume(device, kind, folder / "volume") as top:
        yield top


@contextlib.contextmanager
def download(folder, url, kind):
    lab.run("curl", "--silent", "--fail", "--output", folder / "img", f"{url}img.{kind}")
    with attached(folder / "img", kind, folder) as top:
        yield top


@contextlib.contextmanager
def rclone(folder, url, kind):
    name = f"img.{kind}"
    shown = folder / "rclone"
    shown.mkdir()
    words = ["--vfs-cache-mode", "full", "--vfs-read-chunk-size", "256k", "--vfs-read-chunk-size-limit", "2M"]
    words += ["--buffer-size", "256k", "--vfs-read-ahead", "0", "--dir-cache-time", "1h", "--read-only"]
    words += ["--cache-dir", folder / "cache", "--config", "/dev/null", "--low-level-retries", "1"]
    with contextlib.ExitStack() as stack:
        log = stack.enter_context(open(folder / "rclone.log", "wb"))
        base = stack.enter_context(listing(url, name))
        words = ["rclone", "mount", ":http:", shown, "--http-url", base, *words]
        stack.enter_context(lab.program(*words, seconds=2, log=log))
        stack.callback(lab.unmount, shown)
        lab.wait_until(lambda: lab.mounted_at(shown), "rclone has mounted")
        yield stack.enter_context(attached(shown / name, kind, folder))


@contextlib.contextmanager
def nbdkit(folder, url, kind):
    words = ["--filter=cache", "curl", f"{url}img.{kind}", "cache-on-read=true", "cache-min-block-size=256k"]
    with open(folder / "nbdkit.log", "wb") as log, peers.nbdkit_file(folder, *words, log=log) as file:
        with attached(file, kind, folder) as top:
            yield top


@contextlib.contextmanager
def qemu(folder, url, kind):
    overlay = folder / "overlay.qcow2"
    with urllib.request.urlopen(urllib.request.Request(f"{url}img.{kind}", method="HEAD")) as head:
        lab.run("qemu-img", "create", "-q", "-f", "qcow2", overlay, head.headers["Content-Length"])
    blockdevs = [
        f"driver=http,node-name=h,url={url}img.{kind},readahead=262144,read-only=on",
        f"driver=qcow2,node-name=q,file.driver=file,file.filename={overlay},backing=h",
        "driver=copy-on-read,node-name=c,file=q",
    ]
    with open(folder / "qemu.log", "wb") as log, peers.qemu_file(folder, "c", *blockdevs, log=log) as file:
        with attached(file, kind, folder) as top:
            yield top


class Way:
    """`provide` gives the game's folder; None for the client, which starts the game itself."""

    def __init__(self, name, kind, served, needs, provide=None):
        self.name, self.kind, self.served, self.needs, self.provide = name, kind, served, needs, provide

    def missing(self):
        return [program for program in self.needs if not shutil.which(program)]


PLAIN, PACKED = "ours, plain", "ours, packed"
NBDKIT, QEMU = ("nbdkit", "nbdfuse"), ("qemu-storage-daemon", "qemu-img")
WAYS = [
    Way("full download, ext4", "ext4", "volumes", ["curl"], download),
    Way("full download, squashfs", "squashfs", "volumes", ["curl"], download),
    Way("rclone, ext4", "ext4", "volumes", ["rclone"], rclone),
    Way("nbdkit, ext4", "ext4", "volumes", NBDKIT, nbdkit),
    Way("nbdkit, squashfs", "squashfs", "volumes", NBDKIT, nbdkit),
    Way("qemu, ext4", "ext4", "volumes", QEMU, qemu),
    Way(PLAIN, "erofs", "plain", []),
    Way(PACKED, "erofs", "packed", []),
]


class GameBench:
    """One game: its images on the server, and its start in each way."""

    def __init__(self, game, folder, options, ways):
        self.game, self.folder, self.options, self.ways = game, folder, options, ways
        self.client = options.build / "bin/tavrin"
        self.source = folder / "source"
        self.own_s = []  # the times from the local folder

    def prepare(self):
        self.game.copy_to(self.source)
        volumes, plain, packed = (self.folder / name for name in ("volumes", "plain", "packed"))
        volumes.mkdir()
        self.n_bytes = sum(file.stat().st_size for file in self.source.rglob("*") if file.is_file())
        with Product(self.options.build, self.folder / "publisher") as product:
            words = [f"--arg={word.replace('{}', '{{ZQDRIVE}}/' + APP)}" for word in self.game.words]
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

    def served(self, way):
        return self.folder / way.served

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

    def check(self, way):
        """What the way shows, over a link without limits, must be what was put in."""
        with self.working_folder() as folder, Server(self.client, self.served(way)) as server:
            if way.provide:
                with way.provide(folder, server.url, way.kind) as top:
                    try:
                        self.compare(way, top)
                    finally:
                        lab.kill_programs()
                return
            with Product(self.options.build, folder / "product") as product:
                image = folder / "image"
                with product.fed(image, server.url) as top:
                    self.compare(way, top)
                    size = (self.served(way) / "img.zqf").stat().st_size
                    lab.wait_until(lambda: (image / "img.zqf").stat().st_size == size, "all has arrived", 60)
            if digest(image / "img.zqf") != digest(self.served(way) / "img.zqf"):
                raise RuntimeError(f"{self.game.name}, {way.name}: the image that arrived is another one")

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

    def patiently(self, way, job):
        """A peer that hangs is told of, and tried again twice; the client isn't."""
        for left in (2, 1, 0) if way.provide else (0,):
            try:
                return job()
            except Hung as error:
                if left == 0:
                    raise
                print(f"once more, it hung: {error}", flush=True)

    # -- the starts

    @contextlib.contextmanager
    def working_folder(self):
        folder = self.folder / "way"
        folder.mkdir()
        try:
            yield folder
        except Exception:
            for log in folder.rglob("*.log"):
                print(f"{log.name}: {log.read_text(encoding='utf-8', errors='replace')[-2000:]}", file=sys.stderr)
            raise
        finally:
            shutil.rmtree(folder)

    def environment(self, folder):
        home = folder / "home"
        home.mkdir()
        library = self.options.build / "bench/support/libfirst_frame.so"
        return dict(
            os.environ,
            HOME=str(home),
            XDG_RUNTIME_DIR=str(home),
            DISPLAY=self.options.display,
            SDL_AUDIODRIVER="dummy",
            LD_PRELOAD=str(library),
            TAVRIN_FIRST_FRAME=str(folder / "frame"),
        )

    @contextlib.contextmanager
    def played(self, top, folder):
        """The game, started in the folder `top`, during a `with`."""
        words = [top / "game", *(word.replace("{}", str(top)) for word in self.game.words)]
        with open(folder / "game.log", "wb") as log:
            env = self.environment(folder)
            with lab.program(*words, end_by=signal.SIGKILL, env=env, cwd=top, log=log) as process:
                yield process

    def wait_for_frame(self, folder, process, begin, limit_s=60.0):
        """Seconds from `begin` (of time.time()) to the first frame."""
        frame = folder / "frame"
        limit = time.monotonic() + limit_s
        while not frame.exists():
            if time.monotonic() > limit:
                raise Hung(f"{self.game.name} has shown no frame within {limit_s:.0f} s")
            if process.poll() is not None:
                raise RuntimeError(f"{self.game.name} has shown no frame; its exit code: {process.poll()}")
            time.sleep(0.005)
        return frame.stat().st_mtime - begin

    def start_locally(self):
        with self.working_folder() as folder:
            begin = time.time()
            with self.played(self.source, folder) as process:
                return self.wait_for_frame(folder, process, begin)

    def start(self, way, link):
        """Seconds to the first frame, and bytes over the link."""
        lab.drop_caches()
        self.start_locally()  # from the disk
        self.own_s.append(self.start_locally())
        for file in self.served(way).iterdir():
            lab.read_into_cache(file)
        with self.working_folder() as folder, Server(self.client, self.served(way), link.rate, LATENCY_MS) as server:
            limit_s = 60 + 2 * self.n_bytes / link.rate
            return (self.start_from if way.provide else self.run_from)(way, folder, server, limit_s)

    def start_from(self, way, folder, server, limit_s):
        begin = time.time()
        with way.provide(folder, server.url, way.kind) as top:
            with self.played(top, folder) as process:
                try:
                    seconds = self.wait_for_frame(folder, process, begin, limit_s)
                    return seconds, server.end()["bytes"]
                finally:
                    lab.kill_programs()  # the game may be in a read that nobody answers any more

    def run_from(self, way, folder, server, limit_s):
        with Product(self.options.build, folder / "product") as product:
            env = dict(product.env, **self.environment(folder))
            image = folder / "image"
            words = [self.client, "run", image, "--url", server.url, "--now"]
            with open(folder / "game.log", "wb") as log:
                begin = time.time()
                with lab.program(*words, env=env, log=log, end_by=signal.SIGINT) as process:
                    seconds = self.wait_for_frame(folder, process, begin, limit_s)
                    figures = server.end()
                    product.find_drive(image)
            return seconds, figures["bytes"]

    def measure(self, link, table):
        def measure(way):
            return self.patiently(way, lambda: self.start(way, link))

        self.own_s.clear()
        found = lab.interleave(self.options.rounds, self.ways, measure, medians)
        own = statistics.median(self.own_s)
        print(
            f"\n{self.game.name}, {link}; own start-up {own:.2f} s ({min(self.own_s):.2f} to {max(self.own_s):.2f}), "
            f"subtracted\n  {'way':<26}{'s to the frame':>16}{'MB moved':>10}{'to plain':>10}{'to packed':>10}"
        )
        by_name = {way.name: (seconds - own, moved) for way, (seconds, moved) in found.items()}
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
        """MB/s from the moment at which the drive is there until the file is complete, and the most that the writer
        allows itself after its test of the disk."""
        folder = self.folder / "way"
        folder.mkdir()
        file = folder / "image/img.zqf"
        total = (self.image / "img.zqf").stat().st_size
        with Server(self.client, self.image) as server, Product(self.options.build, folder / "product") as product:
            with product.fed(folder / "image", server.url):
                begin, at_begin = time.monotonic(), file.stat().st_size
                lab.wait_until(lambda: file.stat().st_size == total, "all has arrived", 300)
                seconds = time.monotonic() - begin
        with open(folder / "image/write.log", encoding="ascii") as log:
            limit = int([line for line in log if not line.startswith("#")][-1].split()[-1])
        shutil.rmtree(folder)
        if at_begin > total * 3 // 4:
            raise RuntimeError("most had arrived ahead of the drive; this needs a larger --size")
        return (total - at_begin) / seconds / 1e6, limit / 1e6

    def measure_rate(self):
        def measure(side):
            lab.drop_caches()
            lab.read_into_cache(self.image / "img.zqf")
            return getattr(self, side)()

        found = lab.interleave(self.options.rounds, ["feed", "curl"], measure, medians)
        ours, writer = found["feed"]
        others = {"curl": found["curl"][0], "writer's limit": writer}
        for name, value in others.items():
            goal = 0.9 if value == min(others.values()) else None
            self.table.ratio("download, no limit", "MB/s", ours, name, value, goal)


@contextlib.contextmanager
def screen():
    """A display of its own; gives its name."""
    read_end, write_end = os.pipe()
    with contextlib.ExitStack() as stack:
        stack.callback(os.close, read_end)
        words = ["Xvfb", "-displayfd", str(write_end), "-screen", "0", "1280x1024x24", "-nolisten", "tcp"]
        process = subprocess.Popen(words, pass_fds=[write_end], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        stack.callback(process.wait)
        stack.callback(process.terminate)
        number = os.read(read_end, 16).decode().strip()
        if not number:
            raise RuntimeError("Xvfb doesn't start")
        yield f":{number}"


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


def choose_ways(wanted):
    chosen = []
    for way in WAYS:
        if wanted(way.name) and way.missing():
            print(f"left out: {way.name}: not installed here: {', '.join(way.missing())}")
        elif wanted(way.name):
            chosen.append(way)
    return chosen


def measure_games(options, folder, table, ways, links):
    for game in (game for game in GAMES if game.name in options.games):
        if game.missing():
            print(f"left out: {game.name}: not installed here: {', '.join(game.missing())}")
            continue
        below = folder / game.name
        below.mkdir()
        bench = GameBench(game, below, options, ways)
        bench.prepare()
        bench.tell_sizes()
        for way in ways:
            bench.patiently(way, functools.partial(bench.check, way))
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
        ways = choose_ways(wanted)
        if ways and options.games:
            options.display = stack.enter_context(screen())
            measure_games(options, folder, table, ways, links)
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
