"""Games that the benchmarks against peers start, and how: from a folder, or by the client from its server."""

import contextlib
import os
import shutil
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

import lab
from link import LATENCY_MS, Server
from product import APP, Product


class Game:
    """A game of the system as a folder of its own, and how it is started there: with `words`, and with those of a
    session."""

    def __init__(self, name, files, words, sessions, needs):
        self.name, self.files, self.words, self.sessions, self.needs = name, files, words, sessions, needs

    def missing(self):
        return [str(file) for file in self.needs if not Path(file).exists()]

    def copy_to(self, folder):
        folder.mkdir()
        for source, target in self.files:
            if Path(source).is_dir():
                shutil.copytree(source, folder / target)
            else:
                shutil.copy(source, folder / target)

    def words_in(self, top, session):
        """The arguments of a session, with the game in the folder `top`."""
        return [word.replace("{}", str(top)) for word in self.words + self.sessions[session]]

    def arguments(self, session):
        """The same as options of the client that builds its image."""
        return [f"--arg={word}" for word in self.words_in("{{ZQDRIVE}}/" + APP, session)]


DOOM_WAD = "/usr/share/games/doom/freedoom1.wad"
TUX_DATA = "/usr/share/games/supertux2"
TUX_LEVELS = "{}/data/levels/"
FIRST, OTHER = 0, 1  # sessions
BESIDE = (2, 3, 4)  # three further ones
GAMES = [
    Game(
        "doom",
        [("/usr/games/chocolate-doom", "game"), (DOOM_WAD, "freedoom1.wad")],
        ["-iwad", "{}/freedoom1.wad", "-nosound", "-window"],
        # Recorded ones, and two levels.
        [
            ["-timedemo", "demo1"],
            ["-timedemo", "demo3"],
            ["-timedemo", "demo2"],
            ["-warp", "2", "4"],
            ["-warp", "3", "6"],
        ],
        ["/usr/games/chocolate-doom", DOOM_WAD],
    ),
    Game(
        "supertux",
        [("/usr/games/supertux2", "game"), (TUX_DATA, "data")],
        ["--renderer", "sdl", "--disable-sound", "--disable-music", "--datadir", "{}/data"],
        [
            [TUX_LEVELS + "world1/welcome_antarctica.stl"],
            [TUX_LEVELS + "world2/ancient_ruins.stl"],
            [TUX_LEVELS + "world1/frosted_fields.stl"],
            [TUX_LEVELS + "world1/castle_of_nolok.stl"],
            [TUX_LEVELS + "world2/welcome_forest.stl"],
        ],
        ["/usr/games/supertux2", f"{TUX_DATA}/levels"],
    ),
]


class Hung(RuntimeError):
    """Something hasn't come within its limit."""


def medians(found):
    """Of tuples, column by column; None where there are none."""
    found = [values for values in found if values is not None]
    return tuple(map(statistics.median, zip(*found, strict=True))) if found else None


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


class Way:
    """`provide` gives the game's folder; None for the client, which starts the game itself. `served` is the folder
    on the server."""

    def __init__(self, name, kind, served, needs, provide=None):
        self.name, self.kind, self.served, self.needs, self.provide = name, kind, served, needs, provide

    def missing(self):
        return [program for program in self.needs if not shutil.which(program)]


def choose_ways(ways, wanted):
    chosen = []
    for way in ways:
        if wanted(way.name) and way.missing():
            print(f"left out: {way.name}: not installed here: {', '.join(way.missing())}")
        elif wanted(way.name):
            chosen.append(way)
    return chosen


class Starter:
    """Starts a game, whose files stand below `folder`. `options` has `build`, the programs, and `display`."""

    def __init__(self, game, folder, options):
        self.game, self.folder, self.options = game, folder, options
        self.client = options.build / "bin/tavrin"
        self.source = folder / "source"
        self.own_s = {session: [] for session in range(len(game.sessions))}  # the times from the local folder
        self.game.copy_to(self.source)
        self.n_bytes = sum(file.stat().st_size for file in self.source.rglob("*") if file.is_file())

    def patiently(self, way, job):
        """A peer that hangs is told of, and tried again twice; then it gives None. The client must not hang."""
        for _ in range(3):
            try:
                return job()
            except Hung as error:
                if not way.provide:
                    raise
                print(f"it hung: {error}", flush=True)
        return None

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
    def played(self, top, folder, session, front=()):
        """The game, started in the folder `top`, during a `with`; `front` are words before its own."""
        words = [*front, top / "game", *self.game.words_in(top, session)]
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

    def start_locally(self, session):
        with self.working_folder() as folder:
            begin = time.time()
            with self.played(self.source, folder, session) as process:
                return self.wait_for_frame(folder, process, begin)

    def warm_up(self, served, session):
        """Nothing but the link shall be slow. Notes the game's own time."""
        lab.drop_caches()
        self.start_locally(session)  # from the disk
        self.own_s[session].append(self.start_locally(session))
        for file in served.iterdir():
            lab.read_into_cache(file)

    def start(self, way, link, session):
        """Seconds to the first frame, and bytes over the link."""
        served = self.folder / way.served
        self.warm_up(served, session)
        with self.working_folder() as folder, Server(self.client, served, link.rate, LATENCY_MS) as server:
            limit_s = 60 + 2 * self.n_bytes / link.rate
            if way.provide is None:
                with self.running(folder, server, limit_s) as seconds:
                    return seconds, server.end()["bytes"]
            begin = time.time()
            with way.provide(folder, server.url, way.kind) as top:
                with self.played(top, folder, session) as process:
                    try:
                        seconds = self.wait_for_frame(folder, process, begin, limit_s)
                        return seconds, server.end()["bytes"]
                    finally:
                        lab.kill_programs()  # the game may be in a read that nobody will answer

    def get_own(self, session):
        return statistics.median(self.own_s[session])

    @contextlib.contextmanager
    def running(self, folder, server, limit_s, *options):
        """The client plays the image of that server during a `with`, which gets the seconds to the first frame. The
        image is folder / "image", its report folder / "report"."""
        with Product(self.options.build, folder / "product") as product:
            env = dict(product.env, **self.environment(folder))
            image = folder / "image"
            words = [self.client, "run", image, "--url", server.url, "--now", "--report", folder / "report", *options]
            with open(folder / "game.log", "wb") as log:
                begin = time.time()
                with lab.program(*words, env=env, log=log, end_by=signal.SIGTERM) as process:
                    seconds = self.wait_for_frame(folder, process, begin, limit_s)
                    product.find_drive(image)
                    yield seconds
