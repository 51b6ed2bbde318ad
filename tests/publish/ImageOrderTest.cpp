#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxException.h"
#include "SxMd5.h"
#include "ZqImageBuild.h"
#include "ZqImageCheck.h"
#include "ZqImageOptimize.h"
#include "ZqImageOrder.h"
#include "ZqImageRaw.h"
#include "ZqOrderHints.h"
#include "ZqOrderRuns.h"
#include "ZqReadChance.h"
#include "ZqTrace.h"

#include <numeric>
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

std::string orderBy(const TempDir& dir, const std::vector<std::string>& traces, const std::string& index,
                    std::vector<ZqLeftTrace>* left = nullptr) {
    SxList<SxString> paths;
    for (const std::string& trace : traces)
        paths << SxString(dir.path(trace));
    ZqImageOrder job(dir.path("image"), paths, dir.path(index));
    const std::string failure = failureOf(job);
    EXPECT_EQ(job.isComplete(), failure.empty());
    if (left) *left = job.getLeft();
    return failure;
}

std::string order(const TempDir& dir, const std::string& index = "watched/index") {
    return orderBy(dir, {"trace"}, index);
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
    ZqImageParams record(SxString(dir.path("watched/index/")));
    ASSERT_TRUE(record.order);
    EXPECT_EQ(record.order->nRuns, 1U);
    EXPECT_EQ(record.order->nCore + FRONT, expected.size());
    EXPECT_EQ(record.order->median, app.loadprofile);
    record.order.reset();
    record.pathPrefix = SxString(dir.path("image/"));
    EXPECT_EQ(record, ZqImageParams(SxString(dir.path("image/"))));
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
    // A clock that was set back: what is earlier than the first read must be there at the start.
    EXPECT_EQ(profileOf({{5, 50'000}, {6, 60'000}, {7, 10'000}, {8, 20'000}}), (Points{{0, 6}}));
    EXPECT_EQ(profileOf({{5, 0}, {6, 5000}, {5, uint64{0} - 3000}}), (Points{{0, 3}, {5, 4}}));
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
         {"/trace' is one of the build 'other'", "/image/' is the build 'build id'"}},
        {[](const TempDir& dir) {
             writeTrace(dir, Blocks{1, 2, 40});
         },
         {"/trace' names block 40, and", "/image/' has 40"}},
        {[&](const TempDir& dir) { writeTrace(dir, Blocks{excluded}); }, {"/trace' names no block that"}},
        {cut, {"is damaged: '", "/trace/img.trc' isn't the one that", "tavrin trace mend TRACE"}},
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
            dir.write("source/folder" + std::to_string(i % 4) + "/" + std::to_string(i),
                      random.bytes(150'000));
        const std::vector<std::string> traces = {"trace1", "trace2", "trace3"};
        const auto build = [&](const std::string& target, const std::vector<std::string>& by) {
            ZqImageBuild::Options what;
            what.fileSystem = fileSystem;
            for (const std::string& trace : by)
                what.traces << SxString(dir.path(trace));
            ZqImageBuild job(dir.path(target), dir.path("source"), what);
            return failureOf(job);
        };
        ASSERT_EQ(build("image", {}), "");
        const ZqAppParams plain(SxString(dir.path("image/")));
        const uint64 nRaw = plain.sizeIdx / 8;
        const std::vector<Access> common = someRun(random, nRaw / 3, nRaw / 6);
        for (const std::string& trace : traces) {
            std::vector<Access> accesses = common, own = someRun(random, nRaw, nRaw / 5);
            accesses.insert(accesses.end(), own.begin(), own.end());
            writeTrace(dir, accesses, trace + "/", plain.checksumMnt);
        }
        ASSERT_EQ(orderBy(dir, traces, "watched/index"), "");
        // The same in whatever order they are named, and whether or not the table of files is there.
        fs::remove(dir.path("image/img.files"));
        ASSERT_EQ(orderBy(dir, {"trace3", "trace1", "trace2"}, "watched/again"), "");
        EXPECT_EQ(contentOf(dir, "watched/again"), contentOf(dir, "watched/index"));
        ASSERT_EQ(build("ordered", traces), "");
        for (const std::string file : {"img.idx", "img.json", "app.json", "img.hints"})
            EXPECT_TRUE(dir.read("ordered/" + file) == dir.read("watched/index/" + file)) << file;

        // The front is that of a new image, and the disk is the same.
        EXPECT_TRUE(dir.read("ordered/img.zqf").substr(0, plain.sizeMnt) ==
                    dir.read("image/img.zqf").substr(0, plain.sizeMnt));
        EXPECT_FALSE(dir.read("ordered/img.zqf") == dir.read("image/img.zqf"));
        ZqImageRaw raw(dir.path("image"), dir.path("raw"));
        EXPECT_EQ(failureOf(raw), "");
        ZqImageOptimize optimize(dir.path("image"), dir.path("watched/index"));
        ASSERT_EQ(failureOf(optimize), "");
        for (const std::string name : {"image", "ordered"}) {
            ZqImageCheck check(dir.path(name));
            EXPECT_EQ(failureOf(check), "");
            EXPECT_TRUE(check.getFaults().isEmpty()) << name << ": " << check.getFaults()(0);
            ZqImageRaw same(dir.path(name), dir.path("raw-" + name));
            EXPECT_EQ(failureOf(same), "");
            EXPECT_TRUE(dir.read("raw/img.raw") == dir.read("raw-" + name + "/img.raw"));
        }
        for (const std::string file : {"img.idx", "img.zqf", "img.hints", "img.files"}) {
            if (fileSystem == ZqDriveMaker::Squashfs && file == "img.files") continue;
            EXPECT_TRUE(dir.read("ordered/" + file) == dir.read("image/" + file)) << file;
        }

        // A trace of another build, and one that would go with the image that is replaced.
        const TreeSnapshot before = contentOf(dir, "image");
        writeTrace(dir, common, "image/traces/1/", plain.checksumMnt);
        EXPECT_THAT(build("image", {"image/traces/1"}), HasSubstr("would be removed with what"));
        fs::remove_all(dir.path("image/traces"));
        writeTrace(dir, common, "other/", "another");
        EXPECT_THAT(build("image", {"other"}), HasSubstr("is one of the build 'another'"));
        EXPECT_EQ(contentOf(dir, "image"), before);
    }
}

TEST(ImageOrder, WhatMostRunsReadComesFirstAndLevelsStayTogether) {
    TestRandom random;
    TRACE_SEED(random);
    const TempDir dir;
    constexpr uint64 N = 4000, SHARED = 400, LEVEL = 300;
    const TestImage image(random, N, 1.0);
    writeImage(dir, image, 5);
    // All runs read what is shared, and four levels of it are scattered over the disk.
    Blocks places(N);
    std::iota(places.begin(), places.end(), uint64{0});
    for (size_t i = places.size(); i > 1; --i)
        std::swap(places[i - 1], places[random.below(i)]);
    const SxArray<uint64> map = image.map;
    std::erase_if(places, [&](uint64 rawIdx) { return map(static_cast<int64>(rawIdx)) < 5; });
    std::vector<std::string> traces;
    for (uint64 level = 0; level < 4; ++level) {
        std::vector<Access> accesses;
        for (uint64 i = 0; i < SHARED; ++i)
            accesses.push_back({places[i], i});
        for (uint64 i = 0; i < LEVEL; ++i)
            accesses.push_back({places[SHARED + level * LEVEL + i], 2000 + i});
        traces.push_back("run" + std::to_string(level));
        writeTrace(dir, accesses, traces.back() + "/");
    }
    ASSERT_EQ(orderBy(dir, traces, "watched/index"), "");
    const Blocks result = readOrder(dir, image);
    EXPECT_TRUE(std::equal(places.begin(), places.begin() + SHARED, result.begin() + 5));
    for (uint64 level = 0; level < 4; ++level) {
        // In one piece.
        Blocks own(places.begin() + static_cast<std::ptrdiff_t>(SHARED + level * LEVEL),
                   places.begin() + static_cast<std::ptrdiff_t>(SHARED + (level + 1) * LEVEL));
        const auto begin = std::find_first_of(result.begin(), result.end(), own.begin(), own.end());
        Blocks piece(begin, begin + LEVEL);
        std::sort(own.begin(), own.end());
        std::sort(piece.begin(), piece.end());
        EXPECT_EQ(piece, own) << level;
    }

    // Before a start only the core must be there; a level is fetched on demand, after its 2 s of the core.
    const ZqAppParams app(SxString(dir.path("watched/index/")));
    EXPECT_EQ(app.loadprofile.first().size, (5 + SHARED) * BLOCK);
    EXPECT_EQ(app.loadprofile.last().time, 2U);
    EXPECT_LE(app.loadprofile.last().size, (5 + SHARED) * BLOCK + (LEVEL / 50 + 2) * 50 * BLOCK);
    const ZqImageParams record(SxString(dir.path("watched/index/")));
    ASSERT_TRUE(record.order);
    EXPECT_EQ(record.order->nRuns, 4U);
    EXPECT_EQ(record.order->nSessions, 4U);
    EXPECT_EQ(record.order->nCore, SHARED);
    EXPECT_EQ(record.order->nTail, 4 * LEVEL);

    const auto hints =
        ZqOrderHints::read(SxString(dir.path("watched/index/")), app.checksumIdx, (N + 49) / 50);
    ASSERT_TRUE(hints);
    EXPECT_EQ(hints->groups.size(), record.order->nGroups);
    // Stretches with blocks of two levels may be groups of their own.
    EXPECT_GE(hints->groups.size(), 4U);
    EXPECT_LE(hints->groups.size(), 7U);
}

TEST(ImageOrder, ARunThatReadsAllInNoOrderTearsNothingApart) {
    TestRandom random;
    TRACE_SEED(random);
    const TempDir dir;
    constexpr uint64 N = 4000, UNREAD = 2000;
    const TestImage image(random, N, 1.0);
    writeImage(dir, image, 0);
    std::vector<std::string> traces = {"wild"};
    std::vector<Access> wild;
    for (uint64 rawIdx = 0; rawIdx < N; ++rawIdx)
        wild.push_back({rawIdx, 0});
    for (size_t i = wild.size(); i > 1; --i)
        std::swap(wild[i - 1], wild[random.below(i)]);
    writeTrace(dir, wild, "wild/");
    for (uint64 level = 0; level < 3; ++level) {
        std::vector<Access> accesses;
        for (uint64 i = 0; i < 200; ++i)
            accesses.push_back({i, i});
        for (uint64 i = 0; i < 100; ++i)
            accesses.push_back({500 + level * 100 + i, 1000 + i});
        traces.push_back("run" + std::to_string(level));
        writeTrace(dir, accesses, traces.back() + "/");
    }
    ASSERT_EQ(orderBy(dir, traces, "watched/index"), "");
    const Blocks result = readOrder(dir, image);
    // What it alone has read lies as on the disk, so that a level that nobody has traced does, too.
    const auto begin = std::find(result.begin(), result.end(), UNREAD);
    ASSERT_LE(N - UNREAD, static_cast<uint64>(result.end() - begin));
    for (uint64 i = 0; i < N - UNREAD; ++i)
        ASSERT_EQ(begin[static_cast<std::ptrdiff_t>(i)], UNREAD + i);
}

TEST(ImageOrder, ATraceThatCantServeIsLeftOutAndNamed) {
    TestRandom random(21);
    TRACE_SEED(random);
    const TempDir dir;
    const TestImage image(random, 200, 1.0);
    writeImage(dir, image, 3);
    const std::string traces = "image/traces/";
    writeTrace(dir, {{7, 100}, {9, 300}}, traces + "run1/");
    writeTrace(dir, {{120, 50}, {9, 200}}, traces + "run2/");
    fs::copy(dir.path(traces + "run1"), dir.path(traces + "twice"));
    // The name of a damaged copy comes first, and says the same of itself.
    fs::copy(dir.path(traces + "run1"), dir.path(traces + "bad"));
    std::string items = dir.read(traces + "bad/img.trc");
    items[0] ^= 1;
    dir.write(traces + "bad/img.trc", items);
    writeTrace(dir, {{5, 10}}, traces + "another/", "other build");
    writeTrace(dir, {{500, 10}}, traces + "beyond/");
    writeTrace(dir, std::vector<Access>{}, traces + "nothing/");
    writeTrace(dir, {{6, 10}}, traces + "series/");
    ZqTraceParams series(SxString(dir.path(traces + "series/")));
    series.method = ZqTraceParams::IncMonitoring;
    series.write();
    writeTrace(dir, {{6, 10}, {7, 20}}, traces + "cut/");
    fs::resize_file(dir.path(traces + "cut/img.trc"), 16);
    dir.write(traces + "folder/file", "no trace");

    std::vector<std::string> all;
    for (const SxString& trace : ZqImageOrder::findTraces(SxString(dir.path("image"))))
        all.push_back(fs::path(trace.str()).lexically_relative(dir.path("")));
    std::vector<ZqLeftTrace> left;
    ASSERT_EQ(orderBy(dir, all, "watched/index", &left), "");
    std::vector<std::string> names, reasons;
    for (const ZqLeftTrace& one : left) {
        names.push_back(fs::path(one.trace.str()).filename());
        reasons.push_back(one.why.str());
    }
    EXPECT_THAT(names,
                ElementsAre("another", "bad", "beyond", "cut", "folder", "nothing", "series", "twice"));
    EXPECT_THAT(reasons,
                ElementsAre(HasSubstr("build 'other build'"), HasSubstr("is damaged"),
                            HasSubstr("names block 500"), HasSubstr("is damaged"), HasSubstr("can't be read"),
                            HasSubstr("is empty"), HasSubstr("was joined of several runs"),
                            HasSubstr("is the same run as")));
    EXPECT_EQ(ZqImageParams(SxString(dir.path("watched/index/"))).order->nRuns, 2U);
    EXPECT_THAT(orderBy(dir, {traces + "cut", traces + "series"}, "watched/none"),
                testing::AllOf(HasSubstr("no trace that the order could come from"), HasSubstr("/cut'"),
                               HasSubstr("/series'")));
    EXPECT_FALSE(dir.exists("watched/none"));
}

TEST(ImageOrder, AStopIsNoticedWithinATrace) {
    const TempDir dir;
    constexpr uint64 N = 1000, LONG = 200'000;
    std::vector<Access> accesses;
    for (uint64 i = 0; i < LONG; ++i)
        accesses.push_back({i % N, i});
    writeTrace(dir, accesses, "long/");
    writeTrace(dir, {{7, 1}}, "short/");
    // One that is left out counts as if it had been read.
    writeTrace(dir, {{7, 1}, {8, 2}}, "another/", "other build");
    fs::copy(dir.path("short"), dir.path("twice"));
    const SxList<SxString> traces = {SxString(dir.path("long")), SxString(dir.path("short")),
                                     SxString(dir.path("another")), SxString(dir.path("twice"))};
    const ZqOrderImage image{"image", BUILD, std::vector<bool>(N, true), {}, {}};

    // Each trace is read twice, and what has been read is told as it goes on.
    uint64 nBytes = 0, nCalls = 0;
    const auto pace = [&](uint64 n) { nBytes += n, ++nCalls; };
    ZqOrderRuns runs(traces, image, pace);
    size_t nShown = 0;
    runs.read([&](size_t, const ZqOrderRuns::Blocks&) { ++nShown; });
    for (size_t number = 0; number < runs.getN(); ++number)
        runs.walk(number, [](std::span<const ZqTraceItem>) {});
    EXPECT_EQ(nShown, 2U);
    EXPECT_EQ(nBytes, ZqOrderRuns::countBytes(traces));
    EXPECT_EQ(nBytes, 2 * (LONG + 4) * 16);
    EXPECT_GT(nCalls, 8U);

    // Not in the short one, whichever comes first.
    const auto stop = [&](uint64 n) {
        nBytes += n;
        if (nBytes > 16) throw SxException(SxException::STOPPED, "Stopped", "test", 0);
    };
    ZqOrderRuns stopped({traces(0), traces(1)}, image, stop);
    nBytes = nShown = 0;
    EXPECT_THROW(stopped.read([&](size_t, const ZqOrderRuns::Blocks&) { ++nShown; }), SxException);
    EXPECT_TRUE(stopped.getLeft().empty());
    EXPECT_LE(nShown, 1U);
    EXPECT_LT(nBytes, LONG * 16);
}

TEST(ReadChance, LeavesEachRunOutInTurn) {
    using Counts = std::vector<uint64>;
    const auto percents = [](const Counts& counts) {
        const ZqReadChance chance(counts);
        std::vector<uint64> result;
        for (uint64 n = 0; n < counts.size(); ++n)
            result.push_back(chance.of(n) * 100 / ZqReadChance::CERTAIN);
        return result;
    };
    // Each run reads the blocks that all others have read, and none of those that three of four have.
    EXPECT_THAT(percents({1000, 0, 0, 0, 100}), ElementsAre(0, 0, 0, 25, 100));
    EXPECT_THAT(percents({0, 300, 0, 0, 0}).at(1), testing::Le(33U));
    EXPECT_THAT(percents({5, 100}), ElementsAre(95, 100));
    // Two kinds of sessions, two of the one and one of the other: what two have read isn't the less likely.
    const auto kinds = percents({0, 1000, 900, 10});
    EXPECT_TRUE(std::is_sorted(kinds.begin(), kinds.end()));
}
