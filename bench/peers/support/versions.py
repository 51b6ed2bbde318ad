"""Two versions of a program's folder for benchmarks of updates: a real game's data and what an update makes of it, and
two releases of a program as they were published."""

import hashlib
import random
import shutil
import subprocess
import tarfile
from pathlib import Path

# Debian packages that make up one game's folder: 450 MB in 7,000 files.
GAME_PACKAGES = ["hedgewars-data", "supertux-data"]
# What new files of the update are taken from.
NEW_PACKAGES = ["freedoom"]
# Two releases of a program in the npm registry.
PROGRAM, RELEASES = "typescript", ("5.4.5", "5.5.4")


def unpack_packages(names, folder, cache):
    """Fetches Debian packages and unpacks them without installing them."""
    for name in names:
        if not list(cache.glob(f"{name}_*.deb")):
            subprocess.run(["apt-get", "download", name], cwd=cache, check=True, capture_output=True)
        subprocess.run(["dpkg-deb", "-x", next(cache.glob(f"{name}_*.deb")), folder], check=True)
    for link in [path for path in folder.rglob("*") if path.is_symlink()]:
        link.unlink()  # some lead to other packages


def copy_tree(source, target):
    shutil.copytree(source, target, symlinks=True)


class Update:
    """Changes a folder as updates of games do; the same seed makes the same changes."""

    def __init__(self, folder, seed):
        self.folder, self.rng = folder, random.Random(seed)
        self.files = sorted(path for path in folder.rglob("*") if path.is_file())

    def choose(self, share):
        return self.rng.sample(self.files, max(1, int(len(self.files) * share)))

    def noise(self, n):
        return self.rng.randbytes(n)

    def edit_in_place(self, share):
        """A few fields of a file get other values."""
        for path in self.choose(share):
            data = bytearray(path.read_bytes())
            for _ in range(self.rng.randint(1, 12)):
                n = self.rng.randint(1, 64)
                if len(data) > n:
                    at = self.rng.randrange(len(data) - n)
                    data[at : at + n] = self.noise(n)
            path.write_bytes(data)

    def insert_and_remove(self, share):
        """Bytes come and go in a file, so that all after them is shifted."""
        for path in self.choose(share):
            data = bytearray(path.read_bytes())
            for _ in range(self.rng.randint(1, 4)):
                at = self.rng.randrange(len(data) + 1)
                data[at : at + self.rng.randint(0, 900)] = self.noise(self.rng.randint(0, 900))
            path.write_bytes(data)

    def move(self, share):
        for path in self.choose(share):
            if path.exists():
                path.rename(path.with_name("moved-" + path.name))
        self.files = sorted(path for path in self.folder.rglob("*") if path.is_file())

    def copy(self, share):
        for path in self.choose(share):
            shutil.copy(path, path.with_name("copy-" + path.name))

    def remove(self, share):
        for path in self.choose(share):
            path.unlink()
        self.files = [path for path in self.files if path.exists()]

    def add(self, source, n_bytes):
        """New files: pieces of `source`."""
        data = source.read_bytes()
        target = self.folder / "new"
        target.mkdir()
        at = 0
        while at < min(n_bytes, len(data)):
            n = self.rng.randint(20_000, 900_000)
            (target / f"piece-{at:09}").write_bytes(data[at : at + n])
            at += n


def game(folder, cache, seed=1):
    """Makes the two versions of a game in `folder` / "v1" and "v2"."""
    v1, v2, extra = folder / "v1", folder / "v2", folder / "extra"
    unpack_packages(GAME_PACKAGES, v1, cache)
    unpack_packages(NEW_PACKAGES, extra, cache)
    copy_tree(v1, v2)
    update = Update(v2, seed)
    update.remove(0.01)
    update.move(0.01)
    update.copy(0.004)
    update.edit_in_place(0.03)
    update.insert_and_remove(0.02)
    update.add(max(extra.rglob("*.wad"), key=lambda path: path.stat().st_size), 5_000_000)
    shutil.rmtree(extra)
    return v1, v2


def program(folder, cache):
    """The two published versions of a program, likewise."""
    made = []
    for release, name in zip(RELEASES, ("v1", "v2")):
        archive = cache / f"{PROGRAM}-{release}.tgz"
        if not archive.exists():
            subprocess.run(["npm", "pack", f"{PROGRAM}@{release}"], cwd=cache, check=True, capture_output=True)
        with tarfile.open(archive) as packed:
            packed.extractall(folder / name)
        made.append(folder / name)
    return made


def digest_of(folder):
    """One digest of all names and bytes below a folder."""
    total = hashlib.md5()
    for path in sorted(Path(folder).rglob("*")):
        total.update(str(path.relative_to(folder)).encode())
        if path.is_file():
            total.update(path.read_bytes())
    return total.hexdigest()
