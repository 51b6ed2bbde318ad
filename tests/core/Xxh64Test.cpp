#include "SxXxh64.h"

#include <gtest/gtest.h>
#include <string>

TEST(Xxh64, KnownChecksums) {
    // Of each way through it: fewer bytes than a word, a half word at the end, whole stripes with a rest.
    const struct {
        std::string bytes;
        uint64 seed, checksum;
    } cases[] = {
        {"", 0, 0xEF46DB3751D8E999},
        {"a", 0, 0xD24EC4F1A98C6E5B},
        {"abc", 0, 0x44BC2CF5AD770999},
        {"123456789", 0, 0x8CB841DB40E6AE83},
        {"Nobody inspects the spammish repetition", 0, 0xFBCEA83C8A378BF1},
    };
    for (const auto& [bytes, seed, checksum] : cases)
        EXPECT_EQ(SxXxh64::of(bytes.data(), static_cast<int64>(bytes.size()), seed), checksum) << bytes;
    EXPECT_NE(SxXxh64::of("abc", 3, 1), SxXxh64::of("abc", 3, 2));
}
