#!/usr/bin/env python3
"""Tests the model of the link by cases that can be worked out by hand."""

import sys
import unittest
import unittest.mock
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench/peers/support"))
from hints import Hints  # noqa: E402
from link_model import DELIVER_S, HELD_TRIPS, LATENCY_S, LOOK_S, MAX_FOLLOWING, Client  # noqa: E402
from orders import today  # noqa: E402
from replay import LEAST_WAIT_S, MAP_SHARE, MOUNT_S, START_TRIPS, Placed, Replay, Session  # noqa: E402

RATE = 1_000_000
SIZE = 100_000  # of a stretch: a tenth of a second
LATE_S = (HELD_TRIPS - 1) * LATENCY_S  # what the held stream still takes of an answer's time


def client(n=100, rate=RATE, hints=None, core=0):
    return Client([SIZE] * n, rate, hints, core)


class LinkModelTest(unittest.TestCase):
    def test_the_stream_brings_all_in_order(self):
        link = client()
        self.assertEqual(link.read([0], 0.25), 0.25)
        self.assertEqual(link.stream.next, 2)
        link.advance(3)
        # Once in 2 s the stream asks anew, and the link is idle for a round trip.
        self.assertEqual(link.stream.next, int((3 - LATENCY_S) * RATE / SIZE))
        self.assertEqual(link.n_requests, 0)

    def test_what_is_missed_costs_a_trip_and_its_bytes(self):
        for wanted in ([50], [50, 70], [50, 60, 70]):
            link = client()
            link.advance(0.3)
            came = link.read(wanted, 1)
            cost = LATENCY_S + len(wanted) * SIZE / RATE + LATE_S
            self.assertAlmostEqual(came, 1 + LOOK_S + cost + DELIVER_S, msg=wanted)
            self.assertEqual((link.n_requests, link.demanded), (len(wanted), len(wanted) * SIZE))

    def test_what_the_stream_brings_soon_is_left_to_it(self):
        link = client()
        link.advance(0.19)
        came = link.read([1], 0.19)
        self.assertLess(came, 0.22)
        self.assertEqual(link.n_requests, 0)

    def test_what_comes_next_but_one_is_left_to_a_fast_stream_alone(self):
        for rate, n_requests in ((RATE, 1), (20 * RATE, 0)):
            link = client(rate=rate)
            # Of the first one little is missing.
            link.advance(0.09 * RATE / rate)
            link.read([1], link.now)
            self.assertEqual(link.n_requests, n_requests)

    def test_two_round_trips_of_the_stream_are_about_as_soon_as_a_request(self):
        for trips, n_requests in ((1.9, 0), (2.6, 1)):
            link = client(rate=10 * SIZE / (trips * LATENCY_S))
            link.advance(0.3)
            link.read([link.stream.next + 10], link.now)
            self.assertEqual(link.n_requests, n_requests, trips)

    def test_the_stream_is_held_for_the_next_request(self):
        link = client()
        link.read([50], 1)
        taken = link.stream.taken
        link.advance(link.now + 0.1)
        # What was on its way has come by now.
        self.assertEqual(link.stream.taken, taken)
        link.advance(link.now + 1)
        self.assertGreater(link.stream.taken, taken + 0.5 * RATE)

    def test_in_the_core_the_stream_is_held_for_an_answer_alone(self):
        link = client(core=20)
        link.advance(1)
        taken = link.stream.taken
        came = link.read([50], 1)
        # What still comes after the answer has begun shares the link with it.
        held_s = HELD_TRIPS * LATENCY_S
        self.assertAlmostEqual(came, 1 + LOOK_S + LATENCY_S + SIZE / RATE + held_s + DELIVER_S)
        during = RATE * (LOOK_S + LATENCY_S + held_s + DELIVER_S)
        self.assertAlmostEqual(link.stream.taken - taken, during)
        link.advance(link.now + 0.1)
        self.assertAlmostEqual(link.stream.taken - taken, during + 0.1 * RATE)

    def test_others_come_along_on_a_fast_link_while_they_are_of_use(self):
        link = client(1000, 100 * RATE)
        for idx in (900, 850, 800, 750):
            link.read([idx], link.now)
            link.advance(link.now + 0.1)
        n = link.along
        self.assertEqual(n, 4 * MAX_FOLLOWING * SIZE)
        link.read([700], link.now)
        link.advance(link.now + 0.1)
        self.assertEqual(link.along, n)

    def test_hints_bring_the_next_ones(self):
        link = client(hints=Hints([(40, 60, [50, 55], []), (70, 80, [70], [])]))
        link.read([50], 0)
        link.advance(link.now + 0.5)
        self.assertIn(55, link.kept)
        self.assertNotIn(70, link.kept)
        self.assertAlmostEqual(link.read([55], 2), 2 + LOOK_S + DELIVER_S)

    def test_hints_wait_for_each_other_and_for_who_waits(self):
        link = client(hints=Hints([(40, 60, [50, 55, 58], [])]))
        link.read([50], 0)
        link.advance(link.now + 0.01)
        self.assertEqual([request.parts[0][0] for request in link.requests], [55])
        # Who needs the other one asks for it himself, and goes first.
        link.read([58], link.now)
        self.assertTrue(link.is_there(58))
        self.assertNotIn(55, link.kept)
        self.assertEqual(link.n_requests, 3)

    def test_kept_stretches_are_skipped_where_that_is_worth_it(self):
        link = client(10)
        link.read([5], 0)
        link.advance(5)
        self.assertTrue(link.stream.is_complete())
        self.assertEqual((link.stream.taken, link.stream.twice), (9 * SIZE, 0))


class ReplayTest(unittest.TestCase):
    def test_start_and_waits(self):
        order = list(range(500))  # ten stretches
        session = Session("", [([0], 0.0), ([499], 0.1), ([250], 1.0)], 0.4, 10)
        self.assertEqual((session.n_before, round(session.last_think, 9)), (2, 0.3))
        result = Replay(session, Placed(order, [SIZE] * 10, 50), RATE).run()
        stream_from = START_TRIPS * LATENCY_S + 8 * 500 * MAP_SHARE / RATE
        mounted = stream_from + SIZE / RATE + MOUNT_S
        wait = LOOK_S + LATENCY_S + SIZE / RATE + LATE_S + DELIVER_S
        self.assertAlmostEqual(result.start_s, mounted + wait, places=2)
        self.assertAlmostEqual(result.ideal_s, 2 * SIZE / 50 / RATE + 2 * LATENCY_S)
        self.assertFalse([each for each in result.waits if each.seconds < LEAST_WAIT_S])
        self.assertEqual(result.n_requests, 1)

    def test_the_order_of_today(self):
        folder = Path(self.id())
        entries = [0, 1, 2, 3, 4, 5]
        with unittest.mock.patch("orders.read_items", return_value=[(5, 0), (2, 1), (5, 2), (9, 3)]):
            order = today(entries, 1, folder)
        # The front, what is named, the gaps between these.
        self.assertEqual(list(order), [0, 3, 2, 4, 5, 1])


if __name__ == "__main__":
    unittest.main()
