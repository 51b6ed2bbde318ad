#!/usr/bin/env python3
"""Has real programs write to drives, kills the drives' service while others do, and prints what came of it as a table.
Exits with 1 if a program fails, a file system isn't sound, or something is missing that was acknowledged."""

import argparse
import contextlib
import fnmatch
import functools
import os
import random
import shutil
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "bench/peers/support"))

# ruff: noqa: E402 -- what follows needs the path
import drive as drives
import kills
import lab
import programs

PROGRAMS = ["sqlite3", "git", "fio", "tar", "unzip", "e2fsck", "setpriv"]
HEADS = ["case", "mode", "seed", "figures", "time, s", "passed"]


def make_cases():
    """Pairs of a name and what is called with a drive that isn't mounted, and a seed."""
    yield "sqlite, WAL", functools.partial(programs.sqlite, "WAL")
    yield "sqlite, rollback", functools.partial(programs.sqlite, "DELETE")
    yield "postgresql", programs.postgresql
    yield "git", programs.git
    for job in programs.FIO:
        yield f"fio, {job}", functools.partial(programs.fio, job)
    yield "tar", functools.partial(programs.unpack, programs.pack_tar, programs.TAR)
    yield "unzip", functools.partial(programs.unpack, programs.pack_zip, programs.UNZIP)
    yield "kill, postgresql", programs.kill_under_postgresql


def plan(options):
    """Names, modes, seeds and calls of all that is to be done. The kills take both modes in turn, each with a seed of
    its own, which is that of the whole for the first: `--only 'kill 1' --seed N --modes MODE` repeats one."""
    for name, call in make_cases():
        for mode in options.modes:
            yield name, mode, options.seed, call
    for number in range(kills.N_KILLS):
        mode = options.modes[number % len(options.modes)]
        yield f"kill {number + 1}", mode, options.seed + number, kills.kill_while_writing


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--client", type=Path, default=ROOT / "build/release/bin/tavrin", metavar="FILE")
    parser.add_argument("--only", default="*", metavar="PATTERN", help="cases whose name fits, such as 'kill*'")
    parser.add_argument("--modes", nargs="+", default=drives.MODES, choices=drives.MODES)
    parser.add_argument("--seed", type=int, help="of everything that is left to chance; else another one each time")
    parser.add_argument("--keep", type=Path, metavar="DIR", help="where the folders of cases that fail go")
    parser.add_argument("--table", type=Path, metavar="FILE", help="the table goes there, too")
    parser.add_argument("--list", action="store_true", help="only the cases' names")
    options = parser.parse_args()
    options.client = options.client.resolve()
    if options.seed is None:
        options.seed = random.randrange(1_000_000)
    return options


def keep(folder, options, name, mode):
    if options.keep:
        kept = options.keep / f"{name}, {mode}".replace(", ", "-").replace(" ", "-")
        shutil.rmtree(kept, ignore_errors=True)
        shutil.copytree(folder, kept, symlinks=True, ignore=shutil.ignore_patterns("root", "socket"))


def before(error):
    return error.__cause__ or (None if error.__suppress_context__ else error.__context__)


def tell(error):
    """What went wrong first, then what went wrong because of it."""
    text = f"{type(error).__name__}: {error}"
    return f"{tell(before(error))}; then {text}" if before(error) else text


def is_end(error):
    """Whether somebody has ended the script, and what followed is only because of that."""
    return error is not None and (isinstance(error, (KeyboardInterrupt, SystemExit)) or is_end(before(error)))


def attempt(options, template, folder, name, mode, seed, call):
    """Gives the row of the table, and the fault or nothing."""
    folder.mkdir(mode=0o755)
    begin, figures, fault = time.monotonic(), "–", None
    try:
        with drives.Drive(options.client, template, folder, mode) as drive:
            try:
                figures = call(drive, seed)
                if drive.mounted:
                    drive.unmount()
            except Exception:
                if not drive.too_long:
                    raise
                raise RuntimeError(f"not done in {drives.LIMIT_SECONDS} s; the drive was killed") from None
    except Exception as error:  # noqa: BLE001 -- whatever it is, the next case can still be tried
        if is_end(error):
            raise
        fault = tell(error)
        keep(folder, options, name, mode)
    shutil.rmtree(folder)
    passed = f"no: {fault.splitlines()[0]}" if fault else "yes"
    return [name, mode, str(seed), figures, f"{time.monotonic() - begin:.1f}", passed], fault


def line(cells):
    return f"| {' | '.join(cells)} |"


def main():
    options = parse_arguments()
    chosen = [case for case in plan(options) if fnmatch.fnmatch(case[0], options.only)]
    if options.list:
        print("\n".join(dict.fromkeys(name for name, *_ in chosen)))
        return
    lab.need_root()
    lab.end_by_exception()
    missing = [program for program in PROGRAMS if not shutil.which(program)]
    missing += [] if list(Path("/usr/lib/postgresql").glob("*/bin/pg_amcheck")) else ["postgresql"]
    if missing:
        sys.exit(f"not installed: {', '.join(missing)}")
    os.umask(0o022)
    table, n_failed = [line(HEADS), "|---" * len(HEADS) + "|"], 0
    print("\n".join(table), flush=True)
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-storage-")).resolve()
        stack.callback(shutil.rmtree, folder, ignore_errors=True)
        folder.chmod(0o755)  # a database server isn't root
        template = drives.build(options.client, folder)
        for case in chosen:
            cells, fault = attempt(options, template, folder / "case", *case)
            table.append(line(cells))
            print(table[-1], flush=True)
            if fault:
                n_failed += 1
                print(f"{case[0]}, {case[1]}, seed {case[2]}: {fault}", file=sys.stderr, flush=True)
            if options.table:
                options.table.write_text("\n".join(table) + "\n", encoding="utf-8")
    print(f"{n_failed} failed", file=sys.stderr)
    sys.exit(1 if n_failed else 0)


if __name__ == "__main__":
    main()
