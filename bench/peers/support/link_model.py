"""A model of `run --now`: how long a session waits for its blocks, while an image comes over a link in some order.

One link carries everything, at one rate. What is fetched on demand goes first, then what comes along with it, then
the ordered stream. It has the rules of the client and their numbers:

- A read waits for the stream where that brings its stretch within a round trip, and else asks for the stretch. A
  request costs a round trip, then its bytes at the link's rate. What one read needs is asked for together.
- Where a round trip carries half a stretch, further ones come with the one that is asked for, if one of the two before
  it is there, or such requests have been of use of late. Who goes through the image gets more before it is needed.
- What hints name is asked for with a stretch that is missed, and yields to what somebody waits for.
- The stream is held while a request is under way, and for ten round trips after one on demand, 10 s in all. Of what is
  on its way a round trip's worth still comes. Whoever waits for the stream ends the hold.
- The stream skips what has come otherwise where that costs less than to receive it again, and asks anew every 2 s.

Times are seconds, sizes are bytes of the wire.
"""

from collections import deque

LATENCY_S = 0.020  # from a request to its answer
SEGMENT_S, LEAST_SEGMENT = 2.0, 1 << 20  # of the stream, for each request
BREAK_TRIPS, QUIET_TRIPS = 3, 10
MIN_QUIET_S, MAX_QUIET_S, QUIET_BUDGET_S = 0.010, 0.250, 10.0
MIN_IN_TRIP, TRIPS_TOGETHER, MAX_TOGETHER, FIRST_TOGETHER = 0.5, 4, 8, 4
GROUP = 6  # stretches on demand on the wire together
PATIENCE_S = 0.100  # with a stream that doesn't move
MAX_UNUSED = (32 << 20) // 204800  # stretches that came along and that nobody has asked for
# What the machine takes: to look at the drive (busy: soon after a fetch), to unpack and hand over a stretch, and from
# the stream's arrival to the drive's cursor.
LOOK_S, BUSY_LOOK_S, BUSY_FOR_S, DELIVER_S, CURSOR_S = 0.005, 0.001, 0.1, 0.005, 0.008


class Stream:
    """The ordered stream over the stretches of `sizes`. `kept` are stretches that have come otherwise."""

    def __init__(self, sizes, rate, kept):
        self.sizes, self.rate, self.kept = sizes, rate, kept
        self.trip_bytes = rate * LATENCY_S
        self.next, self.left = 0, sizes[0]  # the stretch that comes next, and what is missing of it
        self.stands_until = 0.0
        self.taken = self.twice = 0
        self.begin_request()

    def begin_request(self):
        self.request_left = max(SEGMENT_S * self.rate, LEAST_SEGMENT)
        self.planned = set(self.kept)  # such a request ends where one of these begins

    def is_complete(self):
        return self.next == len(self.sizes)

    def run(self, now, until, limit=float("inf")):
        """It has the link until then, or until so many bytes have come. Gives the time and the bytes."""
        taken = 0.0
        while now < until and not self.is_complete():
            if now < self.stands_until:
                now = min(until, self.stands_until)
                continue
            n = min(self.left, (until - now) * self.rate, limit - taken)
            if n <= 0:
                break
            now += n / self.rate
            taken += n
            self.left -= n
            self.request_left -= n
            if self.left < 1:
                self.finish_stretch(now)
        self.taken += taken
        return now, taken

    def finish_stretch(self, now):
        if self.kept.pop(self.next, None) is not None:
            self.twice += self.sizes[self.next]
        self.next += 1
        self.skip_kept(now)
        if self.is_complete():
            return
        self.left = self.sizes[self.next]
        if self.request_left <= 0:
            self.stands_until = now + LATENCY_S
            self.begin_request()

    def skip_kept(self, now):
        while self.next in self.kept:
            end = self.next
            while end in self.kept:
                end += 1
            is_planned = self.next in self.planned
            if not is_planned and sum(self.sizes[self.next : end]) <= BREAK_TRIPS * self.trip_bytes:
                return
            for idx in range(self.next, end):
                del self.kept[idx]
            self.next = end
            # What was on its way is lost where the request is broken off.
            self.stands_until = now + (1 if is_planned else BREAK_TRIPS - 1) * LATENCY_S
            self.begin_request()

    def reaches_soon(self, idx):
        """Whether it brings the stretch within a round trip."""
        missing = 0
        for other in range(self.next, idx):
            missing += self.left if other == self.next else self.sizes[other]
            if missing > self.trip_bytes:
                return False
        return True


class Client:
    """The client at a link of `rate` bytes a second. `hints` of that order may be None."""

    def __init__(self, sizes, rate, hints=None):
        self.sizes, self.rate, self.hints = sizes, rate, hints
        self.now = 0.0
        self.delivered = set()  # stretches that the drive has though the stream hasn't brought them
        self.kept = {}  # those that are kept for the stream, and whether somebody has asked for them
        self.stream = Stream(sizes, rate, self.kept)
        in_trip = rate * LATENCY_S / sum(sizes) * len(sizes)
        self.together = int(min(max(in_trip * TRIPS_TOGETHER, 2), MAX_TOGETHER)) if in_trip >= MIN_IN_TRIP else 1
        self.tries = FIRST_TOGETHER
        self.ahead = deque()  # [stretch, bytes left, when its answer begins]
        self.held_since, self.grace = None, 0.0
        self.quiet_since = self.quiet_until = 0.0
        self.quiet_budget = QUIET_BUDGET_S
        self.fetched_at = -1.0
        self.n_requests = self.demanded = self.along = 0

    def is_there(self, idx):
        """For the drive."""
        return idx < self.stream.next or idx in self.delivered

    def has(self, idx):
        return self.is_there(idx) or idx in self.kept

    # -- the link

    def advance(self, until, hastened=False):
        """What nobody waits for comes until then, or the stream alone, for which somebody waits."""
        while self.now < until:
            if hastened:
                self.flow(until)
            elif self.ahead:
                self.take_ahead(until)
            elif self.now < self.quiet_until:
                self.hold(min(until, self.quiet_until))
            else:
                self.flow(until)

    def flow(self, until):
        self.held_since = None
        self.now, _ = self.stream.run(self.now, until)
        self.now = max(self.now, until)

    def hold(self, until):
        """The stream is held until then; what is on its way still comes."""
        if self.held_since is None:
            self.held_since, self.grace = self.now, self.stream.trip_bytes
        _, taken = self.stream.run(self.now, until, self.grace)
        self.grace -= taken
        self.now = max(self.now, until)

    def take_ahead(self, until):
        entry = self.ahead[0]
        if entry[2] > self.now:
            self.hold(min(until, entry[2]))
            return
        if self.held_since is None:
            self.held_since, self.grace = self.now, self.stream.trip_bytes
        n = min(entry[1], (until - self.now) * self.rate)
        self.now += n / self.rate
        entry[1] -= n
        self.along += n
        if entry[1] < 1:
            self.ahead.popleft()
            if entry[0] >= self.stream.next:
                self.kept.setdefault(entry[0], False)

    # -- what comes along

    def is_coming(self, idx):
        return any(entry[0] == idx for entry in self.ahead)

    def is_gone_through(self, idx):
        return (idx >= 1 and self.has(idx - 1)) or (idx >= 2 and self.has(idx - 2))

    def following(self, first, n):
        """Up to `n` stretches from `first` on that may come along."""
        room = MAX_UNUSED - len(self.ahead) - sum(not is_used for is_used in self.kept.values())
        found = []
        for idx in range(first, min(first + min(n, room), len(self.sizes))):
            if self.has(idx) or self.is_coming(idx) or self.reaches_soon(idx):
                break
            found.append(idx)
        return found

    def ask_ahead(self, stretches):
        self.n_requests += 1
        self.ahead.extend([idx, self.sizes[idx], self.now + LATENCY_S] for idx in stretches)

    def follow(self, idx):
        n = self.together
        if n < 2 or not self.is_gone_through(idx):
            return
        first = idx + 1
        while first <= idx + n and first < len(self.sizes) and (self.is_coming(first) or self.has(first)):
            first += 1
        if first <= idx + 1 + n // 2 and (found := self.following(first, n)):
            self.ask_ahead(found)

    def come_along(self, idx, is_alone, likely):
        """Those that the same request brings after this one."""
        n_likely = 0
        while idx + 1 + n_likely in likely:
            n_likely += 1
        n = 0 if is_alone else self.together - 1
        is_sure = self.is_gone_through(idx)
        is_try = n > 0 and not is_sure and not likely and self.tries > 0
        found = self.following(idx + 1, max(n, n_likely) if is_sure or is_try else n_likely)
        self.tries -= bool(is_try and found)
        return found

    def ask_likely(self, likely):
        for idx in likely:
            if not self.has(idx) and not self.is_coming(idx):
                end = idx
                while end in likely:
                    end += 1
                if found := self.following(idx, end - idx):
                    self.ask_ahead(found)
                    self.hints.begun.update(found)

    # -- reads

    def read(self, stretches, at):
        """The game needs these at that time. Gives when it has them."""
        self.advance(at)
        wanted = [idx for idx in stretches if not self.is_there(idx)]
        if not wanted:
            return at
        is_busy = self.now - self.fetched_at < BUSY_FOR_S
        self.advance(max(self.now, at) + (BUSY_LOOK_S if is_busy else LOOK_S))
        while wanted := [idx for idx in wanted if not self.is_there(idx)]:
            self.serve(wanted)
        return self.now

    def reaches_soon(self, idx):
        is_patient = self.held_since is None or self.now - self.held_since <= PATIENCE_S
        return idx < self.stream.next or (is_patient and self.stream.reaches_soon(idx))

    def serve(self, wanted):
        """One step towards having all of them."""
        kept = [idx for idx in wanted if idx in self.kept]
        coming = [idx for idx in wanted if self.is_coming(idx)]
        apart = [idx for idx in wanted if idx not in self.kept and idx not in coming and not self.reaches_soon(idx)]
        if kept:
            for idx in kept:
                self.use_kept(idx)
            self.now += DELIVER_S
            self.fetched_at = self.now
        elif apart:
            self.fetch(apart[:GROUP])
        elif coming:
            # From now on it is as good as asked for.
            before = self.along
            self.take_ahead(self.now + self.ahead[0][1] / self.rate + LATENCY_S)
            self.demanded += self.along - before
            self.along = before
        else:
            self.advance(self.now + 0.002, hastened=True)
            self.now += CURSOR_S if self.is_there(wanted[0]) else 0

    def use_kept(self, idx):
        if not self.kept[idx]:
            self.kept[idx] = True
            self.tries = min(self.tries + 2, 2 * FIRST_TOGETHER)
        self.delivered.add(idx)
        if self.hints:
            self.ask_likely(self.hints.find([idx], self.stream.next, lambda other: other < self.stream.next))
        self.follow(idx)

    def fetch(self, group):
        """Asks for stretches and waits for them."""
        likely = self.hints.find(group, self.stream.next, lambda idx: idx < self.stream.next) if self.hints else []
        likely = [idx for idx in likely if not self.has(idx) and not self.is_coming(idx) and idx not in group]
        along = [other for idx in group for other in self.come_along(idx, len(group) > 1, likely) if other not in group]
        self.n_requests += len(group)
        answer = self.now + LATENCY_S
        before, self.ahead = self.ahead, deque([idx, self.sizes[idx], answer] for idx in along)
        self.ask_likely([idx for idx in likely if idx not in along])
        self.ahead.extend(before)
        self.hold(answer)
        for idx in group:
            self.now += self.sizes[idx] / self.rate
            self.demanded += self.sizes[idx]
            if idx >= self.stream.next:
                self.kept[idx] = True
            self.delivered.add(idx)
        if not along:
            self.be_quiet()
        for idx in group:
            self.follow(idx)
        self.now += DELIVER_S
        self.fetched_at = self.now

    def be_quiet(self):
        """The stream stays held for the next request, as long as the budget for that lasts."""
        passed = self.now - self.quiet_since
        held = min(passed, self.quiet_until - self.quiet_since)
        self.quiet_budget = min(max(self.quiet_budget - held + (passed - held) / 2, 0.0), QUIET_BUDGET_S)
        trips = QUIET_TRIPS if self.quiet_budget > 0 else 1
        self.quiet_since = self.now
        self.quiet_until = self.now + min(max(trips * LATENCY_S, MIN_QUIET_S), MAX_QUIET_S)
