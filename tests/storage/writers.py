#!/usr/bin/env python3
"""Programs that write to a drive and keep a record, outside of it, of what they began and what was acknowledged:
a line `begin ...` before, a line `done ...` once the call that promises durability has returned. They go on until the
drive fails. The same classes tell from the record what the drive must hold afterwards.

    writers.py KIND FOLDER RECORD SEED
"""

import fcntl
import json
import mmap
import os
import random
import sqlite3
import struct
import sys
import time
from pathlib import Path

BLOCK = 4096
DRIVE_FAILED = 3  # exit code


class Writer:
    def __init__(self, folder, record, seed):
        self.folder, self.record, self.seed = folder, record, seed
        self.random = random.Random(seed)

    def run(self):
        with open(self.record, "ab", buffering=0) as self.lines:
            try:
                self.open()
                for number in range(1, sys.maxsize):
                    self.step(number)
            except (OSError, sqlite3.Error) as error:
                print(error, file=sys.stderr)
                sys.exit(DRIVE_FAILED)

    def note(self, what, *values):
        self.lines.write(f"{what} {json.dumps(values)}\n".encode())

    def noted(self):
        for line in self.record.read_text(encoding="ascii").splitlines():
            what, values = line.split(" ", 1)
            yield what, *json.loads(values)

    def open(self):
        pass

    def step(self, number):
        """Writes for the numberth time, counted from 1."""
        raise NotImplementedError

    def faults(self):
        """What the drive lacks of that which was acknowledged, as texts."""
        raise NotImplementedError


class Buffered(Writer):
    """Blocks of a file that is there, written over in groups, and fsync."""

    name = "buffered"

    def open(self):
        self.file = os.open(self.folder / self.name, os.O_RDWR)
        self.n_blocks = os.fstat(self.file).st_size // BLOCK

    def content(self, block, number):
        """Differs in each byte group from that of any other write, so a mix of two is seen."""
        return random.Random(f"{self.seed} {block} {number}").randbytes(BLOCK)

    def step(self, number):
        blocks = self.random.sample(range(self.n_blocks), self.random.randint(1, 48))
        self.note("begin", number, blocks)
        for block in blocks:
            self.put(block, self.content(block, number))
        self.sync()
        self.note("done", number, blocks)

    def put(self, block, data):
        os.pwrite(self.file, data, block * BLOCK)

    def sync(self):
        os.fsync(self.file)

    def faults(self):
        # By block: the last write that was acknowledged (0: the image's own content), and those since.
        allowed = {}
        for what, number, blocks in self.noted():
            for block in blocks:
                if what == "done":
                    allowed[block] = [number]
                else:
                    allowed.setdefault(block, [0]).append(number)
        before = random.Random(self.name).randbytes((self.folder / self.name).stat().st_size)
        with open(self.folder / self.name, "rb") as file:
            for block in range(len(before) // BLOCK):
                data, start = file.read(BLOCK), block * BLOCK
                wanted = [
                    self.content(block, number) if number else before[start : start + BLOCK]
                    for number in allowed.get(block, [0])
                ]
                if data not in wanted:
                    yield f"{self.name}: block {block} holds none of the writes {allowed.get(block, [0])}"


class Direct(Buffered):
    """The same without the page cache."""

    name = "direct"

    def open(self):
        super().open()
        os.close(self.file)
        self.file = os.open(self.folder / self.name, os.O_RDWR | os.O_DIRECT)
        self.buffer = mmap.mmap(-1, BLOCK)  # aligned

    def put(self, block, data):
        self.buffer[:] = data
        os.pwrite(self.file, self.buffer, block * BLOCK)


class Mapped(Buffered):
    """The same through a mapping, and msync. Where the drive fails it may end by SIGBUS."""

    name = "mapped"

    def open(self):
        super().open()
        self.map = mmap.mmap(self.file, 0)

    def put(self, block, data):
        self.map[block * BLOCK : (block + 1) * BLOCK] = data

    def sync(self):
        self.map.flush()


class Files(Writer):
    """Files that are made under another name, synced and renamed into place, or removed; then their folder is
    synced."""

    name = "files"
    N_NAMES = 200

    def open(self):
        (self.folder / self.name).mkdir()
        self.place = os.open(self.folder / self.name, os.O_RDONLY)
        sync_folder(self.folder)

    def content(self, number):
        data = random.Random(f"{self.seed} {number}")
        return data.randbytes(data.randint(0, 200_000))

    def step(self, number):
        name, removed = f"{self.random.randrange(self.N_NAMES)}", self.random.random() < 0.3
        self.note("begin", name, None if removed else number)
        path = self.folder / self.name / name
        if removed:
            path.unlink(missing_ok=True)
        else:
            with open(f"{path}.new", "wb", buffering=0) as file:
                file.write(self.content(number))
                os.fsync(file.fileno())
            os.rename(f"{path}.new", path)
        os.fsync(self.place)
        self.note("done", name, None if removed else number)

    def faults(self):
        allowed = {}
        for what, name, number in self.noted():
            if what == "done":
                allowed[name] = [number]
            else:
                allowed.setdefault(name, [None]).append(number)
        for name, numbers in allowed.items():
            path = self.folder / self.name / name
            data = path.read_bytes() if path.exists() else None
            if data not in [None if number is None else self.content(number) for number in numbers]:
                yield f"{self.name}: {name} is {'absent' if data is None else 'another'} and none of {numbers}"


class Log(Writer):
    """Lines at the end of a file that grows, and fdatasync."""

    name = "log"

    def open(self):
        self.file = os.open(self.folder / self.name, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
        sync_folder(self.folder)

    def content(self, number):
        line = random.Random(f"{self.seed} {number}")
        return f"{number} {line.randbytes(line.randint(1, 3000)).hex()}\n".encode()

    def step(self, number):
        os.write(self.file, self.content(number))
        os.fdatasync(self.file)
        self.note("done", number)

    def faults(self):
        numbers = [number for _, number in self.noted()]
        with open(self.folder / self.name, "rb") as file:
            for number in numbers:
                wanted = self.content(number)
                if file.read(len(wanted)) != wanted:
                    yield f"{self.name}: line {number} of {len(numbers)} is missing"
                    return


class Database(Writer):
    """Rows of an sqlite database, each transaction synced before COMMIT returns."""

    name = "database"
    journal = "WAL"

    def open(self):
        self.rows = sqlite3.connect(self.folder / self.name, isolation_level=None)
        self.rows.execute(f"PRAGMA journal_mode={self.journal}")
        self.rows.execute("PRAGMA synchronous=EXTRA")
        self.rows.execute("CREATE TABLE rows(number INTEGER PRIMARY KEY, data BLOB)")
        sync_folder(self.folder)

    def content(self, number):
        data = random.Random(f"{self.seed} {number}")
        return data.randbytes(data.randint(1, 20_000))

    def step(self, number):
        self.rows.execute("BEGIN")
        self.rows.execute("INSERT INTO rows VALUES(?, ?)", (number, self.content(number)))
        self.rows.execute("COMMIT")
        self.note("done", number)

    def faults(self):
        rows = sqlite3.connect(self.folder / self.name)
        state = rows.execute("PRAGMA integrity_check").fetchall()
        if state != [("ok",)]:
            yield f"{self.name}: {state}"
        for number in [number for _, number in self.noted()]:
            if rows.execute("SELECT data FROM rows WHERE number = ?", (number,)).fetchone() != (self.content(number),):
                yield f"{self.name}: row {number} is missing"
        rows.close()


class RollbackDatabase(Database):
    name = "rollback-database"
    journal = "DELETE"


class Trim(Writer):
    """Writes nothing, but tells the drive which of its room is free, so that blocks go and come under the others."""

    name = "trim"
    FITRIM = 0xC0185879  # ioctl, with start, length and smallest extent

    def open(self):
        self.file = os.open(self.folder, os.O_RDONLY)

    def step(self, number):
        fcntl.ioctl(self.file, self.FITRIM, struct.pack("QQQ", 0, (1 << 64) - 1, 0))
        self.note("done", number)
        time.sleep(self.random.uniform(0, 0.1))  # beside it the others shall come to write

    def faults(self):
        return []


KINDS = {kind.name: kind for kind in [Buffered, Direct, Mapped, Files, Log, Database, RollbackDatabase, Trim]}


def sync_folder(folder):
    handle = os.open(folder, os.O_RDONLY)
    os.fsync(handle)
    os.close(handle)


if __name__ == "__main__":
    KINDS[sys.argv[1]](Path(sys.argv[2]), Path(sys.argv[3]), int(sys.argv[4])).run()
