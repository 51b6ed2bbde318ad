#include "SxDbgMsg.h"
#include "SxEventBus.h"
#include "SxException.h"
#include "SxTime.h"
#include "SxTimer.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

constexpr uint32 TEST_EVENT = sxEventId("EVENT_TIMER_TEST");

void publish(const SxString& first, const SxString& second, const SxString& location = "here:1:test") {
    SxEventBus::pub<TEST_EVENT, SxString, SxString>(first, second, location, "EVENT_TIMER_TEST");
}

/// Lines of the bus's list that name `location`.
std::vector<std::string> unheardAt(const SxString& location) {
    std::vector<std::string> lines;
    for (const SxString& line : SxEventBus::getGlobalObj().getUnheard()) {
        if (line.endsWith(location)) lines.push_back(line.str());
    }
    return lines;
}

} // namespace

TEST(EventBus, UnheardEventStandsOnceInTheList) {
    const SxString location = SxEventBus::location("C:\\build\\src/base/ZqFWriter", 123, "main");
    EXPECT_STREQ(location.ascii(), "src/base/ZqFWriter:123:main");
    EXPECT_STREQ(SxEventBus::location("src/base/ZqX", 7, "f").ascii(), "src/base/ZqX:7:f");
    for (int i = 0; i < 2; ++i) {
        SxEventBus::pub<SX_APP_ERROR, SxString, SxString>("/image", "failure", location, "APP_ERROR");
    }
    EXPECT_EQ(unheardAt(location),
              std::vector<std::string>{"0x857971ab | APP_ERROR@src/base/ZqFWriter:123:main"});
}

TEST(EventBus, EachListenerGetsAnEventOfItsOwn) {
    SxEventListener a;
    SxEventListener other;
    SxEventBus& bus = SxEventBus::getGlobalObj();
    {
        SxEventListener b;
        bus.subscribe(TEST_EVENT, &a);
        bus.subscribe(TEST_EVENT, &a);
        bus.subscribe(TEST_EVENT, &b);
        bus.subscribe(TEST_EVENT + 1, &other);
        publish("/pfad/ä", "", "heard:1:test");
        EXPECT_EQ(other.getWaitSize(), 0);
        EXPECT_EQ(a.getWaitSize(TEST_EVENT), 1);

        SxEvent fromA, fromB;
        ASSERT_TRUE(a.tryPop(&fromA));
        ASSERT_TRUE(b.tryPop(&fromB));
        EXPECT_NE(&fromA.getData(), &fromB.getData());
        for (const SxEvent* event : {&fromA, &fromB}) {
            const SxEventData& data = event->getData();
            EXPECT_EQ(data.getId(), TEST_EVENT);
            ASSERT_EQ(data.getNArgs(), 2);
            EXPECT_EQ(data.getType(1), 2);
            EXPECT_STREQ(data.getText(0).ascii(), "/pfad/ä");
            EXPECT_TRUE(data.getText(1).isEmpty());
            EXPECT_EQ(data.getBuffer().getSize(), 8 + 1 + 1);
            EXPECT_THROW(data.getText(2), SxException);
        }
        EXPECT_FALSE(a.tryPop(&fromA));
        EXPECT_EQ(a.getWaitSize(TEST_EVENT), 0);
    }
    // A destroyed listener is off the bus; an unsubscribed one leaves the event unheard.
    publish("still", "heard", "heard:1:test");
    EXPECT_EQ(a.getWaitSize(), 1);
    EXPECT_TRUE(unheardAt("heard:1:test").empty());
    bus.unsubscribe(TEST_EVENT, &a);
    publish("no", "listener", "gone:1:test");
    EXPECT_EQ(a.getWaitSize(), 1);
    EXPECT_EQ(unheardAt("gone:1:test").size(), 1U);
}

TEST(EventBus, ListenersComeAndGoWhileThreadsPublish) {
    constexpr int N_EVENTS = 2000;
    SxEventListener steady;
    SxEventBus::getGlobalObj().subscribe(TEST_EVENT, &steady);
    std::vector<std::thread> threads;
    threads.reserve(2);
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < N_EVENTS; ++i)
                publish(SxString(i), "x");
        });
    }
    for (int i = 0; i < 200; ++i) {
        SxEventListener brief;
        SxEventBus::getGlobalObj().subscribe(TEST_EVENT, &brief);
        SxEvent event;
        brief.tryPop(&event);
    }
    for (std::thread& thread : threads)
        thread.join();
    int64 nPopped = 0;
    for (SxEvent event; steady.tryPop(&event);)
        ++nPopped;
    EXPECT_EQ(nPopped, 2 * N_EVENTS);
    EXPECT_EQ(steady.getWaitSize(), 0);
}

TEST(Timer, OnlyTheOutermostScopeMeasures) {
    VirtualClock clock;
    SxTimer& timer = SxTimer::getGlobalTimer();
    constexpr int ID = 60;
    {
        SxTakeTime outer(ID);
        SxTime::sleep(1);
        {
            SxTakeTime inner(ID);
            SxTime::sleep(2);
        }
        EXPECT_FALSE(timer.isIdle(ID));
        EXPECT_DOUBLE_EQ(timer.getElapsed(ID), 3.0);
        SxTime::sleep(4);
    }
    EXPECT_TRUE(timer.isIdle(ID));
    SxTime::sleep(8);
    EXPECT_DOUBLE_EQ(timer.getElapsed(ID), 7.0);
    { SxTakeTime again(ID); }
    EXPECT_EQ(timer.getNStarts(ID), 2);
    EXPECT_THROW(timer.start(-1), SxException);
}

namespace {
enum class Early { A, B };
enum class Late { A, B, C };
enum class Huge { Last = 100 };
} // namespace

TEST(Timer, EnumerationsGetIdsThatDontOverlap) {
    SxTimer& timer = SxTimer::getGlobalTimer();
    const SxTimerNames<Early> early{"early a", "early b"};
    const SxTimerNames<Late> late{"late a", "late b", "late c"};
    const int first = SxTimer::getTimerId(Early::A);
    EXPECT_EQ(SxTimer::getTimerId(Late::A), first + 2);
    EXPECT_STREQ(timer.getName(SxTimer::getTimerId(Early::B)).ascii(), "early b");
    EXPECT_STREQ(timer.getName(SxTimer::getTimerId(Late::C)).ascii(), "late c");

    // To the larger of id + 1 and twice the size, with the old timers as they were.
    ASSERT_EQ(timer.getNTimers(), 64);
    SxTimer::regTimer(Huge::Last, "huge");
    EXPECT_EQ(SxTimer::getTimerId(Huge::Last), first + 105);
    EXPECT_EQ(timer.getNTimers(), 128);
    EXPECT_STREQ(timer.getName(first).ascii(), "early a");
    { SxTakeTime t(Huge::Last); }
    EXPECT_EQ(timer.getNStarts(first + 105), 1);
}

TEST(DebugMessage, ProducerIsNotRun) {
    bool ran = false;
    sxDbgMsg("file", 1, "function", [&ran] {
        ran = true;
        return SxString("text");
    });
    EXPECT_FALSE(ran);
}
