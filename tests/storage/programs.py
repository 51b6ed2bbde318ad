"""Real programs at work on a drive. Each gives its figures as a text, and raises where the drive isn't, also once it
was unmounted and mounted again, what the program made of it."""

import contextlib
import hashlib
import io
import json
import os
import random
import re
import signal
import tarfile
import time
import zipfile
from pathlib import Path

import lab
from drive import MIB, ROOM, ROOM_SIZE, run


def compare(what, before, after):
    if before != after:
        raise RuntimeError(f"{what}: {before!r} before the drive was unmounted, {after!r} after that")


# sqlite


def write_rows(database, journal, who, log):
    """A shell that writes, together with others; what it prints goes to the file `log`."""
    rows = "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 40) "
    rows += f"SELECT '{who}', randomblob(abs(random()) % 3000) FROM n"
    turns = [
        f"BEGIN IMMEDIATE; INSERT INTO rows(who, data) {rows}; "
        f"UPDATE rows SET data = randomblob(500) WHERE who = '{who}' AND id % 17 = {turn} % 17; "
        f"DELETE FROM rows WHERE who = '{who}' AND id % 29 = {turn} % 29; COMMIT;"
        for turn in range(100)
    ]
    setting = f"PRAGMA busy_timeout=120000; PRAGMA journal_mode={journal}; PRAGMA synchronous=FULL;"
    return lab.program("sqlite3", "-bail", database, setting + "".join(turns), log=log)


def sqlite(journal, drive, _):
    files = drive.mount()
    (files / ROOM).unlink()
    database = files / "rows.db"
    run("sqlite3", database, "CREATE TABLE rows(id INTEGER PRIMARY KEY, who, data); CREATE INDEX i ON rows(who, data)")
    begin = time.monotonic()
    with contextlib.ExitStack() as stack:
        log = stack.enter_context(open(drive.folder / "sqlite.log", "ab"))
        shells = [stack.enter_context(write_rows(database, journal, who, log)) for who in "ab"]
        codes = [shell.wait() for shell in shells]
    seconds = time.monotonic() - begin
    if any(codes):
        raise RuntimeError(f"sqlite3: exit codes {codes}; see sqlite.log")
    before = run("sqlite3", database, ".sha3sum")
    database = drive.remount() / "rows.db"
    run("sqlite3", database, "VACUUM")
    database = drive.remount() / "rows.db"
    state = run("sqlite3", database, "PRAGMA integrity_check").strip()
    if state != "ok":
        raise RuntimeError(f"integrity_check: {state}")
    compare("the rows' digest", before, run("sqlite3", database, ".sha3sum"))
    return f"{200 / seconds:.0f} transactions/s"


# postgresql


class Postgres:
    """A server, and its tools, as the user that the package has for it; its data lie on the drive."""

    def __init__(self, drive):
        self.drive = drive
        self.socket = drive.folder / "socket"
        self.socket.mkdir()
        self.own(self.socket)
        self.programs = max(Path("/usr/lib/postgresql").glob("*/bin"), key=lambda path: int(path.parent.name))

    def own(self, folder):
        run("chown", "postgres:postgres", folder)

    def words(self, program, *words):
        user = ["setpriv", "--reuid=postgres", "--regid=postgres", "--init-groups", "env", "--chdir=/"]
        return [*user, f"PGHOST={self.socket}", self.programs / program, *words]

    def tool(self, program, *words):
        return run(*self.words(program, *words))

    def ask(self, query):
        return self.tool("psql", "--no-psqlrc", "--tuples-only", "--no-align", "--command", query, "bench").strip()

    def make(self, files):
        self.data = files / "postgres"
        self.data.mkdir()
        self.own(self.data)
        self.tool("initdb", "--pgdata", self.data, "--auth", "trust", "--data-checksums")

    @contextlib.contextmanager
    def running(self):
        words = ["-D", self.data, "-k", self.socket, "-c", "listen_addresses=", "-c", "max_wal_size=128MB"]
        with open(self.drive.folder / "postgres.log", "ab") as log:
            server = self.words("postgres", *words)
            with lab.program(*server, log=log, end_by=signal.SIGINT, seconds=60) as process:

                def ready():
                    if process.poll() is not None:
                        raise RuntimeError("postgres has ended; see postgres.log")
                    with contextlib.suppress(RuntimeError):
                        return bool(self.tool("psql", "--command", "SELECT 1", "postgres"))
                    return False

                lab.wait_until(ready, "postgres takes connections", 60)
                yield process

    def check(self):
        """Indexes and heaps agree, and each transaction is there as a whole. Gives the number of transactions."""
        self.tool("pg_amcheck", "--install-missing", "--heapallindexed", "--rootdescend", "--all")
        names = [("abalance", "accounts"), ("tbalance", "tellers"), ("bbalance", "branches"), ("delta", "history")]
        sums = [self.ask(f"SELECT coalesce(sum({column}), 0) FROM pgbench_{table}") for column, table in names]
        if len(set(sums)) != 1:
            raise RuntimeError(f"pgbench's tables differ in their sums: {sums}")
        return int(self.ask("SELECT count(*) FROM pgbench_history"))


def postgresql(drive, _):
    server = Postgres(drive)
    files = drive.mount()
    (files / ROOM).unlink()
    server.make(files)
    with server.running():
        server.tool("createdb", "bench")
        server.tool("pgbench", "--initialize", "--scale=4", "--quiet", "bench")
        told = server.tool("pgbench", "--client=4", "--jobs=2", "--time=10", "bench")
        before = server.check()
    drive.remount()
    with server.running():
        compare("transactions", before, server.check())
    return f"{float(re.search(r'tps = ([0-9.]+)', told)[1]):.0f} transactions/s"


def kill_under_postgresql(drive, seed):
    """A kill of the service while pgbench has transactions acknowledged, which it writes down outside of the drive."""
    server, chance = Postgres(drive), random.Random(seed)
    server.make(drive.mount())
    record = drive.folder / "socket/record"
    with contextlib.ExitStack() as stack:
        stack.enter_context(server.running())
        server.tool("createdb", "bench")
        server.tool("pgbench", "--initialize", "--scale=2", "--quiet", "bench")
        log = stack.enter_context(open(drive.folder / "pgbench.log", "ab"))
        words = ["--client=4", "--time=200", "--log", f"--log-prefix={record}", "bench"]
        bench = stack.enter_context(lab.program(*server.words("pgbench", *words), log=log))
        lab.wait_until(lambda: int(server.ask("SELECT count(*) FROM pgbench_history")) > 100, "pgbench has begun")
        time.sleep(chance.uniform(0, 3))  # the kill comes at any moment
        drive.kill()
        bench.wait(60)
    drive.bury()
    acknowledged = sum(len(file.read_bytes().splitlines()) for file in record.parent.glob("record.*"))
    drive.mount()
    with server.running():
        found = server.check()
    if found < acknowledged:
        raise RuntimeError(f"{acknowledged} transactions were acknowledged, {found} are there")
    drive.remount()
    drive.check_volume()
    drive.unmount()
    return f"{acknowledged} acknowledged"


# git


def git_in(folder):
    env = dict(os.environ, HOME=str(folder), GIT_CONFIG_NOSYSTEM="1", GIT_TERMINAL_PROMPT="0")
    env |= {f"GIT_{who}_{what}": "nobody@localhost" for who in ("AUTHOR", "COMMITTER") for what in ("NAME", "EMAIL")}
    return lambda *words: run("git", *words, env=env).strip()


def commit_some(git, work, chance, n_commits):
    for number in range(n_commits):
        for _ in range(25):
            file = work / f"{chance.randrange(12)}/{chance.randrange(60)}.txt"
            file.parent.mkdir(exist_ok=True)
            file.write_text(chance.randbytes(chance.randint(1, 6000)).hex(), encoding="ascii")
        git("-C", work, "add", "--all")
        git("-C", work, "commit", "--quiet", "--message", f"change {number}")


def git(drive, seed):
    files, call, chance = drive.mount(), git_in(drive.folder), random.Random(seed)
    (files / ROOM).unlink()
    origin, clone = drive.folder / "origin", files / "clone"
    call("init", "--quiet", origin)
    commit_some(call, origin, chance, 30)
    begin = time.monotonic()
    call("clone", "--quiet", "--no-local", f"file://{origin}", clone)
    call("-C", clone, "fsck", "--full", "--strict")
    commit_some(call, clone, chance, 15)
    call("-C", clone, "gc", "--quiet", "--aggressive", "--prune=now")
    commit_some(call, clone, chance, 5)
    seconds = time.monotonic() - begin
    before = call("-C", clone, "rev-parse", "HEAD")
    drive.remount()
    call("-C", clone, "fsck", "--full", "--strict")
    compare("HEAD", before, call("-C", clone, "rev-parse", "HEAD"))
    compare("the work tree's changes", "", call("-C", clone, "status", "--porcelain"))
    call("-C", origin, "pull", "--quiet", "--ff-only", clone, "HEAD")
    return f"clone, 20 commits and gc {seconds:.1f} s"


# fio


FIO = {
    "random": ["--rw=randwrite", "--bsrange=4k-64k", "--ioengine=psync", "--fsync=64"],
    "mixed": ["--rw=randrw", "--bsrange=4k-32k", "--ioengine=libaio", "--iodepth=16", "--fsync=128"],
    "mmap": ["--rw=randwrite", "--bs=4k", "--ioengine=mmap", "--fsync=256"],
    "direct": ["--rw=randrw", "--bs=4k", "--ioengine=libaio", "--iodepth=32", "--direct=1"],
}


def fio(job, drive, seed):
    """Writes over a file of the image, and makes another one in its free room; both are verified by fio's own sums."""
    files = drive.mount()
    words = ["fio", "--output-format=json", f"--size={ROOM_SIZE}", f"--randseed={seed}", "--fallocate=none"]
    words += ["--verify_state_save=0"]  # otherwise it leaves files in the folder where it was started
    words += [*FIO[job], "--verify=crc32c", "--verify_fatal=1", f"--directory={files}"]
    words += [f"--name={ROOM}", f"--filename={ROOM}", "--name=new", "--filename=new"]
    told = run(*words, "--do_verify=1")
    drive.remount()
    run(*words, "--verify_only=1")
    jobs = json.loads(told[told.index("{") :])["jobs"]
    return f"{sum(job['write']['bw_bytes'] for job in jobs) / MIB:.0f} MiB/s written"


# tar and unzip


N_FILES = 20_000
N_FOLDERS = 250


def make_files(seed):
    """Names and contents, some of them empty."""
    chance = random.Random(seed)
    for number in range(N_FILES):
        yield f"tree/{number % N_FOLDERS // 16}/{number % N_FOLDERS}/{number}", chance.randbytes(chance.randrange(6000))


def digest(pairs):
    """Of all names and contents, whatever their order."""
    whole = hashlib.sha256()
    for name, data in sorted((name, hashlib.sha256(data).hexdigest()) for name, data in pairs):
        whole.update(f"{name} {data}\n".encode())
    return whole.hexdigest()


def files_below(top):
    return ((str(file.relative_to(top)), file.read_bytes()) for file in (top / "tree").rglob("*") if file.is_file())


def pack_tar(path, pairs):
    with tarfile.open(path, "w") as archive:
        for name, data in pairs:
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))


def pack_zip(path, pairs):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=1) as archive:
        for name, data in pairs:
            archive.writestr(name, data)


def unpack(pack, words, drive, seed):
    files, archive = drive.mount(), drive.folder / "archive"
    (files / ROOM).unlink()
    pack(archive, make_files(seed))
    wanted = digest(make_files(seed))
    begin = time.monotonic()
    run(*[word.format(archive=archive, files=files) for word in words])
    seconds = time.monotonic() - begin
    compare("the files' digest", wanted, digest(files_below(drive.remount())))
    run("rm", "-r", files / "tree")
    drive.remount()
    compare("what was removed", False, (files / "tree").exists())
    return f"{N_FILES / seconds:,.0f} files/s"


TAR = ["tar", "--extract", "--file={archive}", "--directory={files}"]
UNZIP = ["unzip", "-q", "{archive}", "-d", "{files}"]
