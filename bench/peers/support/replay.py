"""A recorded session, replayed from an image in some order over the model of the link."""

import copy
from typing import NamedTuple

from frames import STRETCH
from hints import Hints
from link_model import LATENCY_S, Client
from traces import NO_ENTRY

# Before the stream there are the records and the map, before the first read the drive.
START_TRIPS, MAP_SHARE, MOUNT_S = 4, 0.25, 0.25
LEAST_WAIT_S = 0.002


class Session:
    """`reads` are lists of RAW blocks, as the game needs them together, and the seconds of think time before each: from
    the read before, as it was recorded, without waits. `own_s` is the game's own time to its first frame."""

    def __init__(self, name, reads, own_s, seconds):
        self.name, self.reads, self.own_s, self.seconds = name, reads, own_s, seconds
        at = self.n_before = 0
        for _, think in reads:
            at += think
            self.n_before += at <= own_s
        self.last_think = own_s - sum(think for _, think in reads[: self.n_before])
        self.blocks = {block for blocks, _ in reads for block in blocks}
        self.early = {block for blocks, _ in reads[: self.n_before] for block in blocks}

    def in_units(self, unit_of):
        """The same where each read needs all of its blocks' units; what is used stays what the game reads."""
        wider = copy.copy(self)
        wider.reads = [(set().union(*map(unit_of, blocks)), think) for blocks, think in self.reads]
        return wider


class Placed:
    """An image in an order (from RAW to ZqF blocks), with the packed bytes of its stretches. `weights` are packed bytes
    of each RAW block; without them each block of a stretch has the same share of it. `n_front`: blocks of a mount;
    `core`: stretches in the core of the order."""

    def __init__(self, order, sizes, n_front, weights=None, groups=None, core=0):
        self.order, self.sizes, self.weights, self.groups, self.core = order, sizes, weights, groups, core
        self.n_mount = -(-n_front // STRETCH)
        self.map_bytes = 8 * len(order) * MAP_SHARE
        n = sum(zqf != NO_ENTRY for zqf in order)
        self.lengths = [min(STRETCH, n - first) for first in range(0, n, STRETCH)]

    def stretch_of(self, block):
        return self.order[block] // STRETCH

    def share(self, blocks):
        """What these blocks take of the wire."""
        if self.weights is not None:
            return sum(self.weights[block] for block in blocks)
        stretches = map(self.stretch_of, blocks)
        return sum(self.sizes[idx] / self.lengths[idx] for idx in stretches)


class Wait(NamedTuple):
    at: float  # seconds after the first frame
    seconds: float


class Result(NamedTuple):
    """What came of a session. Bytes are those of the wire."""

    start_s: float  # to the first frame, without the game's own time
    ideal_s: float  # of the start
    waits: list  # after the first frame
    used: float  # by all of the session
    demanded: float
    along: float  # came with what was on demand
    unused_early: float  # there at the first frame, never used
    n_requests: int

    @property
    def over_ideal(self):
        return self.start_s / self.ideal_s


class Replay:
    def __init__(self, session, placed, rate):
        self.session, self.placed, self.rate = session, placed, rate
        groups = placed.groups
        self.client = Client(placed.sizes, rate, Hints(groups) if groups else None, placed.core)

    def run(self):
        client, session = self.client, self.session
        client.stream.stands_until = START_TRIPS * LATENCY_S + self.placed.map_bytes / self.rate
        while client.stream.next < self.placed.n_mount:
            client.advance(client.now + 0.001)
        client.advance(client.now + MOUNT_S)
        at, frame_at, waits, unused = client.now, None, [], 0.0
        for number, (blocks, think) in enumerate(session.reads):
            if number == session.n_before:
                frame_at, unused = at + session.last_think, self.unused_now()
            at += think
            wanted = {self.placed.stretch_of(block) for block in blocks}
            if all(client.is_there(idx) for idx in wanted):
                continue
            came = client.read(sorted(wanted), at)
            if frame_at is not None and came - at >= LEAST_WAIT_S:
                waits.append(Wait(at - frame_at, came - at))
            at = came
        if frame_at is None:
            frame_at, unused = at + session.last_think, self.unused_now()
        return Result(
            start_s=frame_at - session.own_s,
            ideal_s=self.placed.share(session.early) / self.rate + 2 * LATENCY_S,
            waits=waits,
            used=self.placed.share(session.blocks),
            demanded=client.demanded,
            along=client.along,
            unused_early=unused,
            n_requests=client.n_requests,
        )

    def unused_now(self):
        """Of what has come by now, what the session never uses."""
        client, placed = self.client, self.placed
        used = [block for block in self.session.blocks if client.has(placed.stretch_of(block))]
        return max(client.stream.taken + client.demanded + client.along - placed.share(used), 0.0)
