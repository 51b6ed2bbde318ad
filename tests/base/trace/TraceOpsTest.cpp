#include "BaseTest.h"
#include "Builders.h"
#include "SxFileInfo.h"
#include "SxMd5.h"
#include "TraceMaking.h"
#include "VirtualClock.h"
#include "ZqAppParams.h"
#include "ZqLog.h"
#include "ZqTrace.h"
#include "ZqTraceOrigins.h"
#include "ZqTraceRecords.h"

#include <map>
#include <set>

namespace {

constexpr int64 NOW = 1'700'000'000'000;
constexpr uint64 ONES = ~uint64{0};

ItemList toVector(const ZqTrace::Items& items) {
    return {items.begin(), items.end()};
}

ItemList itemsOf(const SxString& path) {
    return toVector(*ZqTrace::getItems(path, false, true, true));
}

/// The items, with times relative to the record's.
ItemList relative(const SxString& path) {
    ItemList items = itemsOf(path);
    const auto time0 = static_cast<uint64>(Params(path).time0);
    for (ZqTraceItem& item : items)
        item.time -= time0;
    return items;
}

/// A trace with repeats, equal times, marks, and, where it isn't `sorted`, times that go backward.
ItemList randomItems(TestRandom& random, bool sorted) {
    ItemList items;
    int64 time = static_cast<int64>(random.below(20)) - 10;
    for (uint64 n = random.below(40); n > 0; --n) {
        time += static_cast<int64>(random.below(4)) - (sorted ? 0 : 2);
        items.emplace_back(random.below(30), static_cast<uint64>(time), random.chance(0.3));
    }
    return items;
}

ItemList unique(const ItemList& items) {
    ItemList result;
    std::set<uint64> seen;
    for (const ZqTraceItem& item : items) {
        if (seen.insert(item.block).second) result.push_back(item);
    }
    return result;
}

/// The merge by a search over all traces for each item, with relative times.
ItemList mergeByScan(const std::vector<ItemList>& traces) {
    std::vector<ItemList> items;
    for (const ItemList& trace : traces)
        items.push_back(unique(trace));
    std::vector<size_t> next(items.size(), 0);
    ItemList result;
    std::set<uint64> seen;
    for (;;) {
        size_t best = items.size();
        for (size_t k = 0; k < items.size(); ++k) {
            if (next[k] == items[k].size()) continue;
            if (best == items.size() || static_cast<int64>(items[k][next[k]].time) <
                                            static_cast<int64>(items[best][next[best]].time)) {
                best = k;
            }
        }
        if (best == items.size()) return result;
        const ZqTraceItem& item = items[best][next[best]++];
        if (seen.insert(item.block).second) result.push_back(item);
    }
}

/// The alignment by comparing all with all; nothing where no block is common.
ItemList alignByScan(const ItemList& reference, const ItemList& trace) {
    const ItemList items = unique(trace);
    for (const ZqTraceItem& r : unique(reference)) {
        for (size_t i = 0; i < items.size(); ++i) {
            if (items[i].block != r.block) continue;
            ItemList result(items.begin() + static_cast<std::ptrdiff_t>(i), items.end());
            for (ZqTraceItem& item : result)
                item.time += r.time - items[i].time;
            return result;
        }
    }
    return {};
}

/// The runs by a map of all positions.
std::vector<ZqSequence> runsByMap(const ItemList& trace) {
    const ItemList items = unique(trace);
    std::map<uint64, size_t> positions;
    for (size_t i = 0; i < items.size(); ++i)
        positions[items[i].block] = i;
    std::vector<ZqSequence> runs(1);
    runs[0].block = items[0].block;
    runs[0].flag = items[0].flag;
    for (size_t i = 1; i < items.size(); ++i) {
        ZqSequence& run = runs.back();
        const uint64 next = run.block + static_cast<uint64>(run.nFollowing) + 1;
        if (items[i].block == next && items[i].flag == (run.flag == 1)) {
            ++run.nFollowing;
            continue;
        }
        if (positions.count(next)) {
            run.jump = static_cast<int64>(positions[next]) - static_cast<int64>(i);
            run.jumpTime = static_cast<int64>(items[positions[next]].time);
        }
        ZqSequence started;
        started.block = items[i].block;
        started.flag = items[i].flag;
        started.time = static_cast<int64>(items[i].time);
        started.index = static_cast<int64>(i);
        runs.push_back(started);
    }
    return runs;
}

/// Size and digest of the record are those of the file.
void expectSound(const SxString& path) {
    const Params record(path);
    EXPECT_EQ(record.size, SxFileInfo(path + "img.trc").getSize());
    EXPECT_EQ(record.checksumTrc, SxMd5::file(path + "img.trc"));
}

std::vector<std::string> logOf(const std::function<void()>& action) {
    std::vector<std::string> lines;
    ZqLog::setSink([&](const SxString&, const SxString& text) { lines.push_back(text.str()); });
    action();
    ZqLog::setSink({});
    return lines;
}

} // namespace

TEST(TraceOps, MergeIsThatOfAScanOverAllTraces) {
    const VirtualClock clock(NOW);
    TestRandom random;
    TRACE_SEED(random);
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const TempDir dir;
        std::vector<ItemList> traces(random.below(9));
        std::vector<SxString> paths;
        for (ItemList& trace : traces) {
            trace = randomItems(random, random.chance(0.6));
            paths.push_back(makeTrace(dir, std::to_string(paths.size()), trace,
                                      static_cast<int64>(random.below(1000)) - 500));
        }
        // The result may take the place of one that is merged.
        const bool inPlace = !paths.empty() && random.chance(0.3);
        const SxString out = inPlace ? paths.back() : SxString(dir.path("out") + "/");
        ZqTrace::merge(out, asList(paths));
        const ItemList expected = mergeByScan(traces);
        EXPECT_EQ(relative(out), expected);
        expectSound(out);
        const Params record(out);
        EXPECT_EQ(record.time0, NOW);
        EXPECT_EQ(record.method, Params::Merge);
        EXPECT_EQ(record.checksumMnt, traces.empty() ? "" : "build");
        EXPECT_EQ(record.duration,
                  expected.empty() ? 0 : static_cast<int64>(expected.back().time - expected.front().time));
    }
}

TEST(TraceOps, MergeOfLongTracesAndOfOthersRecords) {
    const VirtualClock clock(NOW);
    const TempDir dir;
    // Pieces of the input and of the output end within these. The second one stands still on its way.
    std::vector<ItemList> traces(3);
    for (uint64 i = 0; i < 100'000; ++i) {
        traces[0].emplace_back(i * 3, i, false);
        traces[1].emplace_back(i * 2, i < 50'000 ? i : 50'000 + i / 1000, true);
        if (i % 20 == 0) traces[2].emplace_back(i, i % 3000, false);
    }
    std::vector<SxString> paths;
    for (const ItemList& trace : traces)
        paths.push_back(makeTrace(dir, std::to_string(paths.size()), trace, 77));
    const SxString out = makeTrace(dir, "out", {}, 5, "other");
    Params former(out);
    former.guid = "kept";
    former.checksumIdx = "kept too";
    former.firstSessionBlockIndex = 9;
    former.write(out);
    ZqTrace::merge(out, asList(paths));
    EXPECT_TRUE(relative(out) == mergeByScan(traces));
    expectSound(out);
    const Params record(out);
    EXPECT_EQ(record.guid, "kept");
    EXPECT_EQ(record.checksumIdx, "kept too");
    EXPECT_EQ(record.firstSessionBlockIndex, 0) << "it would be taken for a series of runs";
    EXPECT_EQ(record.checksumMnt, "build");

    // Builds: one that is unknown counts only after one that is known.
    const auto unknown = makeTrace(dir, "unknown", at({{1, 1}}), 0, "");
    const TreeSnapshot before = dir.snapshot();
    EXPECT_EQ(failureOf([&] {
                  ZqTrace::merge(out, asList({paths[0], unknown}));
              }),
              "Cannot merge traces: Different build IDs detected.");
    EXPECT_EQ(failureOf([&] {
                  ZqTrace::merge(out, asList({paths[0], dir.path("none/")}));
              }),
              "Cannot trace data. File '" + dir.path("none/img.trc") + "' not found!");
    dir.write("out/trace.json", "{");
    EXPECT_THAT(failureOf([&] { ZqTrace::merge(out, asList(paths)); }),
                StartsWith("The trace meta information [" + out.str() + "trace.json] cannot be written."));
    former.write(out);
    record.write(out);
    EXPECT_EQ(dir.snapshot(), before);
    ZqTrace::merge(out, asList({unknown, paths[0]}));
    EXPECT_EQ(Params(out).checksumMnt, "build");
    // A time that no record can hold.
    const auto late = makeTrace(dir, "late", at({{1, 1}}));
    Params far(late);
    far.time0 = ZqTraceFormat::MOST_MS;
    far.write(late);
    EXPECT_THAT(
        failureOf([&] { ZqTrace::merge(out, asList({late})); }),
        AllOf(StartsWith("The trace file [" + out.str()), HasSubstr("is none that a trace can hold")));
}

TEST(TraceOps, AlignIsThatOfComparingAll) {
    TestRandom random;
    TRACE_SEED(random);
    int nAligned = 0;
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const TempDir dir;
        const ItemList reference = randomItems(random, random.chance(0.5));
        const ItemList trace = randomItems(random, random.chance(0.5));
        const SxString refPath = makeTrace(dir, "ref", reference, 1000),
                       path = makeTrace(dir, "t", trace, -4);
        const ItemList expected = alignByScan(reference, trace);
        const std::string failure = failureOf([&] { ZqTrace(path).align(refPath); });
        if (expected.empty()) {
            EXPECT_EQ(failure, "Trace alignment failed: Cannot find common blocks to align.");
            EXPECT_EQ(relative(path), trace);
            continue;
        }
        ++nAligned;
        EXPECT_EQ(failure, "");
        EXPECT_EQ(relative(path), expected);
        EXPECT_EQ(Params(path).method, Params::Align);
        EXPECT_EQ(Params(path).time0, -4);
        expectSound(path);
        const ItemList once = itemsOf(path);
        ZqTrace(path).align(path);
        EXPECT_EQ(itemsOf(path), once);
    }
    EXPECT_GT(nAligned, 100);
    const TempDir dir;
    const SxString a = makeTrace(dir, "a", at({{1, 1}})), b = makeTrace(dir, "b", at({{1, 2}}), 0, "x");
    EXPECT_EQ(failureOf([&] { ZqTrace(a).align(b); }), "Cannot align traces: Different build IDs detected.");
}

TEST(TraceOps, TrimKeepAndShift) {
    const TempDir dir;
    const SxString path = makeTrace(dir, "t", at({{1, -5}, {~uint64{2}, 0}, {1, 0}, {2, 7}, {3, 9}}), 100);
    ZqTrace trace;
    EXPECT_THAT(failureOf([&] { trace.trim(); }), StartsWith("Failed to trim trace items: "));
    trace.read(path);
    ZqTrace copy = trace;
    trace.trim();
    trace.write(dir.path("memory/"));
    const ItemList once = at({{1, 95}, {~uint64{2}, 100}, {3, 109}});
    EXPECT_EQ(itemsOf(dir.path("memory/")), once);
    copy.write(dir.path("copy/"));
    EXPECT_EQ(itemsOf(dir.path("copy/")), itemsOf(path));

    // All fields of the record come over; a duration that it lacks is that of the whole trace.
    Params record(path);
    record.guid = "g";
    record.method = Params::Log0;
    record.firstSessionBlockIndex = 2;
    record.write(path);
    ZqTrace(path).trim(dir.path("out/"));
    EXPECT_EQ(itemsOf(dir.path("out/")), once);
    expectSound(dir.path("out/"));
    Params out(dir.path("out/"));
    EXPECT_EQ(out.duration, 14);
    out.pathPrefix = path;
    out.size = record.size;
    out.checksumTrc = record.checksumTrc;
    EXPECT_EQ(out, record);
    {
        // On a full disk, the trace that was to be replaced stays, with its own record.
        out.guid = "another";
        out.write(dir.path("out/"));
        const TreeSnapshot former = dir.snapshot();
        FaultOs os(dir.path());
        os.failNth(Op::Write, 1, ENOSPC, "img.trc");
        EXPECT_THAT(failureOf([&] { ZqTrace(path).trim(dir.path("out/")); }), StartsWith("The trace file ["));
        EXPECT_EQ(dir.snapshot(), former);
    }
    ZqTrace(path).trim(path);
    EXPECT_EQ(itemsOf(path), once);

    const std::tuple<int64, int64, ItemList> spans[] = {
        {-5, 0, at({{1, 95}, {~uint64{2}, 100}})}, {0, 0, at({{~uint64{2}, 100}})}, {1, 9, at({{3, 109}})}};
    for (const auto& [from, to, expected] : spans) {
        ZqTrace(path).trim(dir.path("span/"));
        ZqTrace(dir.path("span/")).dropTime(from, to);
        EXPECT_EQ(itemsOf(dir.path("span/")), expected) << from;
        EXPECT_EQ(Params(dir.path("span/")).duration, 14) << "the record's own stays";
        expectSound(dir.path("span/"));
    }
    const TreeSnapshot before = dir.snapshot();
    for (const auto& span : {std::pair<int64, int64>(1, 0), {10, 99}}) {
        EXPECT_EQ(failureOf([&] { ZqTrace(path).dropTime(span.first, span.second); }),
                  "All items have been dropped, no trace written.");
    }
    EXPECT_EQ(dir.snapshot(), before);

    for (const auto& [seconds, time0] : {std::pair(3, -2900), {-3, 3100}, {0, 100}}) {
        record.write(path);
        const std::string bytes = dir.read("t/img.trc");
        ZqTrace(path).shift(seconds);
        EXPECT_EQ(Params(path).time0, time0);
        EXPECT_EQ(Params(path).method, Params::Shift);
        EXPECT_EQ(dir.read("t/img.trc"), bytes);
    }
    record.time0 = ZqTraceFormat::LEAST_MS;
    record.write(path);
    EXPECT_THAT(failureOf([&] { ZqTrace(path).shift(1); }), HasSubstr("can't be shifted by 1 s"));
}

TEST(TraceOps, Append) {
    const TempDir dir;
    const SxString path = makeTrace(dir, "t", at({{1, 50}, {2, 70}}), 1000), out = dir.path("out/");
    const SxString other =
        makeTrace(dir, "o", at({{2, -8}, {~uint64{1}, -9}, {3, 5}}), 9000, "another build");
    // After time0 and the duration, wherever the first item lies.
    ZqTrace trace(path);
    trace.append(other, out, -1);
    EXPECT_EQ(relative(out), at({{1, 50}, {2, 70}, {2, -980}, {~uint64{1}, -981}, {3, -967}}));
    EXPECT_EQ(trace.getTraceDuration(), -1017);
    EXPECT_EQ(Params(out).checksumMnt, "build");
    EXPECT_EQ(Params(out).method, Params::IncMonitoring);
    EXPECT_EQ(Params(out).time0, 1000);
    expectSound(out);
    // A duration of the record counts, true or not; what is loaded needs no reading.
    Params record(path);
    record.duration = 600;
    record.write(path);
    ZqTrace loaded(path);
    loaded.read(path);
    fs::remove(dir.path("t/img.trc"));
    loaded.append(other, path, 2);
    EXPECT_EQ(relative(path), at({{1, 50}, {2, 70}, {2, 2600}, {~uint64{1}, 2599}, {3, 2613}}));
    EXPECT_EQ(Params(path).duration, 2563);
    const SxString none = makeTrace(dir, "none", {}, 5);
    const ItemList before = itemsOf(path);
    ZqTrace(path).append(none, out, 99);
    EXPECT_EQ(itemsOf(out), before);
    ZqTrace(none).append(other, out, 0);
    EXPECT_EQ(relative(out), at({{2, 0}, {~uint64{1}, -1}, {3, 13}}));

    // A record that lies so far that no time can be told, and a folder that is no trace.
    dir.write("file", "");
    record.duration = ZqTraceFormat::MOST_MS - ZqTraceFormat::LEAST_MS;
    record.write(path);
    const TreeSnapshot tree = dir.snapshot();
    EXPECT_THAT(failureOf([&] { ZqTrace(path).append(other, out, 0); }),
                AllOf(StartsWith("Failed to write " + out.str() + "img.trc trace data: "),
                      HasSubstr(" of block 2 is none that a trace can hold")));
    EXPECT_THAT(failureOf([&] { ZqTrace(none).append(other, dir.path("file/below/"), 0); }),
                StartsWith("Failed to write " + dir.path("file/below/img.trc") + " trace data: "));
    EXPECT_THAT(failureOf([&] { ZqTrace(path).append(dir.path("no/"), out, 0); }),
                StartsWith("Failed to read file " + dir.path("no/trace.json")));
    EXPECT_EQ(dir.snapshot(), tree);
}

TEST(TraceOps, ASeriesStaysOneWhateverIsDoneToIt) {
    const TempDir dir;
    const SxString run = makeTrace(dir, "run", at({{1, 0}, {2, 5}})), patch = dir.path("patch/");
    ZqAppParams app;
    app.checksumMnt = "new build";
    app.write(patch);
    dir.write("patch/map.idx", std::string(4 * 8, '\0'));
    const std::pair<const char*, std::function<void(ZqTrace*, const SxString& path)>> operations[] = {
        {"shift", [](ZqTrace* trace, const SxString&) { trace->shift(1); }},
        {"align", [&](ZqTrace* trace, const SxString&) { trace->align(run); }},
        {"map", [&](ZqTrace* trace, const SxString& path) { trace->mapToImage(patch, path); }},
        {"keep", [](ZqTrace* trace, const SxString&) { trace->dropTime(0, 1); }},
        {"trim", [](ZqTrace* trace, const SxString& path) { trace->trim(path); }},
        {"mend", [](ZqTrace* trace, const SxString&) { trace->mend(); }}};
    const SxString copied = dir.path("copied/");
    ZqTrace(run).trim(copied);
    for (const auto& [name, change] : operations) {
        const SxString series = dir.path("series/");
        ZqTrace(run).append(copied, series, 0);
        const auto sources = Params(series).sources;
        ASSERT_EQ(sources.size(), 2U);
        ZqTrace trace(series), changed(copied);
        // What went in is known by the series, and told from others, whatever happens to either.
        change(&changed, copied);
        ZqTraceOrigins origins;
        origins.add(sources);
        EXPECT_TRUE(origins.holdsFormer(ZqTraceOrigins::self(copied, Params(copied)))) << name;
        ZqTrace(run).trim(copied);
        change(&trace, series);
        EXPECT_EQ(Params(series).sources, sources) << name;
        EXPECT_EQ(Params(series).firstSessionBlockIndex, 0) << name;
        EXPECT_THAT(failureOf([&] { ZqTrace::merge(dir.path("merged/"), asList({series})); }),
                    HasSubstr("holds several runs one after the other"))
            << name;
    }
    EXPECT_FALSE(dir.exists("merged/img.trc"));
}

TEST(TraceOps, ARecordNamesNoMoreThanCanBeReadAgain) {
    const TempDir dir;
    std::vector<ZqTraceOrigins::Source> sources;
    for (size_t i = 0; i <= ZqTraceOrigins::MOST; ++i) {
        const std::string digest = SxMd5::get(SxString(static_cast<uint64>(i))).str();
        sources.push_back({std::string(255, 'n'), digest, std::numeric_limits<uint32_t>::max(),
                           ZqTraceFormat::MOST_MS, digest});
    }
    ZqTraceOrigins origins;
    origins.add(sources);
    origins.add(sources);
    EXPECT_TRUE(origins.holds(sources[0]));
    Params record;
    record.sources = origins.getLatest();
    ASSERT_EQ(record.sources.size(), ZqTraceOrigins::MOST);
    EXPECT_EQ(record.sources.back(), sources.back());
    record.write(dir.prefix());
    EXPECT_TRUE(Params(dir.prefix()).sources == record.sources);
}

TEST(TraceOps, RunsAreThoseOfAMapOfAllBlocks) {
    TestRandom random;
    TRACE_SEED(random);
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const TempDir dir;
        ItemList items = randomItems(random, true);
        items.emplace_back(random.below(30), 100, false);
        // Far up, where no table by block can be had.
        for (ZqTraceItem& item : items)
            item.block += round % 2 ? uint64{1} << 62 : 0;
        const SxString path = makeTrace(dir, "t", items, 333);
        const SxList<ZqSequence> runs = ZqTrace(path).traceToSequence();
        EXPECT_TRUE(std::vector<ZqSequence>(runs.begin(), runs.end()) == runsByMap(items));
        std::vector<uint64> blocks, expected;
        for (const ZqTraceItem& item : ZqTrace::sequenceToTrace(runs))
            blocks.push_back(item.block);
        for (const ZqTraceItem& item : unique(items))
            expected.push_back(item.block);
        EXPECT_EQ(blocks, expected);
    }
    const TempDir dir;
    const SxString path = makeTrace(dir, "t", at({{5, 3}, {6, 4}, {7, 5}, {20, 6}, {8, 9}, {4, 9}}), 10);
    const auto runs = ZqTrace(path).traceToSequence();
    EXPECT_EQ(runs(0).nFollowing, 2);
    EXPECT_EQ(runs(0).jump, 1);
    EXPECT_EQ(runs(0).jumpTime, 9);
    EXPECT_EQ(runs(0).time, 0);
    EXPECT_EQ(runs(1).jump, 0);
    EXPECT_EQ(runs(2).jump, 0);
    const auto items = ZqTrace::sequenceToTrace(runs);
    EXPECT_EQ(toVector(items), at({{5, 0}, {6, 0}, {7, 0}, {20, 6}, {8, 9}, {4, 9}}));

    EXPECT_THAT(failureOf([&] { ZqTrace(makeTrace(dir, "none", {})).traceToSequence(); }),
                HasSubstr("none/' has no items"));
    for (const int64 nFollowing : {int64{-1}, std::numeric_limits<int64>::max()}) {
        ZqSequence run(0);
        run.nFollowing = nFollowing;
        EXPECT_THAT(failureOf([&] { ZqTrace::sequenceToTrace({run}); }), HasSubstr("The run at block 0 "));
    }
    EXPECT_EQ(ZqSequence(-1).block, ONES);
}

TEST(TraceOps, MergeDiff) {
    const TempDir dir;
    const SxString ref = makeTrace(dir, "r", at({{1, 0}, {2, 10}, {1, 11}, {3, 20}}), 500);
    // Earlier and known, equal in time, earlier and new, known already, after the end.
    const SxString other =
        makeTrace(dir, "o", at({{3, 5}, {2, 10}, {7, 15}, {1, 16}, {3, 18}, {8, 30}, {9, 31}}), 9);
    EXPECT_THAT(logOf([&] { ZqTrace(ref).mergeDiff(other); }),
                ElementsAre("3 items in reference trace.", "6 items in new       trace.",
                            "3 new items identified.",
                            "2 items will be inserted/modified in the reference trace.",
                            "This is a change of 66.7 % of the reference trace.",
                            "2 items will be appended to the reference trace."));
    const auto same = ZqTrace(ref).compare(ref);
    EXPECT_EQ(same.nIdentified + same.nInserted + same.nAppended, 0);
    EXPECT_THAT(logOf([&] { ZqTrace(ref).mergeDiff(ref); }),
                testing::Contains("This is a change of  0.0 % of the reference trace."));
}

TEST(TraceOps, MapToImage) {
    const TempDir dir;
    const SxString patch = dir.path("patch/"), out = dir.path("out/");
    ZqAppParams app;
    app.checksumMnt = "new build";
    app.write(patch);
    const auto map = [&](const std::vector<uint64>& entries, size_t rest = 0) {
        dir.write("patch/map.idx",
                  std::string(reinterpret_cast<const char*>(entries.data()), entries.size() * 8) +
                      std::string(rest, 'x'));
    };
    const SxString path =
        makeTrace(dir, "t", at({{0, 1}, {~uint64{2}, 2}, {1, 3}, {0, 4}, {3, 5}, {9, 6}}), 7);
    Params record(path);
    record.guid = "g";
    record.checksumIdx = "idx";
    record.firstSessionBlockIndex = 3;
    record.duration = 0;
    record.write(path);
    const TreeSnapshot tree = dir.snapshot();
    const std::string mapFile = dir.path("patch/map.idx"),
                      cannot = "Cannot read patch map: " + mapFile + ": ";
    EXPECT_EQ(failureOf([&] { ZqTrace(path).mapToImage(patch, out); }), cannot + "Missing file " + mapFile);
    EXPECT_THAT(failureOf([&] { ZqTrace(path).mapToImage(dir.path("no/"), out); }),
                StartsWith("Cannot read app parameters from " + dir.path("no/") + ": "));
    EXPECT_EQ(dir.snapshot(), tree);

    // Repeats stay; a block that went and one that never was are lost.
    map({10, ONES, 5, 0}, 7);
    EXPECT_THAT(logOf([&] { ZqTrace(path).mapToImage(patch, out); }),
                ElementsAre(HasSubstr("+---"), "Result of Trace Analysis", HasSubstr("+---"),
                            "Number of analyzed Items:          6",
                            "Number of mapped   Items:          4 ( 66.7 %)",
                            "Number of lost     Items:          2 ( 33.3 %)", HasSubstr("+---")));
    EXPECT_EQ(relative(out), at({{10, 1}, {~uint64{5}, 2}, {10, 4}, {0, 5}}));
    expectSound(out);
    Params mapped(out);
    EXPECT_EQ(mapped.duration, 4) << "of what is left, since the record has none";
    EXPECT_EQ(mapped.method, Params::Patch);
    EXPECT_EQ(mapped.checksumMnt, "new build");
    EXPECT_EQ(std::tie(mapped.guid, mapped.checksumIdx, mapped.firstSessionBlockIndex, mapped.time0),
              std::tie(record.guid, record.checksumIdx, record.firstSessionBlockIndex, record.time0));
    EXPECT_EQ(failureOf([&] { ZqTrace(out).mapToImage(patch, out); }), "Trace already based on new image.");

    map({uint64{1} << 63, 0, 0, 0});
    EXPECT_EQ(failureOf([&] { ZqTrace(path).mapToImage(patch, out); }),
              "The patch map " + mapFile +
                  " is damaged: entry 0 names block 9223372036854775808, which no disk has");
    // In place, with nothing left.
    map({ONES, ONES});
    EXPECT_THAT(logOf([&] { ZqTrace(path).mapToImage(patch, path); }),
                testing::Contains("Number of lost     Items:          6 (100.0 %)"));
    EXPECT_EQ(dir.read("t/img.trc"), "");
    EXPECT_EQ(Params(path).checksumMnt, "new build");
}
