#include "ZqShownEta.h"
#include "ZqStartEta.h"
#include "ZqStartForecast.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64 MB = 1'000'000;

/// An application that needs 1 MB in each second of play, of 100 MB.
ZqAppParams steadyApp() {
    ZqAppParams app;
    app.sizeZqf = 100 * MB;
    app.sizeMnt = MB;
    for (uint64 second = 0; second <= 99; ++second)
        app.loadprofile << ZqLoadProfilePoint{second, (second + 1) * MB};
    return app;
}

} // namespace

TEST(StartEta, IsWhatASimulatedDownloadTakes) {
    struct Case {
        const char* name;
        double rate;  ///< of the link, bytes a second
        double ratio; ///< bytes of the wire for each of the image, in its first tenth
        double later; ///< and elsewhere
        double asked; ///< seconds after the begin, before the first speed
    };
    for (const Case& c : {Case{"slow", 0.6e6, 1, 0.5, 0}, Case{"slower", 0.45e6, 0.9, 0.45, 0},
                          Case{"slowest", 0.1e6, 1, 0.5, 0}, Case{"faster than play", 2e6, 1, 0.5, 0},
                          Case{"packs well at first", 0.6e6, 0.03, 1, 0.7}}) {
        SCOPED_TRACE(c.name);
        const ZqAppParams app = steadyApp();
        const auto wireTo = [&](uint64 to) {
            const uint64 first = std::min(to, 10 * MB);
            return static_cast<uint64>(c.ratio * static_cast<double>(first) +
                                       c.later * static_cast<double>(to - first));
        };
        const auto wireSize = [&](uint64 from, uint64 to) { return wireTo(to) - wireTo(from); };
        const auto sizeAfter = [&](double seconds, uint64 from) {
            while (from < app.sizeZqf && static_cast<double>(wireTo(from)) < c.rate * seconds)
                from += 10'000;
            return from;
        };
        const uint64 nAsked = sizeAfter(c.asked, 0);
        const ZqStartEta eta{nAsked, c.rate, 0, 0, c.asked, nAsked, 0, false, wireSize};
        // The rule that the start goes by, each second, with the mean of the last ten.
        std::vector<uint64> there = {0};
        double seconds = 0;
        for (uint64 size = 0; seconds == 0; there.push_back(size)) {
            size = sizeAfter(static_cast<double>(there.size()), size);
            const size_t n = std::min<size_t>(there.size(), 10);
            const double mean =
                static_cast<double>(size - there[there.size() - n]) / static_cast<double>(n) * 8e-6;
            if (size >= ZqStartForecast::findInit(app, mean)) seconds = static_cast<double>(there.size());
        }
        const auto start = eta.find(app);
        ASSERT_TRUE(start);
        EXPECT_NEAR(c.asked + start->seconds, seconds, std::max(1.0, seconds * 0.1));
        const auto size = static_cast<double>(there.back());
        EXPECT_NEAR(start->size, size, std::max(size * 0.1, c.rate)) << "within a second";
    }
    EXPECT_FALSE(ZqStartEta().find(steadyApp())) << "without a rate";
    ZqStartEta atOnce{0, 0.5e6, 0, 0, 0, 0, 0, true, [](uint64 from, uint64 to) { return to - from; }};
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 3) << "with the mount";
    atOnce.nMap = 500'000;
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 4) << "and with the map";
    atOnce.nThere = MB;
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 3) << "beside which the image goes on";
    atOnce.nMap = 20 * MB;
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 81) << "however little the drive needs";
    atOnce.nThere = 90 * MB;
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 61) << "until it is complete";
    atOnce.isAtOnce = false;
    atOnce.nThere = 0;
    atOnce.rate = 2e6;
    EXPECT_NEAR(atOnce.find(steadyApp()).value().seconds, 20, 0.1) << "the start waits for the map alone";
    atOnce.nMap = 500'000;
    atOnce.rate = 0.5e6;
    atOnce.nThere = 100 * MB;
    EXPECT_EQ(atOnce.find(steadyApp()).value().seconds, 1);
    ZqAppParams written = steadyApp();
    written.mountMode = ZqDriveKinds::ReadWrite;
    atOnce.nThere = 90 * MB;
    EXPECT_EQ(atOnce.find(written).value().seconds, 21) << "all of the image";
    const ZqStartForecast forecast(written, 4, 90 * MB);
    EXPECT_EQ(forecast.untilSafe, 20);
    EXPECT_EQ(forecast.untilMount, 20);
    EXPECT_EQ(forecast.nInit, 100 * MB);
    EXPECT_TRUE(forecast.waits.empty());
}

TEST(StartForecast, WhatTheProfileTellsOfIsEnoughWithoutAServer) {
    ZqAppParams app = steadyApp();
    app.loadprofile.removeLast();
    EXPECT_EQ(ZqStartForecast::findAll(app), 99 * MB) << "the image has 100 MB";
    app.minPreload = 100;
    EXPECT_EQ(ZqStartForecast::findAll(app), 100 * MB);
    app.minPreload = 0;
    app.minBandwidth = 1;
    EXPECT_EQ(ZqStartForecast::findAll(app), 100 * MB) << "without a server there is no speed";
    app.minBandwidth = 0;
    app.loadprofile.removeAll();
    EXPECT_EQ(ZqStartForecast::findAll(app), 100 * MB) << "without a profile nobody knows";
}

TEST(ShownEta, RisesOnlyWithTheLink) {
    ZqShownEta shown;
    double left = 10e6; // bytes
    const auto work = [&](double rate) { return std::optional<double>(left / rate); };
    EXPECT_FALSE(shown.look(0, 1e6, work)) << "not known well yet";
    EXPECT_FALSE(shown.look(0.3, 1e6, work));
    EXPECT_NEAR(shown.look(0.5, 1e6, work).value_or(-1), 10, 0.01);
    // More work, or a link that is a little slower, doesn't make it longer.
    left = 12e6;
    EXPECT_NEAR(shown.look(1.5, 0.95e6, work).value_or(-1), 9, 0.01);
    left = 5e6;
    EXPECT_NEAR(shown.look(2.5, 1e6, work).value_or(-1), 5, 0.2) << "less of it makes it shorter";
    left = 10e6;
    for (double now = 3; now < 15; now += 0.1, left -= 0.05e6)
        shown.look(now, 0.5e6, work);
    EXPECT_NEAR(shown.look(15, 0.5e6, work).value_or(-1), left / 0.5e6, 1.5)
        << "the link has half of its rate";
    shown.forget();
    EXPECT_FALSE(shown.look(12.1, 1e6, work));
}
