"""A model of `run --now`: how long a session waits for its blocks, while an image comes over a link in some order.

One link carries everything. Requests under way share its rate, as connections do. What is fetched on demand goes first,
then what comes along with it, then the ordered stream: a request that yields is held, and what goes into the system's
buffers still comes and takes its share. The model has the client's rules and numbers:

- A read waits for the stream where that brings its stretch within two round trips, and else asks for it. A request
  costs a round trip, then its bytes at the link's rate. What one read needs is asked for together.
- Further stretches come with the one that is asked for, if one of the two before it is there, or such requests have
  been of use of late: the first one where a round trip carries it, or half of a usual one, and others as far as three
  round trips carry them all. Who goes through the image gets more before it is needed.
- What hints name is claimed with a stretch that is missed, and asked for when nobody waits, one request at a time, the
  latest first. Whoever needs it before asks for it himself.
- The stream is held while a request is under way, and for ten round trips after one on demand, 10 s in all. Whoever
  waits for the stream ends the hold. In the core of the order it is held only while an answer on demand comes.
- The stream skips what has come otherwise where that costs less than to receive it again, and asks anew every 2 s.

Times are seconds, sizes are bytes of the wire.
"""

from collections import deque

INFINITE = float("inf")
LATENCY_S = 0.020  # from a request to its answer
SEGMENT_S, LEAST_SEGMENT = 2.0, 1 << 20  # of the stream, for each request
BREAK_TRIPS, QUIET_TRIPS, SOON_TRIPS = 3, 10, 2
MIN_QUIET_S, MAX_QUIET_S, QUIET_BUDGET_S = 0.010, 0.250, 10.0
MIN_IN_TRIP, TRIPS_FIRST, TRIPS_TOGETHER, MAX_FOLLOWING, FIRST_TOGETHER = 0.5, 1, 3, 8, 4
GROUP = 6  # stretches on demand on the wire together
HELD_TRIPS = 2  # round trips' worth that a held connection takes; the client asks for one, and the system doubles it
LOADERS = 4  # requests that nobody waits for
PATIENCE_S = 0.100  # with a stream that doesn't move
HASTENED_S = 0.100  # the stream goes before what comes along after somebody has waited for it
STRETCH_BYTES = 204800  # decoded
MAX_UNUSED = (32 << 20) // STRETCH_BYTES  # stretches that came along and that nobody has asked for
# What the machine takes: to look at the drive (busy: soon after a fetch), to unpack and hand over a stretch, and from
# the stream's arrival to the drive's cursor.
LOOK_S, BUSY_LOOK_S, BUSY_FOR_S, DELIVER_S, CURSOR_S = 0.005, 0.001, 0.1, 0.005, 0.008


class Request:
    """A request of stretches in a row. `wanted` is the one that somebody waits for; without it the request yields."""

    def __init__(self, parts, answer_at, wanted=None):
        self.parts = deque(parts)  # [stretch, bytes that are missing of it]
        self.answer_at, self.wanted = answer_at, wanted
        self.grace = 0.0  # bytes that still come where it is held


class Stream:
    """The ordered stream over the stretches of `sizes`. `kept` are stretches that have come otherwise."""

    def __init__(self, sizes, rate, kept):
        self.sizes, self.rate, self.kept = sizes, rate, kept
        self.next, self.left = 0, sizes[0]  # the stretch that comes next, and what is missing of it
        self.stands_until = self.grace = 0.0
        self.taken = self.twice = 0
        self.usual = STRETCH_BYTES  # what a stretch takes of the wire, as the client takes it by those that have come
        self.begin_request()

    def begin_request(self):
        self.request_left = max(SEGMENT_S * self.rate, LEAST_SEGMENT)
        self.planned = set(self.kept)  # such a request ends where one of these begins

    def is_complete(self):
        return self.next == len(self.sizes)

    def take(self, n, now):
        """`n` bytes come, up to the stretch's end."""
        self.left -= n
        self.request_left -= n
        self.taken += n
        if self.left < 1:
            self.finish_stretch(now)

    def finish_stretch(self, now):
        if self.kept.pop(self.next, None) is not None:
            self.twice += self.sizes[self.next]
        self.usual = 0.9 * self.usual + 0.1 * self.sizes[self.next]
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
            if not is_planned and (end - self.next) * self.usual <= BREAK_TRIPS * self.rate * LATENCY_S:
                return
            for idx in range(self.next, end):
                del self.kept[idx]
            self.next = end
            # What was on its way is lost where the request is broken off.
            self.stands_until = now + (1 if is_planned else BREAK_TRIPS - 1) * LATENCY_S
            self.begin_request()

    def reaches_soon(self, idx):
        """Whether it brings the stretch within two round trips. It has come to where its last whole stretch ends."""
        return (idx - self.next) * self.usual <= SOON_TRIPS * self.rate * LATENCY_S


class Link:
    """What is under way, and who has the link. The order's core ends before the stretch `core`."""

    def __init__(self, sizes, rate, core=0):
        self.sizes, self.rate, self.trip_bytes, self.core = sizes, rate, rate * LATENCY_S, core
        self.held_bytes = HELD_TRIPS * self.trip_bytes
        self.now = 0.0
        self.delivered = set()  # stretches that the drive has though the stream hasn't brought them
        self.kept = {}  # those that are kept for the stream, and whether somebody has asked for them
        self.stream = Stream(sizes, rate, self.kept)
        self.requests = []
        self.stream_moved = self.hastened_until = 0.0
        self.quiet_since = self.quiet_until = 0.0
        self.quiet_budget = QUIET_BUDGET_S
        self.n_requests = self.demanded = self.along = 0

    def ask(self, stretches, wanted=None):
        self.n_requests += 1
        parts = [[idx, self.sizes[idx]] for idx in stretches]
        self.requests.append(Request(parts, self.now + LATENCY_S, wanted))
        return self.requests[-1]

    def find_request(self, idx):
        for request in self.requests:
            for part in request.parts:
                if part[0] == idx:
                    return request
        return None

    def advance(self, until):
        while self.now < until:
            self.step(until)

    def step(self, until):
        """The time goes on to the next change, or until then."""
        flowing, limits = self.find_flowing(until)
        stream_flows, stream_limit = self.look_at_stream(limits)
        n = len(flowing) + stream_flows
        if n == 0:
            self.now = min(limits)
            return
        most = [min(request.parts[0][1], room) for request, room in flowing]
        if stream_flows:
            most.append(min(self.stream.left, stream_limit))
        share = min(min(most), (min(limits) - self.now) * self.rate / n)
        self.now += share * n / self.rate
        if stream_flows:
            self.stream.grace -= share if stream_limit < INFINITE else 0
            self.stream_moved = self.now
            self.stream.take(share, self.now)
        for request, room in flowing:
            request.grace -= share if room < INFINITE else 0
            self.take(request, share)

    def find_flowing(self, until):
        """Requests that bytes come for, each with how many may; and the times at which that changes."""
        limits = [until]
        is_demand = any(request.wanted is not None for request in self.requests)
        yields = is_demand or self.now < self.hastened_until
        flowing = []
        for request in self.requests:
            is_free = request.wanted is not None or not yields
            if is_free:
                request.grace = self.held_bytes
            if request.answer_at > self.now:
                limits.append(request.answer_at)
            elif is_free or request.grace >= 1:
                flowing.append((request, INFINITE if is_free else request.grace))
        limits += [at for at in (self.hastened_until, self.quiet_until) if at > self.now]
        return flowing, limits

    def look_at_stream(self, limits):
        stream = self.stream
        is_free = self.is_stream_free()
        if is_free:
            stream.grace = self.held_bytes
        if stream.is_complete():
            return False, 0
        if stream.stands_until > self.now:
            limits.append(stream.stands_until)
            return False, 0
        return is_free or stream.grace >= 1, INFINITE if is_free else stream.grace

    def is_stream_free(self):
        demanded = [request for request in self.requests if request.wanted is not None]
        if self.stream.next < self.core:
            return all(request.answer_at > self.now for request in demanded)
        is_hastened = self.now < self.hastened_until
        return not demanded and (is_hastened or (not self.requests and self.now >= self.quiet_until))

    def take(self, request, n):
        part = request.parts[0]
        part[1] -= n
        if request.wanted is None:
            self.along += n
        else:
            self.demanded += n
        if part[1] >= 1:
            return
        request.parts.popleft()
        is_wanted = request.wanted == part[0]
        if part[0] >= self.stream.next:
            self.kept[part[0]] = is_wanted or self.kept.get(part[0], False)
        if is_wanted:
            self.delivered.add(part[0])
        if not request.parts:
            self.requests.remove(request)
            if request.wanted is not None:
                self.be_quiet()
        elif is_wanted:
            request.wanted = None

    def be_quiet(self):
        """The stream stays held for the next request, as long as the budget for that lasts."""
        passed = self.now - self.quiet_since
        held = min(passed, self.quiet_until - self.quiet_since)
        self.quiet_budget = min(max(self.quiet_budget - held + (passed - held) / 2, 0.0), QUIET_BUDGET_S)
        trips = QUIET_TRIPS if self.quiet_budget > 0 else 1
        self.quiet_since = self.now
        self.quiet_until = self.now + min(max(trips * LATENCY_S, MIN_QUIET_S), MAX_QUIET_S)


class Client(Link):
    """The client at a link of `rate` bytes a second. `hints` of that order may be None."""

    def __init__(self, sizes, rate, hints=None, core=0):
        super().__init__(sizes, rate, core)
        self.hints = hints
        self.always = 1 if self.trip_bytes / sum(sizes) * len(sizes) >= MIN_IN_TRIP else 0
        self.tries = FIRST_TOGETHER
        self.fetched_at = -1.0
        self.likely = []  # stretches of requests that are to begin once nobody waits
        self.likely_request, self.is_awaited = None, False

    def is_there(self, idx):
        """For the drive."""
        return idx < self.stream.next or idx in self.delivered

    def has(self, idx):
        return self.is_there(idx) or idx in self.kept

    def reaches_soon(self, idx):
        if idx < self.stream.next:
            return True
        return self.now - self.stream_moved <= PATIENCE_S and self.stream.reaches_soon(idx)

    # -- what comes along

    def is_claimed(self, idx):
        return self.find_request(idx) is not None or any(idx in stretches for stretches in self.likely)

    def is_gone_through(self, idx):
        return (idx >= 1 and self.has(idx - 1)) or (idx >= 2 and self.has(idx - 2))

    def following(self, first, n):
        """Up to `n` stretches from `first` on that may come along."""
        n_claimed = sum(len(request.parts) for request in self.requests) + sum(map(len, self.likely))
        room = MAX_UNUSED - n_claimed - sum(not is_used for is_used in self.kept.values())
        found = []
        for idx in range(first, min(first + min(n, room), len(self.sizes))):
            if self.has(idx) or self.is_claimed(idx) or self.reaches_soon(idx):
                break
            found.append(idx)
        return found

    def count_following(self, first):
        """Stretches from there on that leave the link no round trip idle; none where they would hold up others."""
        n = taken = 0
        while n < MAX_FOLLOWING and first + n < len(self.sizes):
            taken += self.sizes[first + n]
            if taken > (TRIPS_TOGETHER if n else TRIPS_FIRST) * self.trip_bytes:
                break
            n += 1
        return max(n, self.always)

    def follow(self, idx):
        n = self.count_following(idx + 1)
        if n < 1 or not self.is_gone_through(idx):
            return
        first = idx + 1
        while first <= idx + n and first < len(self.sizes) and (self.is_claimed(first) or self.has(first)):
            first += 1
        if first <= idx + 1 + n // 2 and (found := self.following(first, self.count_following(first))):
            self.ask(found)

    def come_along(self, idx, is_alone, likely):
        """Those that the same request brings after this one."""
        n_likely = 0
        while idx + 1 + n_likely in likely:
            n_likely += 1
        n = 0 if is_alone else self.count_following(idx + 1)
        is_sure = self.is_gone_through(idx)
        is_try = n > 0 and not is_sure and not likely and self.tries > 0
        found = self.following(idx + 1, max(n, n_likely) if is_sure or is_try else n_likely)
        self.tries -= bool(is_try and found)
        return found

    def find_likely(self, wanted):
        """What hints name that is neither there nor claimed."""
        named = self.hints.find(wanted, self.stream.next) if self.hints else []
        return [idx for idx in named if idx not in wanted and not self.has(idx) and not self.is_claimed(idx)]

    def claim_likely(self, likely):
        n = 0
        for idx in likely:
            if self.is_claimed(idx):
                continue
            end = idx
            while end in likely:
                end += 1
            if found := self.following(idx, end - idx):
                self.likely.insert(n, found)
                n += 1
        if likely:
            self.hints.begun.update(idx for idx in likely if self.is_claimed(idx) or idx in self.kept)

    def step(self, until):
        is_one_coming = self.likely_request in self.requests
        if self.likely and not self.is_awaited and not is_one_coming and len(self.requests) < LOADERS:
            self.likely_request = self.ask(self.likely.pop(0))
        super().step(until)

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

    def serve(self, wanted):
        """One step towards having all of them."""
        kept = [idx for idx in wanted if idx in self.kept]
        if kept:
            self.use_kept(kept)
            return
        self.ask_for(wanted)
        awaited = [idx for idx in wanted if self.is_claimed(idx)]
        self.is_awaited = True
        if awaited:
            for idx in awaited:
                self.hasten(idx)
            while all(self.find_request(idx) and not self.is_there(idx) for idx in awaited):
                self.step(self.now + PATIENCE_S)
        else:
            self.hastened_until = self.now + HASTENED_S
            self.advance(self.now + 0.002)
        self.is_awaited = False
        if awaited:
            self.after_fetch([idx for idx in awaited if not self.find_request(idx)])
        else:
            self.advance(self.now + (CURSOR_S if self.is_there(wanted[0]) else 0))

    def hasten(self, idx):
        """Somebody waits for a claimed stretch: its request goes first up to that one."""
        for stretches in self.likely:
            if idx in stretches:
                self.likely.remove(stretches)
                self.ask(stretches, idx)
                return
        request = self.find_request(idx)
        if request.wanted is None:
            request.wanted = idx

    def ask_for(self, wanted):
        """What isn't under way, nor left to the stream, is asked for, and what is likely then is claimed."""
        likely = self.find_likely(wanted)
        apart = [idx for idx in wanted if not self.is_claimed(idx) and not self.reaches_soon(idx)]
        for idx in apart[:GROUP]:
            if not self.is_claimed(idx):
                self.ask([idx, *self.come_along(idx, len(apart) > 1, likely)], idx)
        self.claim_likely(likely)

    def use_kept(self, stretches):
        for idx in stretches:
            if not self.kept[idx]:
                self.kept[idx] = True
                # What was known beforehand says nothing for what is tried.
                if not (self.hints and idx in self.hints.begun):
                    self.tries = min(self.tries + 2, 2 * FIRST_TOGETHER)
            self.delivered.add(idx)
        self.claim_likely(self.find_likely(stretches))
        self.after_fetch(stretches)

    def after_fetch(self, stretches):
        for idx in stretches:
            self.follow(idx)
        self.advance(self.now + DELIVER_S)
        self.fetched_at = self.now
