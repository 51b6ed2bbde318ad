#include "NetLab.h"
#include "RemoteImageReading.h"
#include "ZqStretchClaims.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

// No request begins here: the claims are the same.
class StretchClaims : public testing::Test {
protected:
    using Fetch = ZqStretchClaims::Fetch;
    /// A request for a stretch that somebody waits for, with `n` more.
    Fetch fetchOf(uint64 idx, int n = 0) {
        Fetch fetch = Fetch::create(&claims, &forms, idx, true);
        for (; n > 0; --n)
            EXPECT_GT(fetch->claimNext(), 0U);
        if (fetch->hasClaims()) fetch->request->extend(fetch->getEnd());
        return fetch;
    }
    static bool never() { return true; }

    ZqImageForms forms{SxPtr<ZqNetLink>::create(quickSettings()), "http://host/", 30 * STRETCH, {}, {}, {}};
    ZqStretchClaims claims;
};

} // namespace

TEST_F(StretchClaims, oneHasAStretchAtATime) {
    Fetch fetch = fetchOf(4, 2);
    EXPECT_TRUE(claims.find(5) && claims.find(6) && !claims.find(4) && !claims.find(7));
    EXPECT_TRUE(!claims.beginDemand(6) && claims.beginDemand(7) && claims.beginDemand(7));
    EXPECT_EQ(fetch->claimNext(), 0U) << "somebody fetches it";
    claims.endDemand(7);
    EXPECT_EQ(fetch->claimNext(), 0U) << "and somebody else does";
    claims.endDemand(7);
    ZqStretchClaims::Group group{{8, fetchOf(8)}};
    claims.announce(&group);
    EXPECT_EQ(fetch->claimNext(), 3U);
    EXPECT_EQ(fetch->claimNext(), 0U) << "it is announced";
    fetch->unclaim();
    EXPECT_TRUE(claims.beginDemand(7));
    fetch->release();
    EXPECT_TRUE(!claims.find(5) && claims.find(6));
    fetch = nullptr;
    EXPECT_FALSE(claims.find(6));
}

TEST_F(StretchClaims, whoNeedsAStretchTakesItsRequestFromTheLoaders) {
    claims.pass(fetchOf(3));
    EXPECT_FALSE(claims.takePassed(never, 4)) << "nothing of it is left";
    claims.pass(fetchOf(4, 2));
    claims.pass(fetchOf(10, 2));
    EXPECT_FALSE(claims.takePassed(20)) << "nobody has it";
    const Fetch fetch = claims.takePassed(12);
    ASSERT_TRUE(fetch && fetch->brings(11));
    EXPECT_FALSE(claims.takePassed(12)) << "it is taken";
    EXPECT_TRUE(claims.takePassed(never, 4)->brings(5));
    EXPECT_FALSE(claims.takePassed(never, 4));
}

TEST_F(StretchClaims, likelyOnesComeLastAndFewAtATime) {
    const auto likelyOf = [&](uint64 idx) {
        Fetch fetch = Fetch::create(&claims, &forms, idx, false);
        EXPECT_GT(fetch->claimNext(), 0U);
        return fetch;
    };
    claims.passLikely({likelyOf(3), likelyOf(5)});
    claims.passLikely({likelyOf(7), likelyOf(9)});
    claims.pass(fetchOf(20, 1));
    EXPECT_TRUE(claims.takePassed(never, 1)->brings(21));
    claims.beginWait();
    EXPECT_FALSE(claims.takePassed(never, 1)) << "somebody waits";
    claims.endWait();
    EXPECT_TRUE(claims.beginDemand(15));
    EXPECT_FALSE(claims.takePassed(never, 1));
    claims.endDemand(15);
    const Fetch first = claims.takePassed(never, 1);
    ASSERT_TRUE(first->brings(7)) << "the latest come first";
    EXPECT_FALSE(claims.takePassed(never, 1));
    const Fetch second = claims.takePassed(never, 2);
    ASSERT_TRUE(second->brings(9));
    EXPECT_TRUE(claims.takePassed(5)->brings(5)) << "who needs one takes it";
    EXPECT_FALSE(claims.takePassed(never, 2));
    claims.noteEnd(first);
    EXPECT_TRUE(claims.takePassed(never, 2)->brings(3));
}

TEST_F(StretchClaims, anAnnouncementTakesThePlaceOfTheOneBefore) {
    ZqStretchClaims::Group first{{4, fetchOf(4, 2)}, {10, fetchOf(10, 2)}, {20, fetchOf(20)}}, unwanted;
    const Fetch kept = first[20];
    claims.announce(&first);
    ZqStretchClaims::Group second{{6, nullptr}, {20, nullptr}, {25, nullptr}};
    EXPECT_THAT(claims.regroup(&second, &unwanted), ElementsAre(25));
    EXPECT_TRUE(second[20] == kept && !second[6]);
    EXPECT_EQ(unwanted.count(10), 1U);
    claims.announce(&second);
    EXPECT_TRUE(claims.takeAnnounced(20) == kept && !claims.takeAnnounced(20) && !claims.takeAnnounced(10));
    // Stretch 6 comes with 4, which is left to a loader as well.
    EXPECT_TRUE(claims.find(4) && claims.takePassed(never, 4)->brings(4));
    EXPECT_TRUE(claims.find(11));
    unwanted.clear();
    EXPECT_FALSE(claims.find(11));
}
