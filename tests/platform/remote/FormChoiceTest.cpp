#include "NetLab.h"
#include "RemoteImageReading.h"
#include "ZqFormChoice.h"

#include <gtest/gtest.h>

namespace {

using Packed = ZqFormChoice::Packed;
using Table = ZqFormChoice::Table;

class FormChoice : public testing::Test {
protected:
    static Table tableOf(const std::string& zqf, bool hasChecksums = true) {
        const std::string packed = PackedImage(zqf, hasChecksums).bytes();
        return Table::create(packed.data(), packed.size(), packed.size(), zqf.size());
    }
    static SxException because(const char* tag) { return SxException(tag, SxString(tag), "", 0); }

    TestRandom random;
    const std::string zqf = random.bytes(3 * STRETCH);
    int nOthers = 0;
    ZqFormChoice choice{SxPtr<ZqNetLink>::create(quickSettings()), "http://host/img.zqf.zst",
                        [this] { ++nOthers; }};
};

} // namespace

TEST_F(FormChoice, aTableGivesWayOnlyToOneThatSaysMore) {
    const Table bare = tableOf(zqf, false), first = tableOf(zqf), anew = tableOf(zqf),
                other = tableOf(random.bytes(zqf.size()));
    const struct {
        const char* name;
        Table table;
        bool isStated, isTaken, isOther;
    } steps[] = {
        {"the first", bare, false, true, false},   {"one with checksums", first, false, true, true},
        {"packed anew", anew, false, true, false}, {"of something else", other, false, false, false},
        {"that says so", other, true, true, true}, {"but no second time", first, true, false, false}};
    Table known;
    for (const auto& [name, table, isStated, isTaken, isOther] : steps) {
        SCOPED_TRACE(name);
        nOthers = 0;
        EXPECT_EQ(choice.take(table, isStated), isTaken);
        if (isTaken) known = table;
        EXPECT_EQ(choice.getTable(), known);
        EXPECT_EQ(nOthers, isOther);
    }
    choice.refuse();
    EXPECT_FALSE(choice.getTable());
    EXPECT_EQ(choice.getKnownTable(), known) << "its checksums hold as well";
}

TEST_F(FormChoice, formsTakeTurnsWhereNeitherComes) {
    const struct {
        const char *left, *plain;
        bool plainCame, isBack;
        const char* why;
    } cases[] = {{ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN, false, true, ZqNetLink::BROKEN},
                 {ZqNetLink::BROKEN, ZqNetLink::NOT_FOUND, false, true, ZqNetLink::BROKEN},
                 {ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN, true, false, ZqNetLink::BROKEN},
                 {ZqNetLink::WRONG, ZqNetLink::BROKEN, false, false, ZqNetLink::BROKEN},
                 {ZqNetLink::UNREACHABLE, ZqNetLink::WRONG, false, false, ZqNetLink::WRONG}};
    for (const auto& [left, plain, plainCame, isBack, expected] : cases) {
        SCOPED_TRACE(std::string(left) + ", " + plain);
        choice.take(tableOf(zqf), false);
        EXPECT_TRUE(choice.leaveFor(because(left)));
        EXPECT_EQ(choice.getState(), Packed::Aside);
        if (plainCame) choice.notePlainCame();
        SxException why = because(plain);
        EXPECT_EQ(choice.returnToPacked(&why), isBack);
        EXPECT_EQ(choice.getState(), isBack ? Packed::Offered : Packed::Aside);
        EXPECT_TRUE(why.hasTag(expected));
    }
    EXPECT_FALSE(choice.leaveFor(because(SxException::STOPPED)));
}

TEST_F(FormChoice, nobodyWaitsForATableThatIsPutOff) {
    EXPECT_TRUE(choice.begin());
    EXPECT_FALSE(choice.begin());
    EXPECT_TRUE(choice.mayCheck());
    EXPECT_TRUE(choice.awaitPacked(true, nullptr)) << "the first frame needs no table";
    choice.noteWaits(because(ZqNetLink::BROKEN));
    EXPECT_FALSE(choice.awaitTable(nullptr) || choice.awaitSoon(nullptr) || choice.mayCheck());
    EXPECT_FALSE(choice.awaitPacked(false, nullptr));
    SxException why;
    EXPECT_TRUE(choice.isDelayed(&why) && why.hasTag(ZqNetLink::BROKEN));
    EXPECT_TRUE(choice.noteAbsent(because(ZqNetLink::NOT_FOUND)));
    EXPECT_FALSE(choice.isDelayed(&why) || choice.awaitPacked(true, nullptr));
    choice.forgetAbsence();
    EXPECT_TRUE(choice.mayCheck() && choice.awaitWanted(60'000, [] { return false; })) << "asked for again";
    EXPECT_FALSE(choice.noteAbsent(because(ZqNetLink::REFUSED))) << "that may pass";
    EXPECT_EQ(choice.getState(), Packed::Aside);
}
