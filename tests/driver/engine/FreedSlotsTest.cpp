#include "FreedSlots.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(FreedSlots, AreReusedOnceDurableAndLeftByTheirWriters) {
    FreedSlots freed;
    const uint64 early = freed.enterWriter();
    freed.add({{{5}, 1}, {{6}, 2}});
    EXPECT_THAT(freed.takeReusable(), IsEmpty()) << "their records may be lost";
    freed.setDurable(1);
    EXPECT_THAT(freed.takeReusable(), IsEmpty()) << "the writer may have seen the slot in use";
    const uint64 late = freed.enterWriter();
    freed.leaveWriter(early);
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{5})) << "who came later can't have seen it";
    freed.setDurable(2);
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{6}));
    freed.add({{{7}, 3}});
    freed.setDurable(3);
    EXPECT_THAT(freed.takeReusable(), IsEmpty());
    freed.leaveWriter(late);
    EXPECT_THAT(freed.takeReusable(), ElementsAre(SlotIdx{7}));
}
