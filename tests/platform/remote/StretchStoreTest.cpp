#include "Builders.h"
#include "Failure.h"
#include "FaultOs.h"
#include "TempDir.h"
#include "ZqStretchStore.h"

#include <filesystem>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr uint64 STRETCH = 204'800;
constexpr size_t HEADER = 64;

class StretchStoreTest : public testing::Test {
protected:
    using Store = std::unique_ptr<ZqStretchStore>;
    Store open(const std::string& key = "key", uint64 nPassed = 0, uint64 size = 0) const {
        return std::make_unique<ZqStretchStore>(dir.prefix(), SxString(key), size == 0 ? zqf.size() : size,
                                                STRETCH, nPassed, ZqDiskReserve());
    }
    SxArray<char> stretch(uint64 idx) const {
        const std::string bytes = zqf.substr(idx * STRETCH, STRETCH);
        SxArray<char> array(static_cast<int64>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), array.begin());
        return array;
    }
    void fill(const std::vector<uint64>& all) const {
        const Store store = open();
        for (const uint64 idx : all)
            ASSERT_TRUE(store->write(idx, stretch(idx)));
    }
    bool isRight(const Store& store, uint64 idx) const {
        const auto bytes = store->read(idx);
        return bytes && *bytes == stretch(idx);
    }
    void patch(const char* name, size_t offset, std::string_view bytes) const {
        std::string all = dir.read(name);
        all.replace(offset, bytes.size(), bytes);
        dir.write(name, all);
    }

    TestRandom random;
    const std::string zqf = random.bytes(9 * STRETCH + 777);
    const TempDir dir;
};

} // namespace

TEST_F(StretchStoreTest, keepsWhatIsThereFromRunToRun) {
    fill({9, 4, 7});
    const Store store = open();
    EXPECT_THAT(store->list(), ElementsAre(4, 7, 9));
    for (const uint64 idx : {4U, 7U, 9U})
        EXPECT_TRUE(isRight(store, idx)) << idx;
    EXPECT_FALSE(store->read(5));
    store->drop(7);
    EXPECT_FALSE(store->read(7));
    EXPECT_THAT(open()->list(), ElementsAre(4, 9));
}

TEST_F(StretchStoreTest, givesTheRoomBackOfWhatTheImageHas) {
    fill({1, 2, 3, 4, 9});
    const Store store = open("key", 2 * STRETCH + 5);
    EXPECT_THAT(store->list(), ElementsAre(2, 3, 4, 9));
    const uint64 nBefore = ZqStretchStore::sizeIn(dir.prefix());
    store->pass(4 * STRETCH);
    EXPECT_THAT(store->list(), ElementsAre(4, 9));
    EXPECT_LT(ZqStretchStore::sizeIn(dir.prefix()), nBefore);
    // What has gone isn't there for whoever opens the store again.
    EXPECT_THAT(open()->list(), ElementsAre(4, 9));
    store->pass(zqf.size());
    EXPECT_THAT(open()->list(), IsEmpty());
    ZqStretchStore::remove(dir.prefix());
    EXPECT_TRUE(dir.snapshot().empty());
}

TEST_F(StretchStoreTest, believesNothingOfAnotherOrderOrShape) {
    const std::string otherHeader(8, 'x'), cut = "cut";
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"key", [&] { EXPECT_THAT(open("other")->list(), IsEmpty()); }},
        {"size", [&] { EXPECT_THAT(open("key", 0, zqf.size() + 1)->list(), IsEmpty()); }},
        {"number of stretches", [&] { EXPECT_THAT(open("key", 0, 3 * STRETCH)->list(), IsEmpty()); }},
        {"magic", [&] { patch("img.ahead.idx", 0, otherHeader); }},
        {"short index", [&] { fs::resize_file(dir.path("img.ahead.idx"), HEADER + 5); }},
        {"empty index", [&] { dir.write("img.ahead.idx", ""); }},
        {"long data", [&] { fs::resize_file(dir.path("img.ahead"), zqf.size() + 1); }},
        {"no data", [&] { fs::remove(dir.path("img.ahead")); }},
    };
    for (const auto& [name, harm] : cases) {
        SCOPED_TRACE(name);
        fill({2, 5});
        harm();
        const Store store = open();
        EXPECT_THAT(store->list(), IsEmpty());
        EXPECT_EQ(ZqStretchStore::sizeIn(dir.prefix()), 0u);
        EXPECT_TRUE(store->write(5, stretch(5)) && isRight(store, 5));
        ZqStretchStore::remove(dir.prefix());
    }
    EXPECT_THAT(failureOf([&] { open("key", 0, ~uint64{0}); }), HasSubstr("Nothing is kept"));
}

TEST_F(StretchStoreTest, damagedStretchesCountAsAbsent) {
    fill({2, 5, 6, 8});
    patch("img.ahead", 2 * STRETCH + 99, std::string(1, static_cast<char>(~zqf[2 * STRETCH + 99])));
    patch("img.ahead", 5 * STRETCH, std::string(STRETCH, '\0'));
    // The index says that another stretch is there, or this one with the checksum of another.
    const std::string index = dir.read("img.ahead.idx");
    patch("img.ahead.idx", HEADER + 3 * 8, index.substr(HEADER + 2 * 8, 8));
    patch("img.ahead.idx", HEADER + 6 * 8, index.substr(HEADER + 8 * 8, 8));
    const Store store = open();
    for (const uint64 idx : {2U, 3U, 5U, 6U})
        EXPECT_FALSE(store->read(idx)) << idx;
    EXPECT_TRUE(isRight(store, 8));
    EXPECT_THAT(open()->list(), ElementsAre(8)) << "they aren't tried again";
    // A stretch in the place of another, with its checksum.
    patch("img.ahead", 7 * STRETCH, zqf.substr(8 * STRETCH, STRETCH));
    patch("img.ahead.idx", HEADER + 7 * 8, dir.read("img.ahead.idx").substr(HEADER + 8 * 8, 8));
    EXPECT_FALSE(open()->read(7));
}

TEST_F(StretchStoreTest, followsNoLinks) {
    dir.write("precious", "untouched");
    for (const char* name : {"img.ahead", "img.ahead.idx"}) {
        fill({3});
        fs::remove(dir.path(name));
        fs::create_symlink("precious", dir.path(name));
        const Store store = open();
        EXPECT_THAT(store->list(), IsEmpty());
        EXPECT_TRUE(store->write(4, stretch(4)));
        EXPECT_FALSE(fs::is_symlink(dir.path(name)));
        EXPECT_EQ(dir.read("precious"), "untouched");
    }
}

TEST_F(StretchStoreTest, leavesAFullDiskAlone) {
    FaultOs os(dir.path());
    os.setFreeSpaceAnswer(1'000'000'000);
    const auto store = std::make_unique<ZqStretchStore>(dir.prefix(), SxString("key"), zqf.size(), STRETCH, 0,
                                                        ZqDiskReserve(dir.prefix(), 0));
    EXPECT_TRUE(store->write(3, stretch(3)));
    os.setFreeSpaceAnswer(160'000'000);
    EXPECT_FALSE(store->write(4, stretch(4))) << "the reserve, and some for the image";
    os.setFreeSpaceAnswer(1'000'000'000);
    os.failNth(FaultOs::Op::Write, 1, ENOSPC, "img.ahead");
    EXPECT_FALSE(store->write(4, stretch(4)));
    os.failNth(FaultOs::Op::Write, 1, EIO, "img.ahead");
    EXPECT_THAT(failureOf([&] { store->write(4, stretch(4)); }), HasSubstr("img.ahead"));
    EXPECT_TRUE(store->write(4, stretch(4)) && isRight(store, 4) && isRight(store, 3));
}
