#!/usr/bin/env python3
"""Documents of a fleet's runs, one a line, from a seed: records of runs, `runtime.json`, and what a statistics service
has joined of its documents.

    bench/peers/support/fleet_records.py DIR [--runs N] [--files N] [--full SHARE] [--orders N] [--seed N]
"""

import argparse
import math
import random
from pathlib import Path

BLOCK = 4096
GUID = "B7E6A1C0-3D52-4F7B-9A11-5C2E8D40F6A3"
TIME0 = 1_790_000_000_000
SYSTEMS = ("Debian GNU/Linux 12 (bookworm), kernel 6.1.0-28-amd64", "Ubuntu 24.04.1 LTS, kernel 6.8.0-49-generic",
           "SteamOS 3.6.20, kernel 6.5.0-valve22", "Arch Linux, kernel 6.12.1-arch1-1", "Fedora Linux 41, kernel 6.11.8")
SPEEDS = (8, 18, 40, 80, 200, 500)  # megabits per second, a typical one of each class


def digest(source):
    return f"{source.getrandbits(128):032x}"


class Fleet:
    """Orders of a build, of which each later one is a little better, and what runs with them are like."""

    def __init__(self, seed, n_orders):
        self.source = random.Random(seed)
        self.build = digest(self.source)
        self.orders = [digest(self.source) for _ in range(n_orders)]

    def run(self, number):
        """The figures of one run, as the record of a run has them."""
        source = self.source
        order = source.randrange(len(self.orders))
        worse = 1 + 0.5 * (len(self.orders) - 1 - order)
        speed = round(source.choice(SPEEDS) * source.lognormvariate(0, 0.25), 6)
        prefix = int(60e6 * source.lognormvariate(0, 0.05) * worse)
        start_ms = int(prefix * 8 / speed / 1e3 * source.lognormvariate(0, 0.2)) + source.randrange(300, 900)
        failed = source.random() < 0.01
        frame_ms = start_ms + source.randrange(800, 6000)
        length_ms = frame_ms + int(source.lognormvariate(14, 0.9))
        underflows = int(source.expovariate(1 / (4 * worse * math.sqrt(50 / speed))))
        brought = int(source.uniform(0.3, 1) * 2e9) // BLOCK * BLOCK
        used = int(brought * min(1, source.gauss(0.62, 0.06) / math.sqrt(worse))) // BLOCK * BLOCK
        late = int(used * source.uniform(0, 0.03) * worse) // BLOCK * BLOCK
        n_fetches = underflows * 3 + source.randrange(4)
        values = source.getrandbits(128)
        return {
            "id": f"{values:032X}", "order": self.orders[order], "time0": TIME0 + number * 4001 + source.randrange(4000),
            "nStarts": source.randrange(1, 40), "runTime": 0 if failed else length_ms // 1000, "preloadSize": prefix,
            "timeToStart": 0 if failed else start_ms // 1000, "timeToReady": 0 if failed else frame_ms // 1000,
            "dataAtStart": prefix, "dataAtEnd": prefix + brought, "avgSpeed": speed,
            "maxSpeed": round(speed * 1.3, 6), "sigmaSpeed": round(speed * 0.11, 6), "nUnderflows": underflows,
            "avgUnderflowTime": source.randrange(80, 400), "nOnDemandFetches": n_fetches,
            "exitCode": source.choice((0, 0, 0, 0, 0, 0, 1, 139)), "startErr": failed,
            "endErr": not failed and source.random() < 0.02, "stopped": source.random() < 0.04,
            "startMs": -1 if failed else start_ms, "firstFrameMs": frame_ms, "lengthMs": length_ms,
            "hasFrame": not failed and source.random() < 0.7, "brought": brought, "earlyUsed": used, "late": late,
            "thereBefore": prefix // BLOCK * BLOCK, "winVer": source.choice(SYSTEMS),
            "hasTrace": not failed and source.random() < 0.5,
        }

    def runtime(self, run):
        """The keys of `runtime.json`, without the braces."""
        return (
            f'"version":2,"guid":"{GUID}","time0":{run["time0"]},"nStarts":{run["nStarts"]},"runTime":{run["runTime"]},'
            f'"preloadSize":{run["preloadSize"]},"timeToStart":{run["timeToStart"]},"dataAtStart":{run["dataAtStart"]},'
            f'"dataAtEnd":{run["dataAtEnd"]},"downloadFromZero":true,"downloadComplete":false,'
            f'"avgSpeed":{run["avgSpeed"]},"sigmaSpeed":{run["sigmaSpeed"]},"reqSpeed":12.5,"prefetchSizeMB":40,'
            f'"nUnderflows":{run["nUnderflows"]},"avgUnderflowTime":{run["avgUnderflowTime"]},"avgUnderflowSize":204800,'
            f'"maxUnderflowTime":{run["avgUnderflowTime"] * 3},"maxUnderflowSize":819200,'
            f'"nOnDemandFetches":{run["nOnDemandFetches"]},"avgOnDemandSize":204800,"avgOnDemandTime":120,'
            f'"maxOnDemandTime":900,"avgOnDemandQueue":2,"maxOnDemandQueue":9,"exitCode":{run["exitCode"]}')

    def record(self, run):
        flag = ("false", "true")
        text = (
            f'{{{self.runtime(run)},"id":"{run["id"]}","build":"{self.build}","order":"{run["order"]}",'
            f'"rteVer":"0.1.0","winVer":"{run["winVer"]}","imgSize":4294967296,"timeToReady":{run["timeToReady"]},'
            f'"maxSpeed":{run["maxSpeed"]},"coverage":0.31,"startErr":{flag[run["startErr"]]},'
            f'"endErr":{flag[run["endErr"]]},"stopped":{flag[run["stopped"]]},'
            f'"sumOnDemandSize":{run["nOnDemandFetches"] * 204800},"lengthMs":{run["lengthMs"]},"startMs":{run["startMs"]},'
            + (f'"firstFrameMs":{run["firstFrameMs"]},' if run["hasFrame"] else "") +
            f'"mountMs":412,"traceFolder":"","driveFailure":"","bytesOnDemand":{run["nOnDemandFetches"] * 204800},'
            f'"bytesReceived":{run["brought"]},"bytesTwice":0,"requests":{run["nOnDemandFetches"] + 3},"retries":0,'
            f'"packed":true,"missingBytes":0')
        if run["hasTrace"]:
            text += (
                f',"accuracy":{{"judgedMs":{run["lengthMs"]},"brought":{run["brought"]},"earlyUsed":{run["earlyUsed"]},'
                f'"earlyUnused":{run["brought"] - run["earlyUsed"]},'
                f'"read":{run["late"] + run["thereBefore"] + run["earlyUsed"]},"late":{run["late"]},'
                f'"thereBefore":{run["thereBefore"]},"waits":{run["nUnderflows"]},"waitedMs":{run["nUnderflows"] * 210}}}')
        return text + "}"

    def joined(self, run):
        """A first report and a later one, as a service has stored them."""
        error = '"startErr":true,' if run["startErr"] else '"endErr":true,' if run["endErr"] else ""
        text = f'{{"id":"{run["id"]}","orgName":"",{error}"rteVer":"0.1.0 3.4.10","zqddVer":"0.1.0","zqfmVer":"0.1.0"'
        if run["runTime"] > 0:
            text += (f',"rt":{{"tStartSec":{run["timeToStart"]},"tTotalSec":{run["runTime"]},"exit":{run["exitCode"]}}}'
                     f',"dl":{{"throughputAvgBps":{run["avgSpeed"] * 1e6:.1f},'
                     f'"throughputSigmaBps":{run["sigmaSpeed"] * 1e6:.1f},"throughputMaxBps":{run["maxSpeed"] * 1e6:.1f},'
                     f'"throughputReqBps":12500000.0,"preloadBytes":{run["preloadSize"]},"tReadySec":{run["timeToReady"]},'
                     f'"initialDl":true,"dlFinished":false,"idx0":{run["dataAtStart"]},"idx1":{run["dataAtEnd"]},'
                     f'"imgSize":4294967296}}')
        if run["nOnDemandFetches"] > 0:
            text += (f',"odr":{{"n":{run["nOnDemandFetches"]},"tMaxSec":0.9,"tAvgSec":0.12,"sizeAvgBytes":204800,'
                     f'"sizeAvgQ":2,"sizeMaxQ":9,"nFailed":{run["nUnderflows"]}}}')
        return text + "}"


def write(folder, n_runs, n_files=8, full=0.2, n_orders=2, seed=1):
    """Writes the files and gives their names. `full`: the share of records of runs; of the rest three in eight are
    `runtime.json`."""
    fleet = Fleet(seed, n_orders)
    choice = random.Random(seed + 1)
    names = [Path(folder) / f"runs-{i:02}.jsonl" for i in range(n_files)]
    files = [open(name, "w", encoding="utf-8") for name in names]
    for number in range(n_runs):
        run = fleet.run(number)
        kind = choice.random()
        if kind < full:
            line = fleet.record(run)
        elif kind < full + (1 - full) * 3 / 8:
            line = f"{{{fleet.runtime(run)}}}"
        else:
            line = fleet.joined(run)
        files[number % n_files].write(line + "\n")
    for file in files:
        file.close()
    return names


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", metavar="DIR", type=Path)
    parser.add_argument("--runs", type=int, default=2000)
    parser.add_argument("--files", type=int, default=1)
    parser.add_argument("--full", type=float, default=1, help="share of records of runs")
    parser.add_argument("--orders", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    options.folder.mkdir(parents=True, exist_ok=True)
    write(options.folder, options.runs, options.files, options.full, options.orders, options.seed)


if __name__ == "__main__":
    main()
