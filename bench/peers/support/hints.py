"""The hints of an order, as the client goes by them."""

import struct

from frames import STRETCH
from traces import BLOCK, read_app

MAGIC, DIGEST = b"ZHINTS01", 32
MAX_TOGETHER, MIN_PERCENT = 4, 50
FREE, FREE_FOR_EACH = 16, 2  # stretches that may be of no use, and more for each that was


class Hints:
    """Of one run of the client. `groups` are (first stretch, end, hot stretches, [(next group, percent)])."""

    def __init__(self, groups):
        self.groups = groups
        self.group_of = {idx: number for number, group in enumerate(groups) for idx in range(group[0], group[1])}
        self.waited, self.begun, self.named = set(), set(), set()
        self.n_used = 0

    def find(self, missing, position):
        """What else is worth having where reads wait for these, and the stream has come to the stretch `position`."""
        come_to = []
        for idx in missing:
            if idx in self.waited:
                continue
            self.n_used += idx in self.begun
            self.waited.add(idx)
            if idx in self.group_of:
                come_to.append((self.group_of[idx], idx))
        n_unused = sum(1 for idx in self.begun if idx not in self.waited and idx >= position)
        if not come_to or n_unused >= FREE + FREE_FOR_EACH * self.n_used:
            return []
        likely = []
        for group, idx in come_to:
            hot = self.groups[group][2]
            self.take(hot[hot.index(idx) + 1 :] if idx in hot else hot, position, likely)
        for group, _ in come_to:
            for successor, percent in self.groups[group][3]:
                if percent >= MIN_PERCENT:
                    self.take(self.groups[successor][2], position, likely)
        return likely

    def take(self, hot, position, likely):
        for idx in hot[:MAX_TOGETHER]:
            if len(likely) < MAX_TOGETHER and idx >= position and idx not in self.named and idx not in self.waited:
                self.named.add(idx)
                likely.append(idx)


def read_groups(folder):
    """The groups of `img.hints` in a folder; None where there are none."""
    file = folder / "img.hints"
    if not file.exists():
        return None
    data = file.read_bytes()[:-8]  # a checksum follows
    if not data.startswith(MAGIC):
        raise RuntimeError(f"{file} has no hints")
    numbers = [number for (number,) in struct.iter_unpack("<I", data[len(MAGIC) + DIGEST :])]
    groups, at = [], 2
    for _ in range(numbers[1]):
        first, end, n_hot, n_next = numbers[at : at + 4]
        at += 4
        hot = numbers[at : at + n_hot]
        at += n_hot
        following = numbers[at : at + 2 * n_next]
        at += 2 * n_next
        groups.append((first, end, hot, list(zip(following[::2], following[1::2], strict=True))))
    return groups


def read_core(folder):
    """How many stretches are in the core of the order in a folder: those before the first group; without hints those
    that the load profile asks for."""
    if groups := read_groups(folder):
        return groups[0][0]
    profile = read_app(folder).get("loadprofile")
    return -(-profile[-1]["size"] // (STRETCH * BLOCK)) if profile else 0
