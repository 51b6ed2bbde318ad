"""Plays the sessions of a game from its complete image, and keeps what they have read."""

import contextlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time

import lab
from keys import Keyboard
from traces import BLOCK, read_app, read_units

TAP_S = 0.06


def dangling(folder, names):
    """Links to nowhere: a font's, where the package that has it isn't there."""
    return [name for name in names if not os.path.exists(os.path.join(folder, name))]


class Recording:
    """A session as it was played: its trace, and `frame_ms` of time.time()."""

    def __init__(self, session, folder):
        self.session, self.folder, self.trace = session, folder, folder / "trace"

    def exists(self):
        return (self.folder / "session.json").exists()

    @property
    def frame_ms(self):
        return json.loads((self.folder / "session.json").read_text(encoding="utf-8"))["frameMs"]

    def items(self):
        """RAW blocks and the seconds of time.time() at which they were read."""
        return [(block, units / 10_000_000) for block, units in read_units(self.trace)]

    def keep(self, frame_ms):
        """The record comes last, so what was cut off counts as nothing."""
        text = json.dumps({"session": self.session.name, "frameMs": frame_ms}, indent=4)
        (self.folder / "session.json").write_text(text + "\n", encoding="utf-8")


class Recordings:
    """Those of a game, with its image, below `folder`. A game that is built again of the same files has the same
    blocks. So they outlive the image."""

    def __init__(self, game, folder):
        self.game, self.folder, self.image = game, folder, folder / "image"
        self.of = {}
        for session in game.sessions:
            name = re.sub(r"[^a-z0-9]+", "-", session.name.lower()).strip("-")
            self.of[session.name] = Recording(session, folder / name)
        self.source = folder / "source"

    def prepare(self, product):
        """Copies the game and builds its image, if they aren't there."""
        self.folder.mkdir(parents=True, exist_ok=True)
        if not (self.image / "app.json").exists():
            shutil.rmtree(self.source, ignore_errors=True)
            shutil.rmtree(self.image, ignore_errors=True)
            self.source.mkdir()
            for source, target in self.game.files:
                if os.path.isdir(source):
                    shutil.copytree(source, self.source / target, ignore=dangling)
                else:
                    shutil.copy2(source, self.source / target)
            product.tavrin("image", "build", self.source, self.image, "--quiet")
        build = read_app(self.image)["checksums"]["mnt"]
        for recording in self.of.values():
            if recording.exists():
                record = json.loads((recording.trace / "trace.json").read_text(encoding="utf-8"))
                if record["checksums"]["mnt"] != build:
                    raise RuntimeError(f"{recording.folder} is of another build of {self.game.name}")


class Player:
    """Plays sessions from the complete image `image`; `work` is a folder for homes and logs. `options` has `build`, the
    programs, and `display`."""

    def __init__(self, recordings, image, product, options, work):
        self.recordings, self.image, self.product, self.options, self.work = recordings, image, product, options, work
        self.game, self.client = recordings.game, product.client

    def record(self, recording):
        session = recording.session
        shutil.rmtree(recording.folder, ignore_errors=True)
        recording.folder.mkdir()
        with self.home(session) as home:
            frame = self.work / "frame"
            frame.unlink(missing_ok=True)
            self.product.tavrin("mount", self.image, "--trace", recording.trace)
            try:
                self.play(session, self.product.find_drive(self.image), home)
            finally:
                self.product.tavrin("umount", self.image)
            recording.keep(frame.stat().st_mtime_ns // 1_000_000)

    @contextlib.contextmanager
    def home(self, session):
        """The home of a player who has what the session needs."""
        home = self.work / "home"
        home.mkdir()
        try:
            for name, text in session.files.items():
                (home / name).parent.mkdir(parents=True, exist_ok=True)
                (home / name).write_text(text, encoding="utf-8")
            if session.before:
                self.play(session.before, self.recordings.source, home)
            yield home
        finally:
            shutil.rmtree(home)

    def environment(self, home, frame):
        folders = ("HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR")
        return dict(
            os.environ,
            **dict.fromkeys(folders, str(home)),
            DISPLAY=self.options.display,
            SDL_AUDIODRIVER="dummy",
            ALSOFT_DRIVERS="null",
            LIBGL_ALWAYS_SOFTWARE="1",
            LD_PRELOAD=str(self.options.build / "bench/support/libfirst_frame.so"),
            TAVRIN_FIRST_FRAME=str(frame),
            TAVRIN_FRAME_NUMBER=str(self.game.frame),
        )

    def words(self, session, top):
        return [str(top / "game")] + [word.replace("{}", str(top)) for word in self.game.words + session.words]

    def play(self, session, top, home):
        """Until the session's time is over, or the game ends by itself."""
        frame, log_file = self.work / "frame", self.work / "game.log"
        frame.unlink(missing_ok=True)
        with open(log_file, "wb") as log:
            begin = time.monotonic()
            env = self.environment(home, frame)
            with lab.program(*self.words(session, top), env=env, cwd=top, log=log, end_by=signal.SIGKILL) as process:
                while not frame.exists():
                    if process.poll() is not None or time.monotonic() > begin + 60:
                        text = log_file.read_text(encoding="utf-8", errors="replace")[-2000:]
                        raise RuntimeError(f"{self.game.name}, {session.name}: no frame; {text}")
                    time.sleep(0.01)
                self.press(session, process, begin + session.seconds)

    def press(self, session, process, end):
        shown, due = time.monotonic(), sorted(session.keys.items())
        steps = random.Random(session.name)
        with Keyboard(self.options.display) as keyboard:
            while (now := time.monotonic()) < end and process.poll() is None:
                if due and now >= shown + due[0][0]:
                    for key in due.pop(0)[1].split():
                        keyboard.press(key, TAP_S)
                elif session.walk is not None and now >= shown + session.walk:
                    key, shortest, longest = steps.choice(self.game.walk)
                    keyboard.press(key, steps.uniform(shortest, longest))
                else:
                    time.sleep(0.05)


def record_missing(all_recordings, product, options, work):
    """Plays what isn't there yet, the short sessions first."""
    players = [Player(recordings, recordings.image, product, options, work) for recordings in all_recordings]
    left = [(player, session) for player in players for session in player.game.sessions
            if not player.recordings.of[session.name].exists()]  # fmt: skip
    left.sort(key=lambda pair: pair[1].seconds)
    for number, (player, session) in enumerate(left, 1):
        recording = player.recordings.of[session.name]
        player.record(recording)
        n_blocks = len({block for block, _ in recording.items()})
        text = f"{number} of {len(left)}: {player.game.name}, {session.name}: {n_blocks * BLOCK / 1e6:.1f} MB read"
        print(text, flush=True)
