"""The model of the link against the client itself."""

import json
import shutil
import signal
import time

import lab
from link import LATENCY_MS, Server
from product import APP
from recorder import Player
from replay import Placed, Replay
from sessions import rounds
from traces import BLOCK, packed_sizes, read_app, read_map

N_TRAINED = 3
PLAY_S = 5  # after the first frame


class ModelCheck:
    """Three sessions of a game, two of them untraced, each started by `run --now` from an image that three traces have
    ordered. `load` gives a session as the model replays it."""

    def __init__(self, recordings, product, options, folder, load):
        self.recordings, self.product, self.options, self.folder = recordings, product, options, folder
        self.player = Player(recordings, product, options, folder)
        self.load = load
        self.served = folder / "served"

    def prepare(self):
        """The ordered image and its packed form. Gives the sessions to start."""
        held, others = next(rounds(self.recordings.game))
        trained = others[:N_TRAINED]
        merged = self.folder / "merged"
        traces = [self.recordings.of[name].trace for name in trained]
        self.product.tavrin("trace", "merge", merged, *traces, "--quiet")
        words = ["--order", merged, "--cmd", "game", "--quiet"]
        self.product.tavrin("image", "build", self.recordings.source, self.served, *words)
        self.product.tavrin("image", "pack", self.served, "--level", 3, "--quiet")
        shutil.rmtree(merged)
        return [*held[:2], trained[0]]

    def check(self, link, table):
        """Prints both times for each session, and the model's error on the mean."""
        errors = []
        for name in self.prepare():
            recording = self.recordings.of[name]
            session = self.load(recording)
            app = read_app(self.served)
            order = read_map(self.served)
            # In front of the stretches' frames is one that says of which image they are.
            sizes = packed_sizes(self.served / "img.zqf.zst")[1:]
            model = Replay(session, Placed(order, sizes, app["disk"]["sizeMnt"] // BLOCK), link.rate).run()
            seconds, report = self.run(recording.session, app, link)
            real = seconds - session.own_s
            errors.append(abs(model.start_s - real) / real)
            print(
                f"  {self.recordings.game.name}, {name}: first frame {real:.2f} s, by the model {model.start_s:.2f} s "
                f"({100 * (model.start_s / real - 1):+.0f} %); on demand {report['bytesOnDemand'] / 1e6:.1f} MB in "
                f"{report['nOnDemandFetches']}, {model.demanded / 1e6:.1f} MB in {model.n_requests}, {model.along / 1e6:.1f} "
                f"along; own {session.own_s:.2f} s, ideal {model.ideal_s:.2f} s",
                flush=True,
            )
        mean = 100 * sum(errors) / len(errors)
        table.limit(f"  {self.recordings.game.name}: error of the model", "%", mean, 15, 0)
        shutil.rmtree(self.served)

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
        with self.player.home(session) as home, Server(self.player.client, self.served, link.rate, LATENCY_MS) as server:
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
