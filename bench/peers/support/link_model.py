"""A model of `run --now`: how long a session waits for its blocks, while an image comes over a link in some order.

One link carries everything, at one rate. What is fetched on demand goes first, then what comes along with it, then the
ordered stream. It has the rules of the client and their numbers:

- A read waits for the stream where that brings its stretch within a round trip, and else asks for the stretch. A request
  costs a round trip, then its bytes at the link's rate. Stretches that one read needs are asked for together.
- Where a round trip carries half a stretch, further ones come with the one that is asked for, if one of the two before it
  is there, or such requests have been of use of late.
- The stream is held while a request is under way, and for ten round trips after one on demand, 10 s in all. Of what is on
  its way a round trip's worth still comes. Whoever waits for the stream ends the hold.
- The stream skips what has come otherwise where that costs less than to receive it again, and asks anew every 2 s.

What a game does between two reads takes the time that it took when it was recorded.
"""

import copy
from collections import deque
from typing import NamedTuple

from traces import NO_ENTRY

TRIP_S = 0.020
SEGMENT_S, SEGMENT_BYTES = 2.0, 1 << 20  # of the stream, for each request
BREAK_TRIPS, QUIET_TRIPS = 3, 10
QUIET_MIN_S, QUIET_MAX_S, QUIET_BUDGET_S = 0.010, 0.250, 10.0
MIN_IN_TRIP, TRIPS_TOGETHER, MAX_TOGETHER, FIRST_TOGETHER = 0.5, 4, 8, 4
GROUP = 6  # stretches on demand on the wire together
PATIENCE_S = 0.100  # with a stream that doesn't move
MAX_UNUSED = (32 << 20) // 204800  # stretches that came along and that nobody has asked for
# What the machine takes: to look at the drive (busy: soon after a fetch), to unpack and hand over a stretch, and from
# the stream's arrival to the drive's cursor.
LOOK_S, BUSY_LOOK_S, BUSY_FOR_S, DELIVER_S, CURSOR_S = 0.005, 0.001, 0.1, 0.003, 0.008
# Before the stream there are the records and the map, before the first read the drive.
START_TRIPS, MOUNT_S = 4, 0.25


class Wait(NamedTuple):
    at: float  # seconds of play
    seconds: float


class Client:
    """The client at the link. `sizes` are the packed bytes of the image's stretches, `rate` bytes a second. `hints` gives
    for a stretch that is missed further ones that are announced with it."""

    def __init__(self, sizes, rate, hints=None):
        self.sizes, self.rate, self.hints = sizes, rate, hints
        n = len(sizes)
        self.is_there = bytearray(n)  # the drive has it
        self.kept = {}  # stretches that have come along, and whether somebody has asked for them
        self.now = 0.0
        self.trip_bytes = rate * TRIP_S
        in_trip = self.trip_bytes / sum(sizes) * n
        self.together = int(min(max(in_trip * TRIPS_TOGETHER, 2), MAX_TOGETHER)) if in_trip >= MIN_IN_TRIP else 1
        self.tries = FIRST_TOGETHER
        # The stream: the stretch that comes next, what is missing of it, and of the request.
        self.next, self.left = 0, sizes[0]
        self.stands_until = 0.0
        self.grace = self.trip_bytes
        self.begin_segment()
        self.ahead = deque()  # [stretch, bytes left, when the answer begins]
        self.quiet_since = self.quiet_until = 0.0
        self.quiet_budget = QUIET_BUDGET_S
        self.fetched = -1.0
        self.n_requests = self.demanded = self.came_along = self.twice = self.streamed = 0

    # -- the stream

    def begin_segment(self):
        self.segment = max(SEGMENT_S * self.rate, 2 * SEGMENT_BYTES)
        self.planned = set(self.kept)

    def enter_stretch(self):
        """The stream comes to its next stretch, and skips what is kept where that is worth it."""
        sizes, n = self.sizes, len(self.sizes)
        while self.next < n:
            end = self.next
            while end < n and (end in self.kept):
                end += 1
            if end == self.next:
                break
            is_planned = self.next in self.planned
            if not is_planned and sum(sizes[self.next : end]) <= BREAK_TRIPS * self.trip_bytes:
                break
            for idx in range(self.next, end):
                self.is_there[idx] = 1
                del self.kept[idx]
            self.next = end
            self.stands_until = self.now + (1 if is_planned else BREAK_TRIPS - 1) * TRIP_S
            self.begin_segment()
        if self.next < n:
            self.left = sizes[self.next]

    def stream(self, until, limit=None):
        """The stream has the link until then, or until so many bytes have come. Gives them."""
        taken = 0.0
        while self.now < until and self.next < len(self.sizes):
            if self.now < self.stands_until:
                self.now = min(until, self.stands_until)
                continue
            n = min(self.left, (until - self.now) * self.rate)
            if limit is not None:
                n = min(n, limit - taken)
                if n <= 0:
                    return taken
            self.now += n / self.rate
            taken += n
            self.left -= n
            self.segment -= n
            self.streamed += n
            if self.left < 1:
                self.finish_stretch()
        return taken

    def finish_stretch(self):
        idx = self.next
        if self.kept.pop(idx, None) is not None:
            self.twice += self.sizes[idx]
        self.is_there[idx] = 1
        self.next += 1
        self.enter_stretch()
        if self.segment <= 0 and self.next < len(self.sizes):
            self.stands_until = self.now + TRIP_S
            self.begin_segment()

    def reaches_soon(self, idx):
        if idx < self.next:
            return True
        missing = 0
        for other in range(self.next, idx):
            missing += self.left if other == self.next else self.sizes[other]
            if missing > self.trip_bytes:
                return False
        return self.now - self.held_since() <= PATIENCE_S

    def held_since(self):
        """When the stream moved last."""
        return self.moved if self.is_held else self.now

    # -- the link

    is_held, moved = False, 0.0

    def hold(self):
        if not self.is_held:
            self.is_held, self.moved, self.grace = True, self.now, self.trip_bytes

    def pass_held(self, until):
        """The link is kept for others until then; what is on its way still comes."""
        self.hold()
        taken = self.stream(until, self.grace)
        if taken > 0:
            self.grace -= taken
            self.moved = self.now
        self.now = max(self.now, until)

    def advance(self, until, hastened=False):
        """What nobody waits for comes until then, and the stream where it is `hastened`."""
        while self.now < until:
            if self.ahead and not hastened:
                self.pass_ahead(until)
            elif self.now < self.quiet_until and not hastened:
                self.pass_held(min(until, self.quiet_until))
            else:
                self.is_held = False
                self.stream(until)
                if self.next >= len(self.sizes):
                    self.now = max(self.now, until)

    def pass_ahead(self, until):
        entry = self.ahead[0]
        if entry[2] > self.now:
            self.pass_held(min(until, entry[2]))
            return
        self.hold()
        n = min(entry[1], (until - self.now) * self.rate)
        self.now += n / self.rate
        entry[1] -= n
        self.came_along += n
        if entry[1] < 1:
            self.ahead.popleft()
            if not self.is_there[entry[0]]:
                self.kept[entry[0]] = False

    # -- what is asked for

    def is_claimed(self, idx):
        return any(entry[0] == idx for entry in self.ahead)

    def has(self, idx):
        return bool(self.is_there[idx]) or idx in self.kept

    def is_gone_through(self, idx):
        return (idx >= 1 and self.has(idx - 1)) or (idx >= 2 and self.has(idx - 2))

    def following(self, first, n):
        """Up to `n` stretches from `first` on that may come along."""
        found = []
        unused = sum(not used for used in self.kept.values()) + len(self.ahead)
        for idx in range(first, min(first + n, len(self.sizes))):
            if self.has(idx) or self.is_claimed(idx) or idx < self.next or self.reaches_soon(idx):
                break
            if unused + len(found) >= MAX_UNUSED:
                break
            found.append(idx)
        return found

    def use_kept(self, idx):
        """Somebody asks for a stretch that has come along."""
        if not self.kept[idx]:
            self.kept[idx] = True
            self.tries = min(self.tries + 2, 2 * FIRST_TOGETHER)
        self.is_there[idx] = 1
        self.follow(idx)

    def follow(self, idx):
        """Who goes through the image gets more before it is needed."""
        n = self.together
        if n < 2 or not self.is_gone_through(idx):
            return
        first = idx + 1
        while first <= idx + n and first < len(self.sizes) and (self.is_claimed(first) or self.has(first)):
            first += 1
        if first > idx + 1 + n // 2:
            return
        found = self.following(first, n)
        if found:
            self.n_requests += 1
            self.ahead.extend([other, self.sizes[other], self.now + TRIP_S] for other in found)

    def fetch(self, group):
        """Asks for stretches and waits for them."""
        along = []
        if len(group) == 1 and self.together > 1:
            is_sure = self.is_gone_through(group[0])
            if is_sure or self.tries > 0:
                along = self.following(group[0] + 1, self.together - 1)
                if along and not is_sure:
                    self.tries -= 1
        announced = [idx for idx in (self.hints(group[0]) if self.hints else ())
                     if not self.has(idx) and not self.is_claimed(idx) and idx not in group and idx not in along]  # fmt: skip
        self.n_requests += len(group) + len(announced)
        answer = self.now + TRIP_S
        self.pass_held(answer)
        for idx in group:
            self.now += self.sizes[idx] / self.rate
            self.demanded += self.sizes[idx]
            self.kept[idx] = True
            self.is_there[idx] = 1
        self.ahead.extendleft([idx, self.sizes[idx], answer] for idx in reversed(along + announced))
        if not along:
            self.be_quiet()
        for idx in group:
            self.follow(idx)

    def be_quiet(self):
        """The stream stays held for the next request, as long as the budget for that lasts."""
        passed = self.now - self.quiet_since
        held = min(passed, self.quiet_until - self.quiet_since)
        self.quiet_budget = min(max(self.quiet_budget - held + (passed - held) / 2, 0.0), QUIET_BUDGET_S)
        trips = QUIET_TRIPS if self.quiet_budget > 0 else 1
        self.quiet_since = self.now
        self.quiet_until = self.now + min(max(trips * TRIP_S, QUIET_MIN_S), QUIET_MAX_S)

    def read(self, stretches, at):
        """A read of the game at that time; gives when it has its blocks."""
        self.advance(at)
        wanted = [idx for idx in stretches if not self.is_there[idx]]
        if not wanted:
            return at
        busy = self.now - self.fetched < BUSY_FOR_S
        self.advance(max(self.now, at) + (BUSY_LOOK_S if busy else LOOK_S))
        while wanted := [idx for idx in wanted if not self.is_there[idx]]:
            self.serve(wanted)
        return self.now

    def serve(self, wanted):
        kept = [idx for idx in wanted if idx in self.kept]
        coming = [idx for idx in wanted if self.is_claimed(idx)]
        soon = [idx for idx in wanted if self.reaches_soon(idx)]
        apart = [idx for idx in wanted if idx not in kept and idx not in coming and idx not in soon]
        if kept:
            for idx in kept:
                self.use_kept(idx)
            self.now += DELIVER_S
        elif apart:
            self.fetch(apart[:GROUP])
            self.now += DELIVER_S
        elif coming:
            # It goes first from now on.
            self.pass_ahead(self.now + self.sizes[coming[0]] / self.rate + TRIP_S)
            return
        else:
            begin = self.now
            while self.now < begin + PATIENCE_S and not self.is_there[soon[0]]:
                self.advance(self.now + 0.002, hastened=True)
            self.moved = self.now if self.is_there[soon[0]] else self.moved
            self.now += CURSOR_S
            return
        self.fetched = self.now


class Session:
    """A session as the model replays it. `reads` are lists of RAW blocks and the seconds of think time before each,
    `own_s` is the game's own time to its first frame."""

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


class Result(NamedTuple):
    """What came of a session. Bytes are those of the wire."""

    start_s: float  # to the first frame, without the game's own time
    ideal_s: float
    waits: list  # after the first frame
    used: float
    demanded: float
    along: float  # came with what was on demand
    unused_early: float  # at the start, never used
    n_requests: int
    moved_early: float

    @property
    def over_ideal(self):
        return self.start_s / self.ideal_s


def replay(session, order, sizes, rate, n_mount, hints=None, weights=None):
    """The session from an image in that order (from RAW to ZqF blocks), whose packed stretches have these sizes.
    `n_mount`: stretches that a mount needs. `weights`: packed bytes of each RAW block; without them each block of a
    stretch has the same share."""
    stretch = 50
    lens = {}
    for zqf in order:
        if zqf != NO_ENTRY:
            lens[zqf // stretch] = lens.get(zqf // stretch, 0) + 1

    def share(blocks):
        if weights is not None:
            return sum(weights[block] for block in blocks)
        return sum(sizes[order[block] // stretch] / lens[order[block] // stretch] for block in blocks)

    client = Client(sizes, rate, hints)
    client.stands_until = START_TRIPS * TRIP_S + len(order) * 8 / 4 / rate
    while client.next < n_mount:
        client.stream(client.now + 0.01)
    client.advance(client.now + MOUNT_S)
    begin = at = client.now
    waits, start, early = [], None, None
    for number, (blocks, think) in enumerate(session.reads):
        if number == session.n_before:
            at, start = at, at + session.last_think - begin
            early = (client.streamed + client.demanded + client.came_along, set_of_there(client))
        at += think
        needed = {order[block] // stretch for block in blocks}
        there = client.is_there
        if all(there[idx] for idx in needed):
            continue
        came = client.read(sorted(needed), at)
        if came - at > 0.0015:
            if start is not None:
                waits.append(Wait(at - begin - start, came - at))
            at = came
    if start is None:
        start = at + session.last_think - begin
        early = (client.streamed + client.demanded + client.came_along, set_of_there(client))
    moved, there = early
    by_stretch = {}
    for block in session.blocks:
        by_stretch.setdefault(order[block] // stretch, []).append(block)
    used_there = sum(share(blocks) for idx, blocks in by_stretch.items() if idx in there)
    return Result(
        start_s=begin + start - session.own_s,
        ideal_s=share(session.early) / rate + 2 * TRIP_S,
        waits=waits,
        used=share(session.blocks),
        demanded=client.demanded,
        along=client.came_along,
        unused_early=max(moved - used_there, 0.0),
        n_requests=client.n_requests,
        moved_early=moved,
    )


def set_of_there(client):
    return {idx for idx, there in enumerate(client.is_there) if there}
