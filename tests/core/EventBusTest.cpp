#include "SxEventBus.h"
#include "SxException.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

constexpr uint32 TEST_EVENT = sxEventId("EVENT_BUS_TEST");

void publish(const SxString& first, const SxString& second, const SxString& location = "here:1:test") {
    SxEventBus::pub<TEST_EVENT, SxString, SxString>(first, second, location, "EVENT_BUS_TEST");
}

/// Number of lines of the bus's list that end so.
int64 nUnheard(const SxString& end) {
    int64 n = 0;
    for (const SxString& line : SxEventBus::getGlobalObj().getUnheard())
        n += line.endsWith(end);
    return n;
}

} // namespace

TEST(EventBus, UnheardEventStandsOnceInTheList) {
    const SxString location = SxEventBus::location("C:\\build\\src/base/ZqFWriter", 123, "main");
    for (int i = 0; i < 2; ++i) {
        SxEventBus::pub<SX_APP_ERROR, SxString, SxString>("/image", "failure", location, "APP_ERROR");
    }
    EXPECT_EQ(nUnheard("0x857971ab | APP_ERROR@src/base/ZqFWriter:123:main"), 1);
}

TEST(EventBus, EachListenerGetsAnEventOfItsOwn) {
    SxEventBus& bus = SxEventBus::getGlobalObj();
    SxEventListener a;
    SxEvent fromA, fromB;
    {
        SxEventListener b;
        bus.subscribe(TEST_EVENT, &a);
        bus.subscribe(TEST_EVENT, &a);
        bus.subscribe(TEST_EVENT, &b);
        publish("/pfad/ä", "", "heard:1:test");
        ASSERT_TRUE(a.tryPop(&fromA) && b.tryPop(&fromB));
    }
    EXPECT_FALSE(a.tryPop(&fromA)) << "subscribed twice, heard twice";
    EXPECT_NE(&fromA.getData(), &fromB.getData());
    const SxEventData& data = fromB.getData();
    EXPECT_EQ(data.getId(), TEST_EVENT);
    ASSERT_EQ(data.getNArgs(), 2);
    EXPECT_EQ(data.getText(0), "/pfad/ä");
    EXPECT_EQ(data.getText(1), "");
    EXPECT_THROW(data.getText(2), SxException);

    publish("the other listener", "is gone", "heard:1:test");
    EXPECT_EQ(a.getWaitSize(), 1);
    EXPECT_EQ(nUnheard("@heard:1:test"), 0);
    bus.unsubscribe(TEST_EVENT, &a);
    publish("no", "listener", "gone:1:test");
    EXPECT_EQ(a.getWaitSize(), 1);
    EXPECT_EQ(nUnheard("@gone:1:test"), 1);
}

TEST(EventBus, ListenersComeAndGoWhileThreadsPublish) {
    constexpr int N_EVENTS = 2000;
    SxEventListener steady;
    SxEventBus::getGlobalObj().subscribe(TEST_EVENT, &steady);
    const auto publishAll = [] {
        for (int i = 0; i < N_EVENTS; ++i)
            publish(SxString(i), "x");
    };
    std::thread first(publishAll), second(publishAll);
    for (int i = 0; i < 200; ++i) {
        SxEventListener brief;
        SxEventBus::getGlobalObj().subscribe(TEST_EVENT, &brief);
        SxEvent event;
        brief.tryPop(&event);
    }
    first.join();
    second.join();
    int64 nPopped = 0;
    for (SxEvent event; steady.tryPop(&event);)
        ++nPopped;
    EXPECT_EQ(nPopped, 2 * N_EVENTS);
}
