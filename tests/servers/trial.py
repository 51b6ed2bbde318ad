"""One run of the client against one site, and what came of it."""

import contextlib
import hashlib
import json
import signal
import subprocess
import time

import lab
from product import Product

RATES = {"plain": 5_000_000, "packed": 2_500_000}  # bytes per second of the ordered download; the game reads ahead


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "md5").hexdigest()


class Outcome:
    """What a row of the table holds. `faults` are sentences; without one the case has passed."""

    def __init__(self, case, form):
        self.case, self.form, self.faults = case, form, []
        self.client_code = self.game_code = self.image = self.ratio = self.requests = self.fetches = None
        self.longest = self.seconds = None
        self.told_end = False  # whether the run has rightly ended with a failure
        self.told = ""  # the end of what the client has said


class Trial:
    """`case` has its name, its pace and its limit, `served` is the published image's folder."""

    def __init__(self, case, form, client, folder, served):
        self.case, self.client, self.folder, self.served = case, client, folder, served
        self.outcome = Outcome(case.name, form)
        self.image, self.report = folder / "image", folder / "report.json"
        self.played, self.log = folder / "played", folder / "client.log"
        self.process = None
        self.limit = 0.0

    def pause(self, seconds):
        """For what a site does during the game: waits so long, or until the client ends or its time is up."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(max(0.0, min(seconds, self.limit - time.monotonic())))

    def run(self, site):
        with Product(self.client.parent.parent, self.folder / "product") as product:
            product.client = self.client
            try:
                self.play(product, site)
                if self.case.later:
                    self.fetch_rest(product)
            finally:
                with contextlib.suppress(RuntimeError):  # it may have gone with its run
                    product.tavrin("umount", self.image, "--force")
        self.judge()
        if site.moved:
            name = "img.zqf.zst" if self.outcome.form == "packed" else "img.zqf"
            self.outcome.ratio = site.moved() / (self.served / name).stat().st_size
        return self.outcome

    def play(self, product, site):
        env = {name: value for name, value in product.env.items() if not name.lower().endswith("_proxy")}
        env.update(site.env, TAVRIN_PLAYED=str(self.played), TAVRIN_PACE=str(self.case.pace))
        url = site.url + self.outcome.form + site.query
        words = [self.client, "run", self.image, "--url", url, "--now"]
        words += [] if self.case.later else ["--keep-mounted"]
        words += ["--rate", RATES[self.outcome.form], "--report", self.report]
        begin = time.monotonic()
        self.limit = begin + self.case.limit_s
        with open(self.log, "wb") as log, lab.program(*words, env=env, log=log) as self.process:
            while not self.played.exists() and self.process.poll() is None and time.monotonic() < self.limit:
                time.sleep(0.01)
            if site.during:
                site.during(self)
            self.pause(self.limit)
            if self.process.poll() is None:
                self.outcome.faults.append(f"hang: not at its end after {self.case.limit_s} s")
                self.process.send_signal(signal.SIGINT)
                with contextlib.suppress(subprocess.TimeoutExpired):
                    self.process.wait(20)
                if self.process.poll() is None:
                    product.close()  # reads that nobody answers end with the service
        self.outcome.seconds = time.monotonic() - begin
        self.outcome.client_code = self.process.returncode

    def fetch_rest(self, product):
        with open(self.log, "ab") as log:
            words = [str(self.client), "fetch", str(self.image)]
            try:
                fetched = subprocess.run(words, env=product.env, stdout=log, stderr=log, timeout=60, check=False)
            except subprocess.TimeoutExpired:
                self.outcome.faults.append("hang: the rest is not there after 60 s")
                return
        if fetched.returncode != 0:
            self.outcome.faults.append(f"exit code of the fetch {fetched.returncode}")

    def judge(self):
        outcome, faults = self.outcome, self.outcome.faults
        lines = self.log.read_text(encoding="utf-8", errors="replace").splitlines()
        outcome.told = "\n".join(lines[-6:])
        if outcome.client_code != 0:
            faults.append(f"exit code of the client {outcome.client_code}")
        self.judge_game()
        self.judge_image()
        if self.report.exists():
            report = json.loads(self.report.read_text(encoding="utf-8"))
            name = "img.zqf.zst" if outcome.form == "packed" else "img.zqf"
            outcome.ratio = report["bytesReceived"] / (self.served / name).stat().st_size
            outcome.game_code, outcome.requests = report["exitCode"], report["requests"]
            outcome.fetches = report["nOnDemandFetches"]
        if outcome.game_code != 0:
            faults.append(f"exit code of the game {outcome.game_code}")
        if self.case.ends and outcome.client_code == 1 and not self.played.exists() and self.case.ends in outcome.told:
            faults.clear()
            outcome.told_end = True

    def judge_game(self):
        if not self.played.exists():
            self.outcome.faults.append("the game did not begin")
            return
        text = self.played.read_text(encoding="utf-8")
        if not text:
            self.outcome.faults.append("the game was ended")
            return
        result = json.loads(text)
        self.outcome.longest = result["longest"]
        failed = [pair for pair in result["wrong"] if pair[1].startswith("[Errno")]
        wrong = [pair for pair in result["wrong"] if pair not in failed]
        for pairs, what in ((wrong, "WRONG BYTES"), (failed, "failed reads")):
            if pairs:
                self.outcome.faults.append(f"{what} in {len(pairs)} files, first {pairs[0][0]}: {pairs[0][1]}")

    def judge_image(self):
        file, whole = self.image / "img.zqf", self.served / "img.zqf"
        size, total = file.stat().st_size if file.exists() else 0, whole.stat().st_size
        if size < total:
            self.outcome.image = f"{size / total:.0%}"
            self.outcome.faults.append(f"the image is there to {size / total:.0%}")
        elif digest(file) == digest(whole):
            self.outcome.image = "right"
        else:
            self.outcome.image = "WRONG"
            self.outcome.faults.append("WRONG BYTES in the image")
