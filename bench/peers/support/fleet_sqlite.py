#!/usr/bin/env python3
"""The figures of a fleet by SQLite: the columns are taken out of the same lines by json_extract, quantiles come from
window functions. Documents of one run aren't joined, which is less work than `stats collect` does.

    fleet_sqlite.py OUT.json FILE...
"""

import json
import sqlite3
import sys

# Column -> where documents have it; a factor comes after a star.
COLUMNS = {
    "id": "id", "guid": "guid", "time0": "time0", "version": "version", "build": "build", "blockOrder": "order",
    "winVer": "winVer env.winVer", "rteVer": "rteVer", "orgName": "orgName", "nStarts": "nStarts",
    "runTime": "runTime rt.tTotalSec", "preloadSize": "preloadSize dl.preloadBytes",
    "timeToStart": "timeToStart rt.tStartSec", "timeToReady": "timeToReady dl.tReadySec",
    "dataAtStart": "dataAtStart dl.idx0", "dataAtEnd": "dataAtEnd dl.idx1", "imgSize": "imgSize dl.imgSize",
    "downloadFromZero": "downloadFromZero dl.initialDl", "downloadComplete": "downloadComplete dl.dlFinished",
    "avgSpeed": "avgSpeed dl.throughputAvgBps*1e-6", "maxSpeed": "maxSpeed dl.throughputMaxBps*1e-6",
    "sigmaSpeed": "sigmaSpeed dl.throughputSigmaBps*1e-6", "reqSpeed": "reqSpeed dl.throughputReqBps*1e-6",
    "prefetchSizeMB": "prefetchSizeMB", "nUnderflows": "nUnderflows odr.nFailed",
    "avgUnderflowTime": "avgUnderflowTime", "avgUnderflowSize": "avgUnderflowSize",
    "maxUnderflowTime": "maxUnderflowTime", "maxUnderflowSize": "maxUnderflowSize",
    "nOnDemandFetches": "nOnDemandFetches odr.n", "sumOnDemandSize": "sumOnDemandSize",
    "avgOnDemandSize": "avgOnDemandSize odr.sizeAvgBytes", "avgOnDemandTime": "avgOnDemandTime odr.tAvgSec*1e3",
    "maxOnDemandTime": "maxOnDemandTime odr.tMaxSec*1e3", "avgOnDemandQueue": "avgOnDemandQueue odr.sizeAvgQ",
    "maxOnDemandQueue": "maxOnDemandQueue odr.sizeMaxQ", "exitCode": "exitCode rt.exit",
    "coverage": "coverage trc.cov", "startErr": "startErr", "endErr": "endErr", "stopped": "stopped",
    "patchSec": "patchStats.timeSec prep.tPatchSec", "patchBytes": "patchStats.bytes",
    "defragSec": "defragStats.timeSec prep.tDefragSec", "defragBytes": "defragStats.bytes", "lengthMs": "lengthMs",
    "startMs": "startMs", "firstFrameMs": "firstFrameMs", "lastWaitMs": "lastWaitMs", "mountMs": "mountMs",
    "bytesOnDemand": "bytesOnDemand", "bytesReceived": "bytesReceived", "bytesTwice": "bytesTwice",
    "requests": "requests", "retries": "retries", "packed": "packed", "missingBytes": "missingBytes",
    "judgedMs": "accuracy.judgedMs", "brought": "accuracy.brought", "earlyUsed": "accuracy.earlyUsed",
    "earlyUnused": "accuracy.earlyUnused", "bytesRead": "accuracy.read", "late": "accuracy.late",
    "thereBefore": "accuracy.thereBefore", "waits": "accuracy.waits", "waitedMs": "accuracy.waitedMs",
}
START = ("CASE WHEN startMs >= 0 THEN startMs WHEN startMs IS NULL AND runTime > 0 AND NOT coalesce(startErr, 0) "
         "THEN timeToStart * 1000 END")
FRAME = "CASE WHEN firstFrameMs >= 0 THEN firstFrameMs WHEN timeToReady > 0 THEN timeToReady * 1000 END"
SPREADS = {"startMs": START, "firstFrameMs": FRAME, "nUnderflows": "nUnderflows",
           "avgSpeed": "CASE WHEN avgSpeed > 0.000001 THEN avgSpeed END", "preloadSize": "preloadSize"}
COUNTS = {"known": "count(exitCode)", "nonZero": "sum(exitCode <> 0)", "startErr": "sum(coalesce(startErr, 0))",
          "endErr": "sum(coalesce(endErr, 0))", "stoppedKnown": "count(stopped)",
          "stopped": "sum(coalesce(stopped, 0))"}


def extract(places):
    """The expression for a column."""
    values = []
    for place in places.split():
        path, _, factor = place.partition("*")
        values.append(f"json_extract(?1, '$.{path}')" + (f" * {factor}" if factor else ""))
    return values[0] if len(values) == 1 else f"coalesce({', '.join(values)})"


def load(database, names):
    database.execute(f"CREATE TABLE runs ({', '.join(COLUMNS)})")
    insert = f"INSERT INTO runs SELECT {', '.join(map(extract, COLUMNS.values()))}"
    for name in names:
        with open(name, encoding="utf-8") as lines:
            database.executemany(insert, ((line,) for line in lines))
    database.commit()


def count(database):
    """Build and order -> figures, as `stats collect --json` has them."""
    key = "coalesce(build, ''), coalesce(blockOrder, '')"
    groups = {}
    sums = "count(brought), sum(brought), sum(earlyUsed), sum(earlyUnused), sum(bytesRead), sum(late)"
    for row in database.execute(f"SELECT {key}, count(*), {sums}, {', '.join(COUNTS.values())} FROM runs GROUP BY 1, 2"):
        group = groups[row[:2]] = {"build": row[0], "order": row[1], "runs": row[2]}
        judged, brought, used, unused, read, late = row[3:9]
        if judged:
            group["accuracy"] = {"runs": judged, "earlyUsed": used / brought, "earlyUnused": unused / brought,
                                 "late": late / read}
        group["exits"] = dict(zip(COUNTS, row[9:]))
    for name, value in SPREADS.items():
        ranked = (f"SELECT {key}, {value} AS x, row_number() OVER (PARTITION BY {key} ORDER BY {value}) AS r, "
                  f"count(*) OVER (PARTITION BY {key}) AS n FROM runs WHERE {value} IS NOT NULL")
        for build, order, x, r, n in database.execute(
                f"SELECT * FROM ({ranked}) WHERE r IN ((n * 50 + 99) / 100, (n * 90 + 99) / 100, (n * 99 + 99) / 100)"):
            spread = groups[build, order].setdefault(name, {"runs": n})
            for quantile, share in (("median", 50), ("p90", 90), ("p99", 99)):
                if r == (n * share + 99) // 100:
                    spread[quantile] = x
    return list(groups.values())


def main():
    out, *names = sys.argv[1:]
    database = sqlite3.connect(out + ".db", isolation_level="DEFERRED")
    database.execute("PRAGMA journal_mode = OFF")
    database.execute("PRAGMA synchronous = OFF")
    load(database, names)
    with open(out, "w", encoding="utf-8") as file:
        json.dump(count(database), file)


if __name__ == "__main__":
    main()
