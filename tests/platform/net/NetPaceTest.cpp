#include "ZqNetPace.h"

#include <gtest/gtest.h>

namespace {

constexpr int64 MS = 1'000'000, PIECE = 16 << 10;
constexpr double RATE = 2'500'000, TRIP_S = 0.02;

/// Takes `n` bytes of a range in pieces, as fast as the link brings them.
void arrive(ZqNetPace* pace, ZqNetPace::Span* span, int64* nowNs, int64 n) {
    for (; n > 0; n -= PIECE) {
        *nowNs += static_cast<int64>(PIECE / RATE * 1e9);
        pace->measureRange(span, *nowNs, PIECE);
    }
}

} // namespace

TEST(NetPace, WhatWaitedInBuffersDuringAHoldIsNoFasterLink) {
    ZqNetPace pace;
    int64 nowNs = 1'000'000 * MS;
    pace.noteRoundTrip(static_cast<int64>(TRIP_S * 1e6), nowNs);
    ZqNetPace::Span first;
    arrive(&pace, &first, &nowNs, 1 << 20);
    EXPECT_NEAR(pace.getTripBytes(), RATE * TRIP_S, RATE * TRIP_S / 10);
    for (int i = 0; i < 20; ++i) {
        // A request that is held goes on at once with all that the buffer has.
        ZqNetPace::Span held{0, 0, true};
        for (double buffered = 2 * pace.getTripBytes(); buffered > 0; buffered -= PIECE)
            pace.measureRange(&held, nowNs += MS / 10, PIECE);
        arrive(&pace, &held, &nowNs, 200 << 10);
        ASSERT_LT(pace.getTripBytes(), RATE * TRIP_S * 1.2) << i;
    }
}

TEST(NetPace, ASlowStreamHasTheRateThatItHas) {
    struct Case {
        double rate;     ///< bytes a second
        int64 piece;     ///< bytes that come together
        int64 silenceMs; ///< after most of a request
    };
    for (const Case& c : {Case{37'500, 1448, 0}, Case{37'500, 16 << 10, 0}, Case{62'500, 1448, 0},
                          Case{125'000, 4096, 0}, Case{2'500'000, 16 << 10, 0}, Case{37'500, 1448, 20'000}}) {
        SCOPED_TRACE(c.rate);
        SCOPED_TRACE(c.piece);
        ZqNetPace pace;
        int64 nowNs = 1'000'000 * MS;
        const auto arriveBy = [&](ZqNetPace::Span* span, int n) {
            for (int i = 0; i < n; ++i) {
                nowNs += static_cast<int64>(static_cast<double>(c.piece) / c.rate * 1e9);
                pace.measure(span, nowNs, c.piece);
            }
        };
        for (int request = 0; request < 3; ++request) {
            ZqNetPace::Span span;
            arriveBy(&span, 200);
            nowNs += c.silenceMs * MS;
            arriveBy(&span, 5);
            EXPECT_NEAR(pace.getRate(), c.rate, c.rate / 100) << "request " << request;
        }
    }
}
