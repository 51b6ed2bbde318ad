#include "BaseTest.h"
#include "Builders.h"
#include "SxXxh64.h"
#include "ZqOrderHints.h"

namespace {

constexpr const char* MAP = "0123456789abcdef0123456789abcdef";
constexpr uint64 N = 1000; ///< stretches

ZqOrderHints someHints() {
    ZqOrderHints hints(MAP);
    hints.groups = {{2, 10, {7, 3}, {{1, 60}, {2, 10}}}, {10, 12, {}, {}}, {500, 1000, {999}, {{0, 100}}}};
    return hints;
}

std::string number(uint64 value, size_t size = 4) {
    return {reinterpret_cast<const char*>(&value), size};
}

std::string sealed(const std::string& bytes) {
    return bytes + number(SxXxh64::of(bytes.data(), static_cast<int64>(bytes.size())), 8);
}

/// A file of one group, by hand.
std::string fileOf(const std::string& group, uint64 nGroups = 1) {
    return sealed("ZHINTS01" + std::string(MAP) + number(204'800) + number(nGroups) + group);
}

} // namespace

TEST(OrderHints, TheFileHasTheFormatOfItsPage) {
    const TempDir dir;
    someHints().write(dir.path());
    std::string expected = "ZHINTS01" + std::string(MAP);
    for (const uint64 value : {204'800U, 3U,  2U, 10U, 2U,   2U,    7U, 3U, 1U,   60U, 2U,  10U,
                               10U,      12U, 0U, 0U,  500U, 1000U, 1U, 1U, 999U, 0U,  100U})
        expected += number(value);
    EXPECT_EQ(dir.read("img.hints"), sealed(expected));
    const auto hints = ZqOrderHints::read(dir.path(), MAP, N);
    ASSERT_TRUE(hints);
    EXPECT_EQ(hints->groups, someHints().groups);
    EXPECT_EQ(hints->countHot(), 3U);
    const std::pair<uint64, int64> places[] = {{0, -1},  {1, -1},   {2, 0},   {9, 0},   {10, 1},
                                               {12, -1}, {499, -1}, {500, 2}, {999, 2}, {1000, -1}};
    for (const auto& [stretchIdx, place] : places) {
        const ZqOrderHints::Group* group = hints->find(stretchIdx);
        EXPECT_EQ(group ? group - hints->groups.data() : -1, place) << stretchIdx;
    }
}

TEST(OrderHints, WhatIsDamagedHostileOrOfAnotherMapIsNamedAndPassedOver) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "isn't a file of hints"},
        {std::string(60, 'x'), "isn't a file of hints"},
        {std::string(2'000'001, 'x'), "too large"},
        {fileOf(number(2) + number(9) + number(0) + number(0)).replace(50, 1, "x"), "checksum is wrong"},
        {fileOf(""), "cut short"},
        {fileOf("", 0xFFFFFFFF), "cut short"},
        {fileOf(number(2) + number(9) + number(0xFFFFFFFF) + number(0)), "cut short"},
        {fileOf(number(2) + number(9) + number(0) + number(0x20000000)), "cut short"},
        {fileOf(number(2) + number(9) + number(0) + number(0) + "x"), "Bytes follow"},
        {fileOf(number(9) + number(9) + number(0) + number(0)), "group 0 has no stretches"},
        {fileOf(number(9) + number(1001) + number(0) + number(0)), "group 0 lies beyond the image's end"},
        {fileOf(number(2) + number(9) + number(1) + number(0) + number(9)), "a hot stretch that isn't in it"},
        {fileOf(number(2) + number(9) + number(2) + number(0) + number(4) + number(4)), "a stretch twice"},
        {fileOf(number(2) + number(9) + number(0) + number(1) + number(1) + number(50)),
         "a successor that can't be"},
        {fileOf(number(2) + number(9) + number(0) + number(1) + number(0) + number(0)),
         "a successor that can't be"},
        {fileOf(number(2) + number(9) + number(0) + number(1) + number(0) + number(257)),
         "a successor that can't be"},
        {fileOf(number(2) + number(9) + number(0) + number(4) + std::string(32, '\1')),
         "too many successors"},
        {sealed("ZHINTS01" + std::string(MAP) + number(4096) + number(0)), "another size"},
        {sealed("ZHINTS01" + std::string(32, 'f') + number(204'800) + number(0)), "of another map"},
    };
    for (const auto& [bytes, fault] : cases) {
        const TempDir dir;
        const std::string file = dir.write("img.hints", bytes);
        EXPECT_THAT(failureOf([&] { ZqOrderHints::readFile(file, MAP, N); }),
                    AllOf(HasSubstr("Cannot use the hints '" + file + "'"), HasSubstr(fault)));
        EXPECT_FALSE(ZqOrderHints::read(dir.path(), MAP, N)) << fault;
    }
    // One that overlaps, and each cut.
    const TempDir dir;
    ZqOrderHints hints = someHints();
    hints.write(dir.path());
    const std::string whole = dir.read("img.hints");
    for (size_t n = 0; n < whole.size(); ++n) {
        dir.write("img.hints", n % 2 == 0 || n < 8 ? whole.substr(0, n) : sealed(whole.substr(0, n - 8)));
        EXPECT_FALSE(ZqOrderHints::read(dir.path(), MAP, N)) << n;
    }
    hints.groups[1].first = 9;
    EXPECT_THAT(failureOf([&] { hints.write(dir.path()); }),
                AllOf(HasSubstr("Cannot write the hints"), HasSubstr("group 1 overlaps the one before")));
    EXPECT_THAT(failureOf([&] { ZqOrderHints("").write(dir.path()); }), HasSubstr("no digest"));
}

TEST(OrderHints, TheLeastHotAreLeftOutWhereThereAreTooMany) {
    TestRandom random;
    TRACE_SEED(random);
    ZqOrderHints hints(MAP);
    for (uint32 first = 0; first < 3'000'000;) {
        const auto n = static_cast<uint32>(random.between(1, 2000));
        ZqOrderHints::Group group{first, first + n, {}, {}};
        for (const uint64 place : random.permutation(random.between(0, n)))
            group.hot.push_back(first + static_cast<uint32>(place));
        hints.groups.push_back(group);
        first += n;
    }
    const TempDir dir;
    hints.write(dir.path());
    EXPECT_LE(fs::file_size(dir.path("img.hints")), 2'000'000U);
    const auto kept = ZqOrderHints::read(dir.path(), MAP, 4'000'000);
    ASSERT_TRUE(kept);
    ASSERT_EQ(kept->groups.size(), hints.groups.size());
    size_t nMost = 0;
    for (const auto& group : kept->groups)
        nMost = std::max(nMost, group.hot.size());
    // One more of each group wouldn't go in.
    EXPECT_GT(fs::file_size(dir.path("img.hints")) + hints.groups.size() * 4, 2'000'000U);
    for (size_t i = 0; i < hints.groups.size(); ++i) {
        hints.groups[i].hot.resize(std::min(nMost, hints.groups[i].hot.size()));
        EXPECT_EQ(kept->groups[i], hints.groups[i]);
    }

    // Groups alone are too many.
    ZqOrderHints many(MAP);
    for (uint32 i = 0; i < 200'000; ++i)
        many.groups.push_back({i, i + 1, {i}, {{199'999 - i, 50}}});
    many.write(dir.path());
    EXPECT_LE(fs::file_size(dir.path("img.hints")), 2'000'000U);
    const auto first = ZqOrderHints::read(dir.path(), MAP, 200'000);
    ASSERT_TRUE(first);
    EXPECT_GT(first->groups.size(), 80'000U);
    EXPECT_THAT(first->groups[0].next, IsEmpty());
}
