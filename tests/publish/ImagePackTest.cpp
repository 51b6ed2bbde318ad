#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFrameEncoder.h"
#include "ZqImage.h"
#include "ZqImageCheck.h"
#include "ZqImageFiles.h"
#include "ZqImageLock.h"
#include "ZqImagePack.h"
#include "ZqPackedForm.h"

#include <zstd.h>

namespace {

constexpr const char* PACKED = "watched/img.zqf.zst";

std::string packImage(const TempDir& dir, int64 level = 3) {
    ZqImagePack job(dir.path("watched"), level);
    return failureOf(job);
}

/// What plain zstd makes of frames one after the other.
std::string decode(const std::string& packed, size_t size) {
    std::string bytes(size + 1, '\0');
    const size_t n = ZSTD_decompress(bytes.data(), bytes.size(), packed.data(), packed.size());
    EXPECT_FALSE(ZSTD_isError(n)) << ZSTD_getErrorName(n);
    return ZSTD_isError(n) ? "" : bytes.substr(0, n);
}

uint32 number(const std::string& bytes, size_t at) {
    uint32 value = 0;
    for (size_t i = at + 4; i-- > at;)
        value = value << 8 | static_cast<unsigned char>(bytes.at(i));
    return value;
}

/// Checks frames, origin and table, frame by frame.
void expectPacked(const std::string& packed, const std::string& zqf) {
    EXPECT_TRUE(decode(packed, zqf.size()) == zqf);
    ASSERT_GE(packed.size(), 44U + 8 + 12 + 9);
    EXPECT_EQ(number(packed, packed.size() - 4), 0x8F92EAB1U);
    EXPECT_EQ(static_cast<unsigned char>(packed[packed.size() - 5]), 0x80);
    const size_t nEntries = number(packed, packed.size() - 9);
    const size_t nFrames = zqf.size() / 204800 + (zqf.size() % 204800 != 0 ? 1 : 0);
    ASSERT_EQ(nEntries, nFrames + 1);
    const size_t table = packed.size() - 9 - nEntries * 12;
    EXPECT_EQ(number(packed, table - 8), 0x184D2A5EU);
    EXPECT_EQ(number(packed, table - 4), nEntries * 12 + 9);

    EXPECT_EQ(packed.substr(0, 44),
              std::string("\x50\x2a\x4d\x18\x24\0\0\0md5=", 12) + SxMd5::get(SxString(zqf)).str());

    size_t at = 0, done = 0;
    for (size_t i = 0; i < nEntries; ++i) {
        const size_t size = number(packed, table + i * 12), plain = number(packed, table + i * 12 + 4);
        ASSERT_LE(at + size, table - 8);
        const std::string frame = packed.substr(at, size);
        if (i > 0) {
            EXPECT_EQ(plain, std::min<size_t>(204800, zqf.size() - done));
            EXPECT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), plain);
            EXPECT_EQ(number(packed, table + i * 12 + 8), number(frame, frame.size() - 4));
        }
        EXPECT_TRUE(decode(frame, plain) == zqf.substr(done, plain)) << i;
        at += size;
        done += plain;
    }
    EXPECT_EQ(at, table - 8);
}

void setChecksum(const TempDir& dir, const std::string& md5) {
    ZqAppParams app(dir.prefix() + "watched/");
    app.checksumZqf = md5;
    app.write();
}

} // namespace

TEST(ImagePack, PlainZstdReadsItAndTheTableIsRight) {
    TestRandom random;
    TRACE_SEED(random);
    // 50 blocks are a frame.
    for (const uint64 nBlocks : {1U, 49U, 50U, 51U, 100U, 1717U}) {
        SCOPED_TRACE(nBlocks);
        const TempDir dir;
        const TestImage image(random, nBlocks, 1.0);
        image.write(dir.prefix() + "watched/");
        ASSERT_EQ(packImage(dir), "");
        expectPacked(dir.read(PACKED), dir.read("watched/img.zqf"));
        EXPECT_FALSE(dir.exists("watched/img.zqf.zst.new"));
    }
}

TEST(ImagePack, ChecksumsAreThoseOfTheFrames) {
    ZqFrameEncoder encoder(1);
    encoder.encode("", 0);
    EXPECT_EQ(encoder.getChecksum(), ZqPackedForm::EMPTY_CHECKSUM);
    EXPECT_THROW(ZqFrameEncoder(0), SxException);
    EXPECT_THROW(ZqFrameEncoder(23), SxException);
}

TEST(ImagePack, WhatIsNoCompleteImageIsRefused) {
    TestRandom random;
    const TestImage image(random, 120, 1.0);
    SxPtr<ZqImageLock> lock;
    const std::pair<std::function<void(const TempDir&)>, std::string> cases[] = {
        {[](const TempDir& dir) { fs::resize_file(dir.path("watched/img.zqf"), 119 * 4096); },
         "isn't complete: img.zqf has 487424 of 491520 bytes"},
        {[](const TempDir& dir) { ZqImage(dir.prefix() + "watched/").split(5000, false); },
         "is split; join it first"},
        {[](const TempDir& dir) { setChecksum(dir, std::string(32, 'a')); }, "app.json says 'aaaa"},
        {[&](const TempDir& dir) {
             lock = ZqImageLock::take(dir.prefix() + "watched/", ZqImageLock::Growth, ZqImageLock::Exclusive,
                                      "the other");
         },
         "the other"}};
    for (const auto& [prepare, says] : cases) {
        const TempDir dir;
        image.write(dir.prefix() + "watched/");
        dir.write(PACKED, "old");
        prepare(dir);
        EXPECT_THAT(packImage(dir), HasSubstr(says));
        EXPECT_EQ(dir.read(PACKED), "old");
        EXPECT_FALSE(dir.exists("watched/img.zqf.zst.new"));
        lock = nullptr;
    }
    const TempDir dir;
    image.write(dir.prefix() + "watched/");
    EXPECT_THAT(packImage(dir, 23), HasSubstr("There is no zstd level 23"));
}

TEST(ImagePack, VerifyFindsAStalePack) {
    TestRandom random;
    const TestImage image(random, 120, 1.0);
    const TempDir dir;
    image.write(dir.prefix() + "watched/");
    setChecksum(dir, SxMd5::get(SxString(dir.read("watched/img.zqf"))).str());
    ASSERT_EQ(packImage(dir), "");
    const auto faults = [&] {
        ZqImageCheck check(dir.path("watched"));
        EXPECT_EQ(failureOf(check), "");
        return SxString::join(check.getFaults(), "\n").str();
    };
    EXPECT_THAT(faults(), Not(HasSubstr("img.zqf.zst")));
    std::string zqf = dir.read("watched/img.zqf");
    zqf[5000] ^= 1;
    dir.write("watched/img.zqf", zqf);
    setChecksum(dir, SxMd5::get(SxString(zqf)).str());
    EXPECT_THAT(faults(), HasSubstr("img.zqf.zst' wasn't packed of this img.zqf"));
    ASSERT_EQ(packImage(dir), "");
    EXPECT_THAT(faults(), Not(HasSubstr("img.zqf.zst")));
    EXPECT_THAT(faults(), Not(HasSubstr("img.idx.zst")));
    const std::string smallMap = dir.read("watched/img.idx.zst");
    dir.write("watched/img.idx.zst", smallMap.substr(0, smallMap.size() - 1));
    EXPECT_THAT(faults(), HasSubstr("img.idx.zst': It ends after 0 of 960 bytes"));
    dir.write("watched/img.idx.zst", std::string(44, '\0') + smallMap.substr(44));
    EXPECT_THAT(faults(), HasSubstr("img.idx.zst': It wasn't packed of this map"));
    dir.write("watched/img.idx.zst", smallMap);

    // 120 blocks are three frames.
    const std::string right = dir.read(PACKED);
    const size_t entries = right.size() - 9 - 4 * 12, first = 44 + number(right, entries + 12);
    const auto damaged = [&](size_t at) {
        std::string bytes = right;
        bytes.at(at) ^= 1;
        dir.write(PACKED, bytes);
        return faults();
    };
    EXPECT_THAT(damaged(first + number(right, entries + 24) / 2),
                HasSubstr("img.zqf.zst': frame 1 can't be decoded"));
    EXPECT_THAT(damaged(entries + 12 + 8), HasSubstr("img.zqf.zst': frame 0 has another checksum"));
    EXPECT_THAT(damaged(0), HasSubstr("wasn't packed of this img.zqf"));
    EXPECT_THAT(damaged(right.size() - 1), HasSubstr("img.zqf.zst': The file doesn't end in a seek table"));
    zqf[204800] ^= 1;
    dir.write("watched/img.zqf", zqf);
    dir.write(PACKED, right);
    EXPECT_THAT(faults(),
                AllOf(HasSubstr("frame 1 doesn't give the bytes of img.zqf"), Not(HasSubstr("frame 0"))));
}
