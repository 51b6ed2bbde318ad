"""Traces and maps of images, as the benchmarks against peers read them."""

import array
import json
import os
import struct

BLOCK, NO_ENTRY, MARK = 4096, (1 << 64) - 1, 1 << 63
UNITS_FROM_1601_TO_1970, UNITS_PER_MS = 116_444_736_000_000_000, 10_000


def read_units(folder):
    """RAW blocks and the time at which they were read, 100 ns each from 1970, in the order of the file."""
    data = (folder / "img.trc").read_bytes()
    items = struct.iter_unpack("<QQ", data[: len(data) // 16 * 16])
    return [(block & ~MARK, time - UNITS_FROM_1601_TO_1970) for block, time in items]


def read_items(folder):
    """The same in milliseconds."""
    return [(block, units // UNITS_PER_MS) for block, units in read_units(folder)]


def read_map(folder):
    """From RAW to ZqF blocks."""
    entries = array.array("Q")
    entries.frombytes((folder / "img.idx").read_bytes())
    return entries


def read_app(folder):
    return json.loads((folder / "app.json").read_text(encoding="utf-8"))


def read_files(folder):
    """The table of files: for each piece of a file its first RAW block, blocks, bytes of the whole file, and path."""
    data = (folder / "img.files").read_bytes()
    (n_rows,) = struct.unpack_from("<Q", data, 40)
    at, rows = 48, []
    for _ in range(n_rows):
        first, n_blocks, size, length = struct.unpack_from("<QQQI", data, at)
        at += 28 + length
        rows.append((first, n_blocks, size, os.fsdecode(data[at - length : at])))
    return rows


def packed_sizes(file):
    """The bytes of each frame of a file in the seekable Zstandard format."""
    data = file.read_bytes()
    n_frames, descriptor, magic = struct.unpack("<IBI", data[-9:])
    if magic != 0x8F92EAB1:
        raise RuntimeError(f"{file} has no seek table")
    width = 12 if descriptor & 0x80 else 8
    table = data[-9 - n_frames * width : -9]
    return [struct.unpack_from("<I", table, i * width)[0] for i in range(n_frames)]
