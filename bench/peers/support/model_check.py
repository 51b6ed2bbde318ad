"""The model of the link against the client itself."""

import json
import shutil
import signal
import time

import lab
from hints import read_core, read_groups
from link import LATENCY_MS, Server
from product import APP
from recorder import Player, Recording
from replay import Placed, Replay
from sessions import rounds
from traces import BLOCK, packed_sizes, read_app, read_map

N_TRAINED = 3
OWN_S = 10  # from a complete image
PLAY_S = 5  # after the first frame


class ModelCheck:
    """Three sessions of a game, two of them untraced, each started by `run --now` from an image that three traces have
    ordered. `bench` has the game's recordings and the sessions of these."""

    def __init__(self, bench, folder):
        self.bench, self.recordings, self.product, self.folder = bench, bench.recordings, bench.product, folder
        self.served = folder / "served"
        self.player = Player(bench.recordings, self.served, bench.product, bench.options, folder)

    def prepare(self):
        """The ordered image and its packed form. Gives the sessions to start."""
        held, others = next(rounds(self.recordings.game))
        trained = others[:N_TRAINED]
        by = [word for name in trained for word in ("--order", self.recordings.of[name].trace)]
        words = [*by, "--cmd", "game", "--quiet"]
        self.product.tavrin("image", "build", self.recordings.source, self.served, *words)
        self.product.tavrin("image", "pack", self.served, "--level", 3, "--quiet")
        return [self.recordings.of[name] for name in (*held[:2], trained[0])]

    def check(self, link, table):
        """Prints both times for each session, and the model's error on the mean."""
        name, errors = self.recordings.game.name, []
        for recording in self.prepare():
            session = self.play_now(recording.session)
            app = read_app(self.served)
            # In front of the stretches' frames is one that says of which image they are.
            sizes = packed_sizes(self.served / "img.zqf.zst")[1:]
            n_front = app["disk"]["sizeMnt"] // BLOCK
            groups, core = read_groups(self.served), read_core(self.served)
            placed = Placed(read_map(self.served), sizes, n_front, groups=groups, core=core)
            model = Replay(session, placed, link.rate).run()
            seconds, report = self.run(recording.session, app, link)
            real = seconds - session.own_s
            errors.append(abs(model.start_s - real) / real)
            print(
                f"  {name}, {recording.session.name}: start {real:.2f} s, by the model {model.start_s:.2f} s "
                f"({100 * (model.start_s / real - 1):+.0f} %); own {session.own_s:.2f} s, ideal {model.ideal_s:.2f} s; "
                f"on demand {report['bytesOnDemand'] / 1e6:.1f} MB and {model.demanded / 1e6:.1f} MB",
                flush=True,
            )
        table.limit(f"  {name}: error of the model", "%", 100 * sum(errors) / len(errors), 15, 0)
        shutil.rmtree(self.served)

    def play_now(self, session):
        """The session as the machine plays it now. It may have been less or more busy when it was recorded."""
        recording = Recording(session._replace(seconds=OWN_S), self.folder / "now")
        self.player.record(recording)
        return self.bench.load(recording)

    def run(self, session, app, link):
        """Seconds to the first frame, and the client's report."""
        top = "{{ZQDRIVE}}/" + APP
        words = self.player.game.words + session.words
        app["app"]["args"] = [word.replace("{}", top) for word in words]
        (self.served / "app.json").write_text(json.dumps(app), encoding="utf-8")
        for file in self.served.iterdir():
            lab.read_into_cache(file)
        image, report, frame = self.folder / "streamed", self.folder / "report", self.folder / "frame"
        frame.unlink(missing_ok=True)
        served = Server(self.player.client, self.served, link.rate, LATENCY_MS)
        with self.player.home(session) as home, served as server:
            env = self.product.env | self.player.environment(home, frame)
            line = [self.player.client, "run", image, "--url", server.url, "--now", "--report", report]
            with open(self.folder / "game.log", "wb") as log:
                begin = time.time()
                with lab.program(*line, env=env, log=log, end_by=signal.SIGTERM) as process:
                    lab.wait_until(frame.exists, f"{session.name} shows a frame", 120)
                    seconds = frame.stat().st_mtime - begin
                    lab.pause(process, PLAY_S)
        figures = json.loads(report.read_text(encoding="utf-8"))
        shutil.rmtree(image)
        return seconds, figures
