"""What the images of drive.py are made of, and the order in which their blocks are stored."""

import array
import hashlib
import json
import mmap
import os
import random
import shutil

from traces import BLOCK, NO_ENTRY, read_app, read_map

MIB = 1 << 20
MARK = b"held back"  # begins each block of the file that a partial image lacks
FIRST, SECOND = "first.bin", "second.bin"
SMALL_KIB = (1, 64)  # of small files
N_FOLDERS = 100  # that they are in


def write_large(folder, size):
    """Two files of random bytes, of so many MiB together, the second marked; gives their digests."""
    source = random.Random(1)
    digests = {}
    folder.mkdir()
    for name, size_mib in ((FIRST, size * 3 // 4), (SECOND, size - size * 3 // 4)):
        digest = hashlib.md5()
        with open(folder / name, "wb") as file:
            for _ in range(size_mib):
                data = bytearray(source.randbytes(MIB))
                if name == SECOND:
                    for at in range(0, MIB, BLOCK):
                        data[at : at + len(MARK)] = MARK
                digest.update(data)
                file.write(data)
        digests[name] = digest.hexdigest()
    return digests


def write_small(folder, n):
    """So many files of 1 to 64 KiB, in folders; gives their digests."""
    source = random.Random(3)
    digests = {}
    for number in range(n):
        name = f"{number % N_FOLDERS:02}/{number:05}"
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        data = source.randbytes(source.randint(*(kib << 10 for kib in SMALL_KIB)))
        (folder / name).write_bytes(data)
        digests[name] = hashlib.md5(data).hexdigest()
    return digests


def digest_of(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "md5").hexdigest()


def digests_below(folder):
    return {str(path.relative_to(folder)): digest_of(path) for path in folder.rglob("*") if path.is_file()}


def write_records(image, idx_bytes, app):
    (image / "img.idx").write_bytes(idx_bytes)
    app["checksums"]["idx"] = hashlib.md5(idx_bytes).hexdigest()
    (image / "app.json").write_text(json.dumps(app), encoding="utf-8")


def scatter(image, n_run, partial=None):
    """Stores the image in runs of so many blocks in random order, those that only the marked file has after all others;
    makes the partial image, if one is wanted, of the part before these."""
    idx, app = read_map(image), read_app(image)
    new_place = array.array("Q", bytes(app["disk"]["sizeZqf"] // BLOCK * 8))
    with open(image / "img.zqf", "rb") as old, open(image / "img.zqf.scattered", "wb") as new:
        with mmap.mmap(old.fileno(), 0, prot=mmap.PROT_READ) as data:
            kept, held_back = [], []
            for start in range(0, len(new_place), n_run):
                blocks = range(start, min(start + n_run, len(new_place)))
                marked = all(data[b * BLOCK : b * BLOCK + len(MARK)] == MARK for b in blocks)
                (held_back if marked else kept).append(blocks)
            order = random.Random(2)
            order.shuffle(kept)
            order.shuffle(held_back)
            n_kept = sum(map(len, kept))
            for zqf_idx, block in enumerate(block for run in kept + held_back for block in run):
                new_place[block] = zqf_idx
            for run in kept + held_back:
                new.write(data[run.start * BLOCK : run.stop * BLOCK])
    os.replace(image / "img.zqf.scattered", image / "img.zqf")
    places = (NO_ENTRY if zqf_idx == NO_ENTRY else new_place[zqf_idx] for zqf_idx in idx)
    scattered = array.array("Q", places).tobytes()
    app["checksums"].pop("zqf", None)
    app["disk"]["sizeMnt"] = app["disk"]["sizeZqf"]
    write_records(image, scattered, app)
    if partial is None:
        return

    partial.mkdir()
    shutil.copy(image / "img.json", partial)
    shutil.copy(image / "img.zqf", partial)
    os.truncate(partial / "img.zqf", n_kept * BLOCK)
    app["disk"]["sizeMnt"] = n_kept * BLOCK
    write_records(partial, scattered, app)
