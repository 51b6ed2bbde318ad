#include "FreedSlots.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(FreedSlots, AreReusedOnceDurableAndLeftByTheirWriters) {
    FreedSlots freed;
    auto early = std::make_unique<FreedSlots::Writer>(&freed);
    freed.add({{{5}, 1}, {{6}, 2}});
    EXPECT_THAT(freed.takeReusable(), IsEmpty()) << "their records may be lost";
    freed.setDurable(1);
    EXPECT_THAT(freed.takeReusable(), IsEmpty()) << "the writer may have seen the slot in use";
    auto late = std::make_unique<FreedSlots::Writer>(&freed);
    early.reset();
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{5})) << "who came later can't have seen it";
    freed.setDurable(2);
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{6}));
    freed.add({{{7}, 3}});
    freed.setDurable(3);
    EXPECT_THAT(freed.takeReusable(), IsEmpty());
    late.reset();
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{7}));
}
