#include "FaultOs.h"
#include "TempDir.h"
#include "ZqDiskReserve.h"

#include <gmock/gmock.h>

TEST(DiskReserveTest, LeavesATenthAndOneGibibyteAtMost) {
    constexpr uint64 GIB = uint64{1} << 30;
    const TempDir dir;
    FaultOs os(dir.path());
    struct Case {
        uint64 free, held, reserve;
    };
    for (const Case& c : {Case{1000, 0, 100}, Case{500, 500, 100}, Case{0, 1000, 100}, Case{9, 0, 0},
                          Case{10 * GIB - 10, 0, GIB - 1}, Case{20 * GIB, 0, GIB}, Case{0, 20 * GIB, GIB}}) {
        SCOPED_TRACE(testing::Message() << c.free << " " << c.held);
        os.setFreeSpaceAnswer(static_cast<int64>(c.free));
        // The folder may be one that is still to be made.
        const ZqDiskReserve reserve(SxString(dir.path("new/image")), c.held);
        EXPECT_EQ(reserve.getSize(), c.reserve);
        const uint64 room = c.free > c.reserve ? c.free - c.reserve : 0;
        EXPECT_EQ(reserve.getRoom(), room);
        EXPECT_EQ(reserve.getMissing(room), 0u);
        EXPECT_EQ(reserve.getMissing(room + 7), 7u);
        // What others write or free meanwhile counts, and doesn't change what is left.
        os.setFreeSpaceAnswer(static_cast<int64>(c.reserve + 5));
        EXPECT_EQ(reserve.getRoom(), 5u);
    }
    EXPECT_EQ(ZqDiskReserve().getMissing(~uint64{0}), 0u);
}
