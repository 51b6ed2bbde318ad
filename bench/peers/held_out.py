#!/usr/bin/env python3
"""How fast sessions start that an order wasn't made of, and what each further trace brings.

    bench/peers/held_out.py [--recordings DIR] [--fast] [--link MBIT...] [--games NAME...] [--orders NAME...]
                            [--rounds N] [--each] [--check] [--only NAME] [--build DIR] [--dir DIR]

Sessions of three games (support/sessions.py) are played from a mounted, complete image, and traced. In each round some
are held out, and an order is made of 1, 3, 6 and 11 of the others. Then a model of the link (support/link_model.py)
replays those that were held out, and the traced ones, from an image in that order, as `run --now` would play it.

    start     seconds to the first frame, without the game's own
    /ideal    the same in multiples of the session's own ideal: the link's time for just the blocks that it reads until
              then, their share of the packed stretches, and two round trips; mean and worst of the sessions
    waits     after the first frame: how many and seconds, on the mean; of sessions of 40 s, and of those of 5 minutes
    demand    bytes that came out of the stream's order, in hundredths of those that the session uses
    unused    MB that were there at the first frame and are never used
    requests  beside the stream

The orders: ours; `today`, that of a merged trace before the order learned from single runs; `random`; and `files`,
whole files by first access in the same traces, as `mksquashfs -sort` lays them down. There 128 KiB of a file are needed
together, and small files lie where the disk has them. Rows of traced sessions say how these start themselves, alone and
with eleven others traced.

To play all sessions takes an hour. `--recordings` keeps what was played, and uses what is there. `--fast` is for trying
orders: ours alone, at 20 Mbit/s, with estimated sizes of stretches. `--each` has a row for each session. `--check`
compares the model with `run --now` instead. Needs root; what it starts, mounts and writes is gone at the end, but for
recordings that are kept.
"""

import argparse
import array
import contextlib
import shutil
import statistics
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
import lab  # noqa: E402
import orders  # noqa: E402
from frames import STRETCH, Packer, estimate  # noqa: E402
from game import screen  # noqa: E402
from hints import read_core, read_groups  # noqa: E402
from link import Link  # noqa: E402
from model_check import ModelCheck  # noqa: E402
from product import Product  # noqa: E402
from recorder import Recordings, record_missing  # noqa: E402
from replay import Placed, Replay, Session  # noqa: E402
from sessions import GAMES, LONG_S, TRAINED, rounds  # noqa: E402
from traces import BLOCK, NO_ENTRY, read_app, read_map  # noqa: E402

OURS, TODAY, RANDOM, FILES = ORDERS = ["ours", "today", "random", "files"]
BESIDE = 12  # traced sessions, of which each has eleven others beside


class Bench:
    """A game: its recordings, and what the model says of orders by them."""

    def __init__(self, recordings, product, options, folder):
        self.recordings, self.product, self.options, self.folder = recordings, product, options, folder
        self.game, self.image = recordings.game, recordings.image
        self.map = read_map(self.image)
        self.n_front = read_app(self.image)["disk"]["sizeMnt"] // BLOCK
        self.front = set(orders.front_of(self.map, self.n_front))
        self.sessions = {name: self.load(found) for name, found in recordings.of.items() if found.exists()}
        self.packer = Packer(self.image, self.map)
        self.weights = self.read_weights() if options.fast else None
        self.files = None

    def load(self, recording):
        """What the session has read of content, as one read what came at once and in a row."""
        reads, start, known = [], None, set()
        last_at = last_block = None
        for block, at in recording.items():
            if block in self.front or block in known or block >= len(self.map) or self.map[block] == NO_ENTRY:
                continue
            known.add(block)
            if start is None:
                start = last_at = at
            if reads and at == last_at and block == last_block + 1:
                reads[-1][0].append(block)
            else:
                reads.append(([block], max(at - last_at, 0.0)))
                last_at = max(at, last_at)
            last_block = block
        own_s = recording.frame_ms / 1000 - start
        return Session(recording.session.name, reads, own_s, recording.session.seconds)

    def read_weights(self):
        """They take a while, and stay with the recordings, for the same build of the game."""
        file = self.recordings.folder / f"weights-{read_app(self.image)['checksums']['mnt']}"
        weights = array.array("d")
        if file.exists():
            weights.frombytes(file.read_bytes())
        else:
            weights = self.packer.weights()
            file.write_bytes(weights.tobytes())
        return weights

    # -- orders

    def place(self, name, trained, number):
        """The image in the order of that name by these sessions."""
        groups, core = None, 0
        traces = [self.recordings.of[session].trace for session in trained]
        if name == OURS:
            index = self.folder / "index"
            self.product.tavrin("image", "order", self.image, *traces, index, "--quiet")
            order, groups, core = read_map(index), read_groups(index), read_core(index)
            shutil.rmtree(index)
        elif name == TODAY:
            merged = self.folder / "merged"
            self.product.tavrin("trace", "merge", merged, *traces, "--quiet")
            order = orders.today(self.map, self.n_front, merged)
            # Its load profile asked for all that was read.
            read = (block for session in trained for block in self.sessions[session].blocks)
            core = max(order[block] for block in read) // STRETCH + 1
            shutil.rmtree(merged)
        elif name == RANDOM:
            order = orders.shuffled(self.map, self.n_front, f"{self.game.name} {number}")
        else:
            reads = [self.sessions[session].reads for session in trained]
            runs = [[raw for blocks, _ in run for raw in blocks] for run in reads]
            order = self.get_files().in_order(self.map, self.n_front, runs)
        sizes = self.packer.sizes(order) if self.weights is None else estimate(order, self.weights)
        return Placed(order, sizes, self.n_front, self.weights, groups, core)

    def get_files(self):
        if not self.files:
            self.files = orders.Files(self.image, self.map, self.recordings.source)
        return self.files

    def replay(self, name, session, placed, rate):
        session = self.sessions[session]
        if name == FILES:
            session = session.in_units(self.get_files().unit_of)
        return Replay(session, placed, rate).run()

    # -- rounds

    def measure(self, links):
        """By order, link and number of traced sessions: results of the sessions that were held out, and of traced
        ones; each with the session's name."""
        found = {}
        for number, (held, others) in enumerate(rounds(self.game)):
            if number >= self.options.rounds:
                break
            plans = [(n, others[:n], held, others[:1] if n == 1 else []) for n in TRAINED]
            plans.append((BESIDE, [*others[: BESIDE - 1], held[0]], [], [*others[: BESIDE - 1], held[0]]))
            for name in self.options.orders:
                for n, trained, untraced, traced in plans:
                    # A random order is the same for all numbers.
                    is_needed = name in (OURS, TODAY) or (n in TRAINED and name == FILES) or n == TRAINED[0]
                    if is_needed and all(session in self.sessions for session in [*trained, *untraced]):
                        self.measure_plan(found, name, number, n, trained, untraced, traced, links)
        return found

    def measure_plan(self, found, name, number, n, trained, untraced, traced, links):
        placed = self.place(name, trained, number)
        for link in links:
            for kind, sessions in (("untraced", untraced), ("traced", traced)):
                results = found.setdefault((name, link.mbit, kind, n), [])
                results += [(session, self.replay(name, session, placed, link.rate)) for session in sessions]


HEAD = (
    f"    {'order':<8}{'traced':>7}{'':<10}{'start':>8}{'/ideal':>8}{'worst':>7}{'waits':>7}{'s':>7}"
    f"{'5 min':>7}{'s':>7}{'demand':>8}{'unused':>8}{'requests':>10}"
)


def mean(values):
    return statistics.mean(values) if values else float("nan")


def cells(bench, results):
    """The figures of some sessions, each with its name."""
    is_long = {session: bench.sessions[session].seconds == LONG_S for session, _ in results}
    short = [result.waits for session, result in results if not is_long[session]]
    long = [result.waits for session, result in results if is_long[session]]
    each = [result for _, result in results]
    ratios = [result.over_ideal for result in each]
    text = f"{mean([result.start_s for result in each]):>8.2f}{mean(ratios):>8.2f}{max(ratios):>7.2f}"
    for of in (short, long):
        seconds = [sum(wait.seconds for wait in waits) for waits in of]
        text += f"{mean([len(waits) for waits in of]):>7.0f}{mean(seconds):>7.2f}" if of else f"{'':>14}"
    demand = mean([100 * (result.demanded + result.along) / result.used for result in each])
    unused = mean([result.unused_early / 1e6 for result in each])
    return f"{text}{demand:>7.0f}%{unused:>8.2f}{mean([result.n_requests for result in each]):>10.0f}"


def print_rows(bench, found, link):
    print(f"\n{bench.game.name}, {link}\n{HEAD}")
    for (name, mbit, kind, n), results in found.items():
        if mbit != link.mbit or not results:
            continue
        print(f"    {name:<8}{n:>7} {kind:<9}{cells(bench, results)}", flush=True)
        for session, result in results if bench.options.each else []:
            print(f"      {session:<23}{cells(bench, [(session, result)])}", flush=True)


def judge(bench, found, links, table):
    """The goals that an order of single runs has."""
    for link in links:
        factor_s = 0.0 if link.mbit <= 20 else 0.3

        def over(kind, n, of=OURS, mbit=link.mbit, extra=factor_s):
            return [max(each.start_s - extra, 0.0) / each.ideal_s for _, each in found.get((of, mbit, kind, n), [])]

        name = f"{bench.game.name}, {link.mbit} Mbit/s"
        more = " less 0.3 s" if factor_s else ""
        for n in (n for n in TRAINED if n >= 3 and over("untraced", n)):
            limit = 1.4 if n == 11 and link.mbit <= 20 else 1.5
            table.limit(f"  {name}: {n} traced, mean{more}", "ideals", mean(over("untraced", n)), limit)
            table.limit(f"  {name}: {n} traced, worst{more}", "ideals", max(over("untraced", n)), 2)
        if link.mbit <= 20:
            for n, limit in ((1, 1.0), (BESIDE, 1.3)):
                if over("traced", n):
                    table.limit(f"  {name}: traced, {n - 1} beside", "ideals", mean(over("traced", n)), limit)
        means = [(n, mean(over("untraced", n, extra=0.0))) for n in TRAINED if over("untraced", n)]
        for (fewer, before), (n, after) in zip(means, means[1:], strict=False):
            table.limit(f"  {name}: {n} traced over {fewer}", "times", after / before, 1.05)
        judge_waits(bench, found, link, table, name)


def judge_waits(bench, found, link, table, name):
    for n in TRAINED:
        seconds = []
        for of in (OURS, TODAY):
            results = found.get((of, link.mbit, "untraced", n), [])
            long = [each for session, each in results if bench.sessions[session].seconds == LONG_S]
            seconds.append(sum(wait.seconds for each in long for wait in each.waits))
        if seconds[1] > 0 and link.mbit <= 20:
            table.limit(f"  {name}: {n} traced, waits", "s", seconds[0], seconds[1] / 2)


def parse_arguments():
    names = [game.name for game in GAMES]
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--recordings", type=Path, metavar="DIR", help="keeps what was played; uses what is there")
    parser.add_argument("--fast", action="store_true", help="ours alone, at 20 Mbit/s, with estimated sizes")
    parser.add_argument("--link", type=int, nargs="+", metavar="MBIT", help="Mbit/s (20 100)")
    text = "of " + ", ".join(names)
    parser.add_argument("--games", nargs="*", default=names, choices=names, metavar="NAME", help=text)
    parser.add_argument("--orders", nargs="+", choices=ORDERS, metavar="NAME", help="of " + ", ".join(ORDERS))
    parser.add_argument("--each", action="store_true", help="a row for each session, too")
    parser.add_argument("--check", action="store_true", help="compares the model with the client instead")
    parser.add_argument("--rounds", type=int, default=99, metavar="N", help="the first N rounds only")
    build = Path(__file__).resolve().parents[2] / "build/bench"
    parser.add_argument("--build", type=Path, default=build, metavar="DIR", help="of the programs")
    parser.add_argument("--dir", type=Path, default=Path(tempfile.gettempdir()), metavar="DIR", help="where files go")
    parser.add_argument("--only", default="", metavar="NAME", help="for the others: this one has the name \"held out\"")
    # What else is meant for the other benchmarks has no meaning here.
    options, _ = parser.parse_known_args()
    options.link = options.link or ([20] if options.fast else [20, 100])
    options.orders = options.orders or ([OURS] if options.fast else ORDERS)
    options.build = options.build.resolve()
    return options


def main():
    options = parse_arguments()
    if not any(part in "held out" for part in options.only.split("|")):
        return
    lab.need_root()
    lab.end_by_exception()
    table = lab.Table()
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-order-", dir=options.dir)).resolve()
        stack.callback(shutil.rmtree, folder)
        product = stack.enter_context(Product(options.build, folder / "product"))
        kept = (options.recordings or folder / "recordings").resolve()
        all_recordings = []
        for game in (game for game in GAMES if game.name in options.games):
            missing = [source for source, _ in game.files if not Path(source).exists()]
            if missing:
                print(f"left out: {game.name}: not installed here: {', '.join(missing)}")
                continue
            all_recordings.append(Recordings(game, kept / game.name))
            all_recordings[-1].prepare(product)
        if not options.fast:
            options.display = stack.enter_context(screen())
            record_missing(all_recordings, product, options, folder)
        links = [Link(mbit) for mbit in options.link]
        for recordings in all_recordings:
            bench = Bench(recordings, product, options, folder)
            if options.check:
                ModelCheck(bench, folder).check(Link(20), table)
                continue
            found = bench.measure(links)
            for link in links:
                print_rows(bench, found, link)
            judge(bench, found, links, table)
    table.close()


if __name__ == "__main__":
    main()
