"""Kills of the service while programs write, and what the drive holds afterwards of that which was acknowledged."""

import contextlib
import random
import signal
import subprocess
import sys
import time
from pathlib import Path

import lab
import writers

PROGRAM = Path(writers.__file__)
N_KILLS = 20
N_FIRST = 5  # what each writer has had acknowledged before the kill may come
LONGEST_SECONDS = 1.5  # after that
ENDS = [writers.DRIVE_FAILED, -signal.SIGBUS]


def n_done(record):
    return sum(line.startswith(b"done") for line in record.read_bytes().splitlines()) if record.exists() else 0


def await_end(process, kind):
    """Every call on a drive whose service is gone must come back."""
    try:
        code = process.wait(60)
    except subprocess.TimeoutExpired as error:
        raise RuntimeError(f"writer '{kind}' still waits for the drive 60 s after the kill") from error
    if code not in ENDS:
        raise RuntimeError(f"writer '{kind}': exit code {code}")


def write_and_kill(drive, files, records, chance, seed):
    with contextlib.ExitStack() as stack:
        log = stack.enter_context(open(drive.folder / "writers.log", "ab"))
        running = {
            kind: stack.enter_context(lab.program(sys.executable, PROGRAM, kind, files, record, seed, log=log))
            for kind, record in records.items()
        }

        def begun():
            for kind, process in running.items():
                if process.poll() is not None:
                    raise RuntimeError(f"writer '{kind}' has ended; see writers.log")
            return all(n_done(record) >= N_FIRST for record in records.values())

        lab.wait_until(begun, "every writer has had something acknowledged", 60)
        time.sleep(chance.uniform(0, LONGEST_SECONDS))  # the kill comes at any moment
        drive.kill()
        # A drive that has failed has nothing to trim, which is no failure.
        for kind in running.keys() - {writers.Trim.name}:
            await_end(running[kind], kind)


def check(files, records, seed):
    # All are asked for, since one that is left in the middle keeps its file open.
    found = [fault for kind, record in records.items() for fault in writers.KINDS[kind](files, record, seed).faults()]
    if found:
        raise RuntimeError(f"{len(found)} faults: " + "; ".join(found[:5]))


def kill_while_writing(drive, seed):
    """Gives the figures of the trial; raises where something that was acknowledged is missing."""
    chance = random.Random(seed)
    records = {kind: drive.folder / f"{kind}.record" for kind in writers.KINDS}
    write_and_kill(drive, drive.mount(), records, chance, seed)
    drive.bury()
    check(drive.mount(), records, seed)
    check(drive.remount(), records, seed)
    drive.check_volume()
    drive.unmount()
    n_written = sum(n_done(record) for kind, record in records.items() if kind != writers.Trim.name)
    return f"{n_written} acknowledged, {n_done(records[writers.Trim.name])} times trimmed"
