"""Orders of an image's blocks that the order of the product is compared with, each a map from RAW to ZqF blocks."""

import array
import random
from pathlib import Path

from traces import BLOCK, NO_ENTRY, read_items

SHORT_GAP, LONGEST_GAP = 64, 4096
UNIT = 32  # blocks that squashfs packs together


def map_of(blocks, n_raw):
    entries = array.array("Q", [NO_ENTRY]) * n_raw
    for zqf, raw in enumerate(blocks):
        entries[raw] = zqf
    return entries


def front_of(entries, n_front):
    """RAW blocks that a mount reads, in their order."""
    return sorted((raw for raw, zqf in enumerate(entries) if zqf < n_front), key=entries.__getitem__)


def complete(blocks, entries):
    """The map that has these first, then the others that are included in RAW order."""
    placed = set()
    order = []
    for raw in blocks:
        if raw not in placed and raw < len(entries) and entries[raw] != NO_ENTRY:
            placed.add(raw)
            order.append(raw)
    order += [raw for raw, zqf in enumerate(entries) if zqf != NO_ENTRY and raw not in placed]
    return map_of(order, len(entries))


def gaps(placed, n_raw):
    """Blocks between two that have a place and stand near each other, the shorter gaps first."""
    classes = {}
    last = None
    for raw in sorted(placed):
        length = raw - last - 1 if last is not None else 0
        if 0 < length <= LONGEST_GAP:
            classes.setdefault(((length - 1) // SHORT_GAP).bit_length(), []).extend(range(last + 1, raw))
        last = raw
    return [raw for length in sorted(classes) for raw in classes[length]]


def today(entries, n_front, merged):
    """The order by a merged trace as the product made it before it learned from single runs: what a mount reads, what
    the trace names, each block where it comes first, the gaps between these, and the rest."""
    named = list(dict.fromkeys(front_of(entries, n_front) + [block for block, _ in read_items(merged)]))
    named = [raw for raw in named if raw < len(entries) and entries[raw] != NO_ENTRY]
    return complete(named + gaps(named, len(entries)), entries)


def shuffled(entries, n_front, seed):
    front = front_of(entries, n_front)
    rest = [raw for raw, zqf in enumerate(entries) if zqf != NO_ENTRY and zqf >= n_front]
    random.Random(seed).shuffle(rest)
    return complete(front + rest, entries)


class Files:
    """Which file each block of a complete image is of, found by content: a disk has a file's blocks in a row. What is
    found nowhere are ends of files and small files, which lie in blocks of their own or with others."""

    def __init__(self, image, entries, source):
        data = (image / "img.zqf").read_bytes()
        where = {}
        for raw, zqf in enumerate(entries):
            if zqf != NO_ENTRY:
                where.setdefault(hash(data[zqf * BLOCK : (zqf + 1) * BLOCK]), []).append(raw)
        self.of = {}  # RAW block to file
        self.blocks = {}  # file to its RAW blocks
        self.places = {}  # file to the places of these in it
        for path in sorted(Path(source).rglob("*")):
            if path.is_file():
                self.place(str(path.relative_to(source)), path.read_bytes(), where)
        self.unplaced = [raw for raw, zqf in enumerate(entries) if zqf != NO_ENTRY and raw not in self.of]

    def place(self, name, content, where):
        last, found = None, []
        for at in range(0, len(content), BLOCK):
            piece = content[at : at + BLOCK]
            if len(piece) < BLOCK:
                piece += bytes(BLOCK - len(piece))
            candidates = [raw for raw in where.get(hash(piece), ()) if raw not in self.of]
            if not candidates:
                continue
            raw = last + 1 if last is not None and last + 1 in candidates else candidates[0]
            self.of[raw] = name
            found.append(raw)
            last = raw
        self.blocks[name] = found

    def in_order(self, entries, n_front, runs):
        """Files by their first access in the runs, each as a whole, as `mksquashfs -sort` lays them down; small ones,
        which squashfs packs into fragments in that order, lie where the disk has them. Others by name."""
        names = dict.fromkeys(self.of[raw] for run in runs for raw in run if raw in self.of)
        touched = [raw for run in runs for raw in run if raw not in self.of]
        rest = [name for name in sorted(self.blocks) if name not in names]
        blocks = front_of(entries, n_front) + touched
        return complete(blocks + [raw for name in [*names, *rest] for raw in self.blocks[name]], entries)

    def unit_of(self, raw):
        """The blocks that must be there for this one where 128 KiB of a file are packed together."""
        name = self.of.get(raw)
        if name is None:
            return (raw,)
        of_file = self.blocks[name]
        unit = self.place_of(name)[raw] // UNIT
        return of_file[unit * UNIT : (unit + 1) * UNIT]

    def place_of(self, name):
        if name not in self.places:
            self.places[name] = {raw: number for number, raw in enumerate(self.blocks[name])}
        return self.places[name]
