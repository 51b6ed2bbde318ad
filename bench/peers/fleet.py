#!/usr/bin/env python3
"""The figures of a fleet's runs by `stats collect`, against SQLite.

    bench/peers/fleet.py [--runs N] [--files N] [--rounds N] [--build DIR] [--dir DIR]

A million documents, one a line, in several files that are in the page cache: a fifth are records of runs, the others
`runtime.json` and what a service has stored. `stats collect` reads and joins them, and writes its page. SQLite takes
the same columns out of the same lines by json_extract, joins nothing, and gets the quantiles by window functions. The
numbers of each group must be equal. Values are medians of rounds that both sides make in turn; the time for the page
is what `stats collect` takes besides reading.
"""

import argparse
import json
import re
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True
SUPPORT = Path(__file__).resolve().parent / "support"
sys.path.insert(0, str(SUPPORT))
import fleet_records  # noqa: E402
import lab  # noqa: E402

MB = 1e6
LOAD_S, PAGE_S, MEMORY_MB, RATIO = 10, 2, 700, 2


class Bench:
    def __init__(self, client, folder, names):
        self.client, self.folder, self.names = client, folder, [str(name) for name in names]
        self.loads, self.pages, self.memory = [], [], []

    def ours(self):
        out = self.folder / "ours.txt"
        words = [str(self.client), "stats", "collect", *self.names, "--page", str(self.folder / "page.html")]
        seconds, _, memory = lab.timed(["/bin/sh", "-c", 'out=$0; exec "$@" >"$out"', str(out), *words])
        load = float(re.search(r"read in ([0-9.]+) s", out.read_text(encoding="utf-8"))[1])
        self.loads.append(load)
        self.pages.append(seconds - load)
        self.memory.append(memory)
        return seconds

    def sqlite(self):
        out = self.folder / "sqlite.json"
        out.with_suffix(".json.db").unlink(missing_ok=True)
        script = str(SUPPORT / "fleet_sqlite.py")
        return lab.timed([sys.executable, "-S", script, str(out), *self.names])[0]

    def measure(self, side):
        for name in self.names:
            lab.read_into_cache(name)
        return self.ours() if side == "ours" else self.sqlite()

    def require_equal(self):
        """Numbers are equal but for the last bit of a product."""
        found = subprocess.run([self.client, "stats", "collect", *self.names, "--json"], capture_output=True, text=True,
                               check=True).stdout
        ours = {(group["build"], group["order"]): group for group in map(json.loads, found.splitlines())}
        theirs = json.loads((self.folder / "sqlite.json").read_text(encoding="utf-8"))
        if len(ours) != len(theirs):
            raise RuntimeError(f"{len(ours)} groups against {len(theirs)}")
        for group in theirs:
            require_equal(ours[group["build"], group["order"]], group, f"{group['build']}, {group['order']}")


def require_equal(ours, theirs, place):
    if isinstance(theirs, dict):
        if ours.keys() != theirs.keys():
            raise RuntimeError(f"{place}: {list(ours)} against {list(theirs)}")
        for key in theirs:
            require_equal(ours[key], theirs[key], f"{place}, {key}")
    elif isinstance(theirs, str) or abs(ours - theirs) > 1e-12 * abs(theirs):
        if ours != theirs:
            raise RuntimeError(f"{place}: {ours} against {theirs}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=1_000_000)
    parser.add_argument("--files", type=int, default=8)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--build", type=Path, default=Path(__file__).resolve().parents[2] / "build/bench")
    parser.add_argument("--dir", type=Path, default=None, help="folder for the documents")
    options = parser.parse_args()
    client = options.build / "bin/tavrin"
    if not (options.build / "bin/libduckdb.so").exists():
        print("left out: scripts/fetch-duckdb.sh has fetched no library")
        return
    lab.end_by_exception()
    table = lab.Table()
    with tempfile.TemporaryDirectory(dir=options.dir, prefix="tavrin-fleet-") as name:
        names = fleet_records.write(name, options.runs, options.files)
        size = sum(path.stat().st_size for path in names)
        bench = Bench(client, Path(name), names)
        seconds = lab.interleave(options.rounds, ["ours", "sqlite"], bench.measure)
        bench.require_equal()
        print(f"{options.runs:,} documents, {size / MB:,.0f} MB; the groups' numbers are equal")
        table.limit("read and joined", "s", statistics.median(bench.loads), LOAD_S)
        table.limit("figures and page", "s", statistics.median(bench.pages), PAGE_S)
        table.limit("memory", "MB", max(bench.memory) / MB, MEMORY_MB, 0)
        table.ratio("documents a second", "/s", options.runs / seconds["ours"], "SQLite",
                    options.runs / seconds["sqlite"], RATIO)
    table.close()


if __name__ == "__main__":
    main()
