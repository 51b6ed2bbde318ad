#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "ZqImageBuild.h"
#include "ZqImageCheck.h"
#include "ZqImageOptimize.h"
#include "ZqImageOrder.h"
#include "ZqImageRaw.h"
#include "ZqRunsOrder.h"

#include <set>

namespace {

constexpr uint64 BLOCK = TestImage::BLOCK;
constexpr uint64 T0 = 1'700'000'000'000; ///< milliseconds since 1970
const SxString BUILD = "build id";

using Blocks = std::vector<uint64>;

struct Access {
    uint64 block, ms;
};

void writeTrace(const TempDir& dir, const std::vector<Access>& accesses, const std::string& name = "trace/",
                const SxString& build = BUILD) {
    SxArray<ZqTraceItem> items;
    for (const Access& access : accesses)
        items.append({access.block, T0 + access.ms, false});
    ZqTrace::write(SxPtr<ZqTrace::Items>::create(items), dir.path(name), ZqTraceParams::Merge, build);
}

/// One access after the other, a second apart.
void writeTrace(const TempDir& dir, const Blocks& blocks) {
    std::vector<Access> accesses;
    for (const uint64 block : blocks)
        accesses.push_back({block, accesses.size() * 1000});
    writeTrace(dir, accesses);
}

/// Writes the image to "image/", of which `nFront` ZqF blocks serve a mount.
void writeImage(const TempDir& dir, const TestImage& image, uint64 nFront, uint64 nThere = ~uint64{0}) {
    image.write(SxString(dir.path("image/")), nThere);
    ZqAppParams app(SxString(dir.path("image/")));
    app.sizeMnt = nFront * BLOCK;
    app.checksumMnt = BUILD;
    app.loadprofile = {ZqLoadProfilePoint{7, 7}};
    app.write(SxString(dir.path("image/")));
}

std::string order(const TempDir& dir, const std::string& index = "watched/index") {
    ZqImageOrder job(dir.path("image"), {SxString(dir.path("trace"))}, dir.path(index));
    const std::string failure = failureOf(job);
    EXPECT_EQ(job.isComplete(), failure.empty());
    return failure;
}

/// RAW indices by ZqF index, checked for being those of `image` without a gap.
Blocks readOrder(const TempDir& dir, const TestImage& image, const std::string& index = "watched/index/") {
    const SxArray<uint64> map = ZqImage(SxString(dir.path(index))).getMap();
    EXPECT_EQ(map.getSize(), image.map.getSize());
    Blocks result(image.nZqf(), ZqImage::NO_ENTRY);
    for (int64 rawIdx = 0; rawIdx < map.getSize(); ++rawIdx) {
        EXPECT_EQ(map(rawIdx) == ZqImage::NO_ENTRY, image.map(rawIdx) == ZqImage::NO_ENTRY) << rawIdx;
        if (map(rawIdx) == ZqImage::NO_ENTRY) continue;
        EXPECT_LT(map(rawIdx), result.size());
        EXPECT_EQ(result.at(map(rawIdx)), ZqImage::NO_ENTRY) << "a place given twice";
        result.at(map(rawIdx)) = static_cast<uint64>(rawIdx);
    }
    return result;
}

/// A program's way through a disk: runs of neighbours here and there, some of them again, in bursts.
std::vector<Access> someRun(TestRandom& random, uint64 nRaw, size_t n) {
    std::vector<Access> accesses;
    for (uint64 ms = 0; accesses.size() < n;
         ms += random.chance(0.2) ? random.below(4000) : random.below(9)) {
        const uint64 first = random.below(nRaw);
        for (uint64 i = first, end = first + random.below(30); i < std::min(end, nRaw); ++i)
            accesses.push_back({i, ms});
    }
    return accesses;
}

} // namespace

TEST(ImageOrder, FrontThenTraceThenTheRest) {
    TestRandom random;
    TRACE_SEED(random);
    const TempDir dir;
    constexpr uint64 FRONT = 11;
    const TestImage image(random, 8000, 0.9);
    writeImage(dir, image, FRONT);
    const std::vector<Access> accesses = someRun(random, image.nRaw(), 3000);
    writeTrace(dir, accesses);
    const TreeSnapshot before = contentOf(dir, "image");
    ASSERT_EQ(order(dir), "");
    EXPECT_EQ(contentOf(dir, "image"), before);

    const Blocks result = readOrder(dir, image);
    const SxArray<uint64> oldOrder = ZqImage::getReverseMap(image.map);
    Blocks expected(oldOrder.begin(), oldOrder.begin() + FRONT);
    std::set<uint64> seen(expected.begin(), expected.end());
    for (const Access& access : accesses) {
        const bool included = image.map(static_cast<int64>(access.block)) != ZqImage::NO_ENTRY;
        if (included && seen.insert(access.block).second) expected.push_back(access.block);
    }
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), result.begin()));
    ASSERT_GT(result.size(), expected.size());

    std::string zqf;
    for (const uint64 rawIdx : result)
        zqf += image.rawBlock(rawIdx);
    const ZqAppParams old(SxString(dir.path("image/"))), app(SxString(dir.path("watched/index/")));
    EXPECT_EQ(app.checksumZqf, SxMd5::get(SxString(zqf)));
    EXPECT_EQ(app.checksumIdx, SxMd5::get(SxString(dir.read("watched/index/img.idx"))));
    EXPECT_EQ(app.checksumMnt, BUILD);
    EXPECT_EQ(app.sizeZqf, zqf.size());
    EXPECT_EQ(app.sizeIdx, image.nRaw() * 8);
    EXPECT_EQ(app.sizeMnt, FRONT * BLOCK);
    EXPECT_EQ(app.guid, old.guid);
    EXPECT_EQ(dir.read("watched/index/img.json"), dir.read("image/img.json"));
    EXPECT_EQ(dir.snapshot("watched/index").size(), 3U);

    // With what the profile asks for, no read comes before its block, and the profile asks for no byte too
    // many.
    const ZqAppParams& profile = app;
    EXPECT_LE(profile.loadprofile.getSize(), 200);
    for (const double speed : {0.01, 0.5, 2.0, 20.0, 1000.0}) {
        const auto bytesPerSecond = static_cast<uint64>(speed * 125'000);
        uint64 most = 0;
        for (const Access& access : accesses) {
            const uint64 second = (access.ms - accesses.front().ms) / 1000;
            const auto place = std::find(result.begin(), result.end(), access.block);
            if (place == result.end()) continue;
            const uint64 need = static_cast<uint64>(place - result.begin() + 1) * BLOCK;
            most = std::max(most, need - std::min(need, bytesPerSecond * second));
        }
        EXPECT_EQ(profile.getNInit(speed), most) << speed;
    }
    ZqLoadProfilePoint last;
    for (const ZqLoadProfilePoint& point : profile.loadprofile) {
        EXPECT_GT(point.size, last.size);
        EXPECT_TRUE(point.time > last.time || last.size == 0);
        last = point;
    }
}

TEST(ImageOrder, ShortGapsComeAheadOfTheRest) {
    const auto range = [](uint64 first, uint64 end) {
        Blocks blocks;
        for (uint64 i = first; i < end; ++i)
            blocks.push_back(i);
        return blocks;
    };
    const auto join = [](std::initializer_list<Blocks> parts) {
        Blocks all;
        for (const Blocks& part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    };
    TestRandom random;
    const TempDir dir;
    const TestImage image(random, 20'000, 1.0);
    writeImage(dir, image, 0);
    // Gaps of 5000, 300, 64, 4096, 65 and 1 blocks, and what lies outside of all.
    writeTrace(dir, Blocks{15'000, 100, 5101, 5402, 5467, 9564, 9630, 9632});
    ASSERT_EQ(order(dir), "");
    EXPECT_TRUE(readOrder(dir, image) == join({{15'000, 100, 5101, 5402, 5467, 9564, 9630, 9632},
                                               range(5403, 5467),
                                               {9631},
                                               range(9565, 9630),
                                               range(5102, 5402),
                                               range(5468, 9564),
                                               range(0, 100),
                                               range(101, 5101),
                                               range(9633, 15'000),
                                               range(15'001, 20'000)}));
}

TEST(ImageOrder, TimesCountFromTheApplicationsFirstAccess) {
    const auto profileOf = [](const std::vector<Access>& accesses) {
        TestRandom random;
        const TempDir dir;
        TestImage image(random, 100, 1.0);
        for (int64 i = 0; i < 100; ++i)
            image.map(i) = static_cast<uint64>(i);
        image.zqf = image.raw;
        writeImage(dir, image, 2);
        writeTrace(dir, accesses);
        EXPECT_EQ(order(dir), "");
        std::vector<std::pair<uint64, uint64>> points;
        for (const ZqLoadProfilePoint& point : ZqAppParams(SxString(dir.path("watched/index/"))).loadprofile)
            points.emplace_back(point.time, point.size / BLOCK);
        return points;
    };
    using Points = std::vector<std::pair<uint64, uint64>>;
    EXPECT_EQ(profileOf({{0, 0}, {1, 50}, {7, 90'000}, {8, 90'999}, {9, 91'000}, {7, 99'000}}),
              (Points{{0, 4}, {1, 5}}));
    // A clock that was set back: the earlier time of both is the safe one.
    EXPECT_EQ(profileOf({{5, 50'000}, {6, 60'000}, {7, 10'000}, {8, 20'000}}), (Points{{0, 5}, {10, 6}}));
    EXPECT_EQ(profileOf({{5, 0}, {6, 5000}, {5, uint64{0} - 3000}}), (Points{{0, 3}, {8, 4}}));
    // Only what a mount reads, at times of before 1970.
    EXPECT_EQ(profileOf({{1, uint64{0} - 2 * T0}, {0, 0}}), (Points{{0, 2}}));
}

TEST(ImageOrder, FailuresNameTheFileAndLeaveNothing) {
    TestRandom random;
    const TestImage image(random, 40, 0.8);
    uint64 excluded = 0;
    while (image.map(static_cast<int64>(excluded)) != ZqImage::NO_ENTRY)
        ++excluded;
    struct Case {
        std::function<void(const TempDir&)> prepare;
        std::vector<std::string> says;
    };
    const auto cut = [](const TempDir& dir) { fs::resize_file(dir.path("trace/img.trc"), 40); };
    const Case cases[] = {
        {[](const TempDir& dir) {
             writeTrace(dir, std::vector<Access>{{1, 1}}, "trace/", "other");
         },
         {"/trace/' is one of the build 'other'", "/image/' is the build 'build id'"}},
        {[](const TempDir& dir) {
             writeTrace(dir, Blocks{1, 2, 40});
         },
         {"/trace/img.trc' names block 40, and", "/image/' has 40"}},
        {[&](const TempDir& dir) { writeTrace(dir, Blocks{excluded}); },
         {"/trace/img.trc' names no block that"}},
        {cut, {"/trace/img.trc' isn't the one that", "tavrin trace mend TRACE"}},
        {[](const TempDir& dir) { fs::remove(dir.path("trace/trace.json")); }, {"/trace/trace.json"}},
        {[](const TempDir& dir) {
             std::string zqf = dir.read("image/img.zqf");
             zqf[5000] ^= 1;
             dir.write("image/img.zqf", zqf);
         },
         {"/image/img.zqf' hasn't the digest"}},
        {[](const TempDir& dir) {
             std::string idx = dir.read("image/img.idx");
             dir.write("image/img.idx",
                       idx.replace(0, 8, std::string(8, '\0')).replace(8, 8, std::string(8, '\0')));
         },
         {"/image/img.idx' names a ZqF block twice"}},
        {[](const TempDir& dir) { dir.write("image/optimize.lock", ""); }, {"optimi"}},
    };
    for (const Case& failing : cases) {
        SCOPED_TRACE(failing.says.front());
        const TempDir dir;
        writeImage(dir, image, 2);
        writeTrace(dir, Blocks{1, 2, 3});
        fs::create_directory(dir.path("watched"));
        failing.prepare(dir);
        const std::string failure = order(dir, "watched/a/index");
        for (const std::string& part : failing.says)
            EXPECT_THAT(failure, HasSubstr(part));
        EXPECT_TRUE(fs::is_empty(dir.path("watched")));
    }

    const TempDir dir;
    writeImage(dir, image, 2);
    writeTrace(dir, Blocks{1, 2, 3});
    dir.write("full/letter", "text");
    for (const char* index : {"image", "image/index", "trace", "trace/new", ".", "full"}) {
        const TreeSnapshot before = contentOf(dir, ".");
        EXPECT_THAT(order(dir, index),
                    testing::AnyOf(HasSubstr("lie in each other"), HasSubstr("isn't empty")));
        EXPECT_EQ(contentOf(dir, "."), before) << index;
    }
    // One whose writer was killed has neither size nor digest in its record, and counts up to its last whole
    // item.
    cut(dir);
    ZqTraceParams record(SxString(dir.path("trace/")));
    record.size = 0;
    record.checksumTrc = SxString();
    record.write();
    EXPECT_EQ(order(dir), "");
}

TEST(ImageOrder, APartialImageIsOrderedWithoutADigest) {
    TestRandom random;
    const TestImage image(random, 40, 0.8);
    const TempDir dir;
    writeImage(dir, image, 2, 5);
    writeTrace(dir, Blocks{1, 2, 3});
    ASSERT_EQ(order(dir), "");
    readOrder(dir, image);
    EXPECT_TRUE(ZqAppParams(SxString(dir.path("watched/index/"))).checksumZqf.isEmpty());
}

TEST(ImageOrder, TheBuilderGivesTheSameOrder) {
    TestRandom random;
    TRACE_SEED(random);
    for (const auto fileSystem : {ZqDriveMaker::Erofs, ZqDriveMaker::Ext4, ZqDriveMaker::Squashfs}) {
        const TempDir dir;
        for (int i = 0; i < 20; ++i)
            dir.write("source/folder/" + std::to_string(i), random.bytes(50'000));
        const auto build = [&](const std::string& target, const SxString& trace) {
            ZqImageBuild::Options what;
            what.fileSystem = fileSystem;
            what.trace = trace;
            ZqImageBuild job(dir.path(target), dir.path("source"), what);
            return failureOf(job);
        };
        ASSERT_EQ(build("image", ""), "");
        const ZqAppParams plain(SxString(dir.path("image/")));
        const uint64 nRaw = plain.sizeIdx / 8;
        const std::vector<Access> accesses = someRun(random, nRaw, nRaw / 5);
        writeTrace(dir, accesses, "trace/", plain.checksumMnt);
        ASSERT_EQ(order(dir), "");
        ASSERT_EQ(build("ordered", dir.path("trace")), "");
        ASSERT_EQ(build("again", dir.path("trace/")), "");
        EXPECT_EQ(contentOf(dir, "again"), contentOf(dir, "ordered"));
        for (const std::string file : {"img.idx", "img.json", "app.json"})
            EXPECT_TRUE(dir.read("ordered/" + file) == dir.read("watched/index/" + file)) << file;
        fs::remove_all(dir.path("watched"));

        // The front is that of a new image, and the disk is the same.
        EXPECT_TRUE(dir.read("ordered/img.zqf").substr(0, plain.sizeMnt) ==
                    dir.read("image/img.zqf").substr(0, plain.sizeMnt));
        EXPECT_FALSE(dir.read("ordered/img.zqf") == dir.read("image/img.zqf"));
        ZqImageCheck check(dir.path("ordered"));
        EXPECT_EQ(failureOf(check), "");
        EXPECT_TRUE(check.getFaults().isEmpty());
        for (const std::string name : {"image", "ordered"}) {
            ZqImageRaw raw(dir.path(name), dir.path("raw-" + name));
            EXPECT_EQ(failureOf(raw), "");
        }
        EXPECT_TRUE(dir.read("raw-image/img.raw") == dir.read("raw-ordered/img.raw"));

        // A trace of another build, and one that would go with the image that is replaced.
        const TreeSnapshot before = contentOf(dir, "image");
        writeTrace(dir, accesses, "image/traces/1/", plain.checksumMnt);
        EXPECT_THAT(build("image", dir.path("image/traces/1")), HasSubstr("would be removed with what"));
        fs::remove_all(dir.path("image/traces"));
        writeTrace(dir, accesses, "other/", "another");
        EXPECT_THAT(build("image", dir.path("other")), HasSubstr("is one of the build 'another'"));
        EXPECT_EQ(contentOf(dir, "image"), before);
    }
}

TEST(RunsOrder, TheImageComesToTheOrderOfItsOwnRuns) {
    TestRandom random(21);
    TRACE_SEED(random);
    const TempDir dir;
    const TestImage image(random, 200);
    writeImage(dir, image, 3);
    const std::string traces = "image/traces/";
    writeTrace(dir, {{7, 100}, {9, 300}}, traces + "run1/");
    writeTrace(dir, {{120, 50}, {9, 200}}, traces + "run2/");
    writeTrace(dir, {{5, 10}}, traces + "another/", "other build");
    writeTrace(dir, {{500, 10}}, traces + "beyond/");
    writeTrace(dir, {{6, 10}}, traces + "series/");
    ZqTraceParams series(SxString(dir.path(traces + "series/")));
    series.method = ZqTraceParams::IncMonitoring;
    series.write();
    dir.write(traces + "folder/file", "no trace");
    fs::create_directory(dir.path("place"));

    ZqRunsOrder job(dir.path("image"), dir.path("place"));
    ASSERT_EQ(failureOf(job), "");
    EXPECT_TRUE(job.isComplete());
    EXPECT_EQ(job.getNTraces(), 2);
    std::vector<std::string> left;
    for (const ZqRunsOrder::Left& one : job.getLeft())
        left.push_back(one.name.str());
    EXPECT_THAT(left, ElementsAre("another", "beyond", "folder", "series"));
    // The order is that of the merged trace, and so is the image's once it has it.
    writeTrace(dir, {{120, 50}, {7, 100}, {9, 200}});
    ASSERT_EQ(order(dir), "");
    EXPECT_EQ(dir.read("place/index/img.idx"), dir.read("watched/index/img.idx"));
    const SxString digest = ZqAppParams(SxString(dir.path("watched/index/"))).checksumZqf;
    ZqImageOptimize optimize(dir.path("image"), job.getIndex());
    ASSERT_EQ(failureOf(optimize), "");
    EXPECT_EQ(SxMd5::file(dir.path("image/img.zqf")), digest);
    ZqImageCheck check(dir.path("image"));
    EXPECT_EQ(failureOf(check), "");
    EXPECT_TRUE(check.getFaults().isEmpty()) << check.getFaults()(0);
    EXPECT_TRUE(dir.exists(traces + "run1/img.trc"));
}
