#!/usr/bin/env python3
"""Plays a game with the client from real web servers, through real middleboxes and over links that go wrong, one case
at a time, and prints what came of it as a table. Bytes received are those over the size of the file that was fetched;
a game waits for a file of at most 480 KB. Exits with 1 if a case gives wrong bytes, a wrong exit code, or hangs."""

import argparse
import contextlib
import fnmatch
import shutil
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "bench/peers/support"))

# ruff: noqa: E402 -- what follows needs the path
import lab
import readgame
import report
from authority import Authority
from cases import CASES, FORMS
from ground import Ground
from product import APP, Product
from trial import Trial

PROGRAMS = ["nginx", "apache2", "lighttpd", "haproxy", "varnishd", "squid", "busybox", "caddy", "tinyproxy", "openssl"]


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--client", type=Path, default=ROOT / "build/release/bin/tavrin", metavar="FILE")
    parser.add_argument("--only", default="*", metavar="PATTERN", help="cases whose name fits, such as 'nginx*'")
    parser.add_argument("--but", nargs="+", default=[], metavar="PATTERN", help="not those whose name fits one of these")
    parser.add_argument("--forms", nargs="+", default=FORMS, choices=FORMS)
    parser.add_argument("--keep", type=Path, metavar="DIR", help="where the folders of cases that fail go")
    parser.add_argument("--table", type=Path, metavar="FILE", help="a short table, with a line for each case")
    parser.add_argument("--list", action="store_true", help="only the cases' names")
    options = parser.parse_args()
    options.client = options.client.resolve()
    return options


def publish(options, folder):
    """Builds the game's image, plain and packed. Gives the folder for the servers."""
    source, www = folder / "source", folder / "www"
    source.mkdir()
    readgame.make(source)
    with Product(options.client.parent.parent, folder / "publisher") as product:
        product.client = options.client
        program = "{{ZQDRIVE}}/" + f"{APP}/{readgame.PROGRAM}"
        words = ["--cmd", readgame.PYTHON, f"--arg={program}", "--quiet"]
        www.mkdir()
        product.tavrin("image", "build", source, www / "plain", *words)
        shutil.copytree(www / "plain", www / "packed")
        product.tavrin("image", "pack", www / "packed", "--level", 9, "--quiet")
    for path in [folder, www, *www.rglob("*")]:
        path.chmod(0o755 if path.is_dir() else 0o644)
    return www


def attempt(case, form, options, folder, www, authority):
    folder.mkdir()
    folder.chmod(0o755)
    with Ground(folder, www, authority) as ground:
        site = case.arrange(ground)
        trial = folder / "trial"
        trial.mkdir()
        outcome = Trial(case, form, options.client, trial, www / form).run(site)
    if outcome.faults and options.keep:
        name = f"{case.name}, {form}".replace("/", "-").replace(" ", "-")
        shutil.rmtree(options.keep / name, ignore_errors=True)
        left_out = shutil.ignore_patterns("img.zqf", "mirror*", "root", "*-slices", "*-whole")
        shutil.copytree(folder, options.keep / name, ignore=left_out, symlinks=True)
    shutil.rmtree(folder)
    return outcome


def main():
    options = parse_arguments()
    chosen = [case for case in CASES if fnmatch.fnmatch(case.name, options.only)]
    chosen = [case for case in chosen if not any(fnmatch.fnmatch(case.name, pattern) for pattern in options.but)]
    if options.list:
        print("\n".join(case.name for case in chosen))
        return
    lab.need_root()
    lab.end_by_exception()
    missing = [program for program in PROGRAMS if not shutil.which(program)]
    if missing:
        sys.exit(f"not installed: {', '.join(missing)}")
    failed, short = [], [report.heads(report.SHORT)]
    print(report.heads(), flush=True)
    with contextlib.ExitStack() as stack:
        folder = Path(tempfile.mkdtemp(prefix="tavrin-servers-")).resolve()
        stack.callback(shutil.rmtree, folder, ignore_errors=True)
        www, authority = publish(options, folder), Authority(folder / "authority")
        for case in chosen:
            outcomes = []
            for form in (form for form in case.forms if form in options.forms):
                outcomes.append(attempt(case, form, options, folder / "case", www, authority))
                print(report.row(outcomes[-1]), flush=True)
                if outcomes[-1].faults:
                    print(f"{case.name}, {form}: {outcomes[-1].told}", file=sys.stderr, flush=True)
            failed += [outcome for outcome in outcomes if outcome.faults]
            if outcomes:
                short.append(report.short_row(outcomes))
            if options.table:
                options.table.write_text("\n".join(short) + "\n", encoding="utf-8")
    print(f"{len(failed)} failed", file=sys.stderr)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
