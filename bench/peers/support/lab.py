"""What benchmarks against peers have in common: programs, mounts and loop devices that are gone at the end of a
`with`, whatever happens in it; and figures as a table."""

import contextlib
import ctypes
import json
import os
import signal
import statistics
import subprocess
import sys
import time

MS_RDONLY, MS_NOSUID, MS_NODEV, MNT_DETACH = 1, 2, 4, 2
RUNNING = []  # what `program` has started
LIBC = ctypes.CDLL(None, use_errno=True)


def end_by_exception():
    """Makes a signal that would end the process raise instead, so that everything is cleaned up."""

    def leave(number, _):
        raise SystemExit(128 + number)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, leave)


def run(*words, env=None):
    """Runs a program and gives its standard output; raises with its error text where it fails."""
    outcome = subprocess.run([str(word) for word in words], capture_output=True, text=True, env=env)
    if outcome.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: exit code {outcome.returncode}: {outcome.stderr.strip()}")
    return outcome.stdout


# A process begins with the memory of the one that starts it, as far as the system's figures go: so a small one does.
STARTER = """
import json, os, sys, time
start = time.monotonic()
pid = os.posix_spawnp(sys.argv[1], sys.argv[1:], os.environ, file_actions=[(os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)])
_, status, usage = os.wait4(pid, 0)
print(json.dumps([time.monotonic() - start, status, usage.ru_oublock * 512, usage.ru_maxrss * 1024]))
"""


def timed(words, env=None):
    """Seconds, bytes written, and the most memory of a program, in bytes."""
    seconds, status, written, memory = json.loads(run(sys.executable, "-S", "-c", STARTER, *words, env=env))
    if status != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: status {status}")
    return seconds, written, memory


def wait_until(ready, what, seconds=20):
    limit = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > limit:
            raise RuntimeError(f"waited {seconds} s in vain: {what}")
        time.sleep(0.005)


def pause(process, seconds):
    """Waits so long, or until the program ends."""
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(seconds)


@contextlib.contextmanager
def program(*words, seconds=20, end_by=signal.SIGTERM, log=None, out=None, env=None, cwd=None):
    """A program that runs during the `with`. `log` is a file for what it prints, `out` another one for standard
    output. It is told to end by a signal, and has that many seconds for it."""
    process = subprocess.Popen(
        [str(word) for word in words],
        stdin=subprocess.DEVNULL,
        stdout=log if out is None else out,
        stderr=log,
        env=env,
        cwd=cwd,
        start_new_session=True,  # Ctrl-C is for this script, which ends them in their order
    )
    RUNNING.append(process)
    try:
        yield process
    finally:
        if process.poll() is None:
            process.send_signal(end_by)
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        RUNNING.remove(process)


def kill_programs():
    """Ends all that `program` has started at once, so that no unmounting waits for what they would still read."""
    for process in RUNNING:
        process.kill()


def mounted_at(path):
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        return any(line.split()[4] == str(path) for line in table)


def unmount(path):
    limit = time.monotonic() + 10
    while LIBC.umount2(os.fsencode(path), 0) != 0:
        if ctypes.get_errno() == 22:  # EINVAL: it has gone by itself
            return
        if time.monotonic() > limit:
            LIBC.umount2(os.fsencode(path), MNT_DETACH)
            raise RuntimeError(f"{path} stays busy; it was detached")
        time.sleep(0.01)


@contextlib.contextmanager
def volume(source, kind, folder):
    """A read-only mount by mount(2) itself; mount(8) would put a loop device below a file."""
    folder.mkdir(exist_ok=True)
    if LIBC.mount(os.fsencode(source), os.fsencode(folder), kind.encode(), MS_RDONLY | MS_NOSUID | MS_NODEV, None):
        error = ctypes.get_errno()
        raise OSError(error, f"cannot mount {source} as {kind}: {os.strerror(error)}")
    try:
        yield folder
    finally:
        unmount(folder)


@contextlib.contextmanager
def loop(file, direct):
    """A read-only loop device."""
    device = run("losetup", "--read-only", "--find", "--show", f"--direct-io={'on' if direct else 'off'}", file).strip()
    try:
        yield device
    finally:
        run("losetup", "--detach", device)


def drop_caches():
    os.sync()
    with open("/proc/sys/vm/drop_caches", "w", encoding="ascii") as file:
        file.write("3\n")


def read_into_cache(file):
    with open(file, "rb", buffering=0) as source:
        data = bytearray(1 << 20)
        while source.readinto(data):
            pass


def interleave(rounds, sides, measure, middle=statistics.median):
    """The medians of each side, all sides in turn in each round, which begins with another side each time; `middle`
    gives the median of a list of values that aren't numbers."""
    values = {side: [] for side in sides}
    for number in range(rounds):
        shift = number % len(sides)
        for side in sides[shift:] + sides[:shift]:
            values[side].append(measure(side))
    return {side: middle(found) for side, found in values.items()}


class Table:
    """Prints each figure with its goal, and counts those that miss it."""

    def __init__(self):
        self.total = self.missed = 0

    def ratio(self, name, unit, ours, other_name, other, goal=None):
        text = (
            f"{name:<46} ours {ours:>9,.0f} {unit:<6} {other_name:<16} {other:>9,.0f} {unit:<6} "
            f"ratio {ours / other:>6.2f}"
        )
        if goal is None:
            print(text, flush=True)
        else:
            self.goal(f"{text}  goal >= {goal:g}", ours / other >= goal)

    def limit(self, name, unit, ours, limit, digits=2):
        self.goal(f"{name:<46} ours {ours:>9,.{digits}f} {unit:<6} goal <= {limit:,.{digits}f}", ours <= limit)

    def goal(self, text, met):
        self.total += 1
        self.missed += not met
        print(f"{text}  {'ok' if met else 'MISSED'}", flush=True)

    def close(self):
        print(f"{self.total - self.missed} of {self.total} goals met", flush=True)


def need_root():
    if os.geteuid() != 0:
        print("left out: needs root")
        sys.exit(0)
