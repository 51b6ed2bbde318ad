#include "BaseTest.h"
#include "Builders.h"
#include "SxFSAction.h"
#include "SxJSONParser.h"
#include "SxMd5.h"
#include "SxTimer.h"
#include "VirtualClock.h"
#include "ZqLog.h"
#include "ZqTimers.h"
#include "ZqTrace.h"

#include <set>

namespace {

constexpr uint64 FLAG = uint64{1} << 63;
/// The file time of 1970.
constexpr uint64 T0 = 116444736000000000;

/// A record of img.trc.
std::string record(uint64 block, uint64 fileTime) {
    std::string bytes;
    for (const uint64 field : {block, fileTime}) {
        for (int byte = 0; byte < 8; ++byte)
            bytes += static_cast<char>(field >> (8 * byte));
    }
    return bytes;
}

/// img.trc of blocks, one every second; with FLAG as the mark.
std::string trc(const std::vector<uint64>& blocks) {
    std::string bytes;
    for (const uint64 block : blocks)
        bytes += record(block, T0 + bytes.size() / 16 * 10'000'000);
    return bytes;
}

std::vector<ZqTraceItem> toVector(const SxPtr<ZqTrace::Items>& items) {
    return {items->begin(), items->end()};
}

SxPtr<ZqTrace::Items> toItems(std::initializer_list<ZqTraceItem> list) {
    return SxPtr<ZqTrace::Items>::create(list);
}

/// Blocks of the items, the mark in bit 63.
std::vector<uint64> blocksOf(const SxPtr<ZqTrace::Items>& items) {
    std::vector<uint64> blocks;
    for (const ZqTraceItem& item : *items) {
        EXPECT_TRUE(item.valid);
        blocks.push_back(item.block | (item.flag ? FLAG : 0));
    }
    return blocks;
}

/// Cuts a file before its `nth` read.
class ShrinkingOs : public FaultOs {
public:
    ShrinkingOs(const TempDir& dir, int nth, uintmax_t size)
        : FaultOs(dir.path()),
          file(dir.path("img.trc")),
          reads(nth),
          shorter(size) {}
    int64 readAt(int fd, void* buffer, int64 n, int64 offset) override {
        if (--reads == 0) fs::resize_file(file, shorter);
        return FaultOs::readAt(fd, buffer, n, offset);
    }

private:
    std::string file;
    int reads;
    uintmax_t shorter;
};

} // namespace

TEST(Trace, RecordsOnFile) {
    constexpr uint64 MOST = ~uint64{0};
    const struct {
        uint64 block, fileTime;
        ZqTraceItem item;
    } cases[] = {
        {7, T0, {7, 0, false}},
        {FLAG | 7, T0 + 10'000, {7, 1, true}},
        {0, T0 + 19'999, {0, 1, false}},
        {0, T0 - 1, {0, MOST, false}},                                 // -1: rounded down
        {FLAG - 1, 9'999, {FLAG - 1, 0 - 11644473600000U, false}},     // 1601
        {MOST, MOST, {FLAG - 1, MOST / 10'000 - 11644473600000, true}} // the year 60056
    };
    const TempDir dir;
    std::string bytes, rounded;
    std::vector<ZqTraceItem> expected;
    for (const auto& [block, fileTime, item] : cases) {
        bytes += record(block, fileTime);
        rounded += record(block, fileTime / 10'000 * 10'000);
        expected.push_back(item);
    }
    // What a killed writer leaves of a record is passed over.
    for (const size_t rest : {0U, 7U, 8U, 15U}) {
        SCOPED_TRACE(rest);
        dir.write("img.trc", bytes + std::string(rest, '\x7f'));
        EXPECT_EQ(toVector(ZqTrace::getItems(dir.prefix(), false, true, true)), expected);
        SxFileIO file(dir.path("img.trc"), "rb");
        EXPECT_EQ(toVector(ZqTrace::readItems(&file)), expected);
        file.seek(0);
        for (const ZqTraceItem& item : expected)
            EXPECT_EQ(ZqTrace::readItem(&file), item);
        EXPECT_EQ(ZqTrace::readItem(&file), ZqTraceItem());
        ZqTrace trace;
        trace.read(dir.prefix());
        trace.write(dir.path("again/"));
        EXPECT_EQ(dir.read("again/img.trc"), rounded);
        EXPECT_EQ(trace.getTraceDuration(), ZqTrace::getTraceDuration(dir.prefix()));
    }
    EXPECT_FALSE(dir.exists("again/trace.json"));
    for (const size_t size : {0U, 15U, 16U}) {
        dir.write("img.trc", std::string(size, '\0'));
        EXPECT_EQ(ZqTrace(dir.prefix()).getNItems(true), size / 16);
        EXPECT_EQ(ZqTrace::getTraceDuration(dir.prefix()), 0);
    }
}

TEST(Trace, WritersPassOverHolesAndRefuseTimesWithoutARecord) {
    const TempDir dir;
    SxFileIO file(dir.path("img.trc"), "wb");
    ZqTrace::writeItem(&file, ZqTraceItem());
    ZqTrace::writeItem(&file, ZqTraceItem(FLAG | 1, 0, false));
    ZqTrace::writeItems(&file, toItems({{}, {2, 1000, true}, {}, {3, 2000, false}}));
    EXPECT_EQ(dir.read("img.trc"), trc({FLAG | 1, FLAG | 2, 3}));
    for (const int64 time : {-11644473600001, int64{1833029933770956}, std::numeric_limits<int64>::max()}) {
        const ZqTraceItem item(5, static_cast<uint64>(time), true);
        const std::string fault = "The time " + std::to_string(time) + " of block 5 is none";
        EXPECT_THAT(failureOf([&] { ZqTrace::writeItem(&file, item); }), StartsWith(fault));
        EXPECT_THAT(failureOf([&] { ZqTrace::writeItems(&file, toItems({item})); }),
                    AllOf(StartsWith("Failed to write trace data to " + file.getFilePath().str() + ": "),
                          HasSubstr(fault)));
    }
    EXPECT_EQ(fs::file_size(dir.path("img.trc")), 48U);
}

TEST(Trace, Filter) {
    const TempDir dir;
    const std::vector<uint64> all = {1, FLAG | 2, 1, 2, FLAG | 1, FLAG | 2, 3};
    dir.write("img.trc", trc(all));
    const struct {
        bool unique, unflagged, flagged;
        std::vector<uint64> blocks;
    } cases[] = {{false, true, true, all},
                 {false, true, false, {1, 1, 2, 3}},
                 {false, false, true, {FLAG | 2, FLAG | 1, FLAG | 2}},
                 {true, true, true, {1, FLAG | 2, 3}},
                 {true, true, false, {1, 2, 3}}, // the 2 that was dropped doesn't count as seen
                 {true, false, true, {FLAG | 2, FLAG | 1}},
                 {true, false, false, {}}};
    for (const auto& [unique, unflagged, flagged, blocks] : cases) {
        EXPECT_EQ(blocksOf(ZqTrace(dir.prefix()).getItems(unique, unflagged, flagged)), blocks)
            << unique << unflagged << flagged;
    }
    EXPECT_GT(SxTimer::getGlobalTimer().getElapsedNs(SxTimer::getTimerId(Timer::TraceTimer::ReadItems)), 0);
}

TEST(Trace, UniqueIsThatOfASetWhateverTheIndices) {
    TestRandom random;
    TRACE_SEED(random);
    const TempDir dir;
    for (const uint64 factor : {uint64{1}, uint64{1} << 20, uint64{1} << 40, uint64{2'000'003}}) {
        std::vector<uint64> blocks, expected;
        std::set<uint64> seen;
        for (int i = 0; i < 200'000; ++i) {
            const uint64 block = random.below(60'000) * factor;
            blocks.push_back(block | (random.chance(0.1) ? FLAG : 0));
            if (seen.insert(block).second) expected.push_back(blocks.back());
        }
        dir.write("img.trc", trc(blocks));
        EXPECT_TRUE(blocksOf(ZqTrace::getItems(dir.prefix(), true, true, true)) == expected) << factor;
    }
}

TEST(Trace, ReadingInChunks) {
    constexpr int64 CHUNK = 65536;
    const TempDir dir;
    for (const int64 n : {CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK + 5}) {
        std::vector<uint64> blocks;
        for (int64 i = 0; i < n; ++i)
            blocks.push_back(static_cast<uint64>(i * 3));
        dir.write("img.trc", trc(blocks) + "rest");
        SxFileIO file(dir.path("img.trc"), "rb");
        file.seek(5);
        EXPECT_TRUE(blocksOf(ZqTrace::readItems(&file)) == blocks) << n;
    }
    // The file loses its end while it is read. In the last chunk that leaves holes; in an earlier one it is a
    // failure.
    ZqTrace trace;
    {
        const ShrinkingOs os(dir, 3, (2 * CHUNK + 2) * 16 + 7);
        SxFileIO file(dir.path("img.trc"), "rb");
        const auto items = toVector(ZqTrace::readItems(&file));
        EXPECT_EQ(items.size(), 2 * CHUNK + 5);
        EXPECT_TRUE(items[2 * CHUNK + 1].valid && items[2 * CHUNK + 2] == ZqTraceItem());
    }
    {
        const ShrinkingOs os(dir, 2, CHUNK * 24);
        EXPECT_EQ(failureOf([&] { trace.read(dir.prefix()); }),
                  "Failed to read " + dir.path("img.trc") + " trace data: Cannot read trace data");
    }
    const ShrinkingOs os(dir, 1, CHUNK);
    EXPECT_EQ(failureOf([&] { ZqTrace::getItems(dir.prefix(), false, true, true); }),
              "Cannot read trace items from " + dir.path("img.trc") + ": Invalid number of items read");
}

TEST(Trace, FailuresNameFileAndCause) {
    const TempDir dir;
    ZqTrace trace(dir.prefix());
    const std::string file = dir.path("img.trc");
    EXPECT_EQ(failureOf([&] { trace.getItems(true, true, true); }),
              "Cannot trace data. File '" + file + "' not found!");
    EXPECT_EQ(failureOf([&] { trace.read(dir.prefix()); }), "Trace file " + file + " not found");
    EXPECT_THAT(failureOf([&] { trace.write(dir.prefix()); }),
                StartsWith("Failed to write " + file + " trace data: "));
    EXPECT_EQ(ZqTrace::getTraceDuration(dir.prefix()), 0);

    dir.write("img.trc", trc({1, 2}));
    FaultOs os(dir.path());
    SxFileIO open(file, "rb");
    const std::tuple<int, std::function<void()>, std::string> cases[] = {
        {1, [&] { ZqTrace::readItem(&open); }, "Failed to read trace item block index: "},
        {2, [&] { ZqTrace::readItem(&open); }, "Failed to read trace item file time: "},
        {1, [&] { trace.read(dir.prefix()); }, "Failed to read " + file + " trace data: "},
        {1, [&] { trace.getNItems(false); }, "Cannot read trace items from " + file + ": "},
        {2, [&] { ZqTrace::getTraceDuration(dir.prefix()); },
         "Cannot evaluate duration for trace " + dir.prefix().str() + ": "}};
    for (const auto& [nth, action, text] : cases) {
        os.failNth(Op::Read, nth, EIO);
        EXPECT_THAT(failureOf(action), AllOf(StartsWith(text), HasSubstr("Input/output error")));
    }
}

TEST(Trace, PageSize) {
    // Each burst: first time in milliseconds, number of blocks, one each millisecond.
    using Bursts = std::vector<std::pair<uint64, uint64>>;
    const std::pair<Bursts, uint64> cases[] = {
        {{}, 0},
        {{{0, 244}}, 0},
        {{{0, 245}}, 1}, // 1003520 bytes: a burst up to the end counts where it is the only one
        {{{0, 300}, {2000, 601}, {9000, 1}}, 3}, // 600 count, 301 come before them: one page
        {{{0, 1000}, {9000, 1000}, {20000, 1101}, {30000, 1}}, 6}, // 1100 of 3101: two pages
        {{{0, 3000}, {9000, 601}, {19000, 1}}, 12},
        {{{0, 601}, {9000, 602}, {19000, 1}}, 2}, // of equal ones the first
        {{{0, 300}, {1298, 300}, {9000, 1}}, 2},  // 999 ms are no gap
        {{{5000, 300}, {0, 300}, {9000, 1}}, 1}}; // going back is one
    for (const auto& [bursts, expected] : cases) {
        const TempDir dir;
        std::string bytes;
        uint64 block = 0;
        for (const auto& [time, n] : bursts) {
            for (uint64 i = 0; i < n; ++i) {
                bytes += record(block++, T0 + (time + i) * 10'000);
                bytes += record(FLAG | (block + 7777), 0) + record(0, T0);
            }
        }
        dir.write("img.trc", bytes);
        EXPECT_EQ(ZqTrace(dir.prefix()).getPageSizeMB(), expected) << testing::PrintToString(bursts);
    }
}

TEST(Trace, FinishingWritesItemsAndRecord) {
    const VirtualClock clock(1'000'000);
    const TempDir dir;
    const SxString path = dir.path("deep/er/");
    const auto blocks = SxPtr<SxArray<uint64>>::create(SxArray<uint64>{4, FLAG | 5, 4});
    const auto times = SxPtr<SxArray<uint64>>::create(SxArray<uint64>{0, 1000, 2000});
    const std::string bytes = trc({4, FLAG | 5, 4});
    EXPECT_TRUE(ZqTrace::write(blocks, times, path, ZqTraceParams::Monitoring, "build"));
    EXPECT_EQ(dir.read("deep/er/img.trc"), bytes);
    const auto json = [&] {
        SxJSONParser parser;
        parser.readFile(path + "trace.json");
        return parser.getRootSymbol().toJson().str();
    };
    EXPECT_EQ(json(), R"({"version":2,"time0":1000000,"method":"monitoring","size":48,"duration":2000,)"
                      R"("checksums":{"mnt":"build","trc":")" +
                          SxMd5::get(bytes).str() + "\"}}");
    // What the record says beyond that stays.
    ZqTraceParams record(path);
    record.guid = "g";
    record.time0 = 5;
    record.firstSessionBlockIndex = 3;
    record.checksumIdx = "idx";
    record.write();
    EXPECT_TRUE(ZqTrace::write(toItems({{}, {9, 7, false}}), path, ZqTraceParams::Shift, "other"));
    record.size = 16;
    record.method = ZqTraceParams::Shift;
    record.checksumMnt = "other";
    record.checksumTrc = SxMd5::file(path + "img.trc");
    EXPECT_EQ(ZqTraceParams(path), record);
    // A plain list begins a new one.
    EXPECT_TRUE(ZqTrace::write(blocks, path, "build"));
    EXPECT_EQ(json(), R"({"version":2,"time0":1000000,"method":"filescan","size":48,)"
                      R"("checksums":{"mnt":"build","trc":")" +
                          SxMd5::file(path + "img.trc").str() + "\"}}");
    EXPECT_EQ(toVector(ZqTrace::getItems(path, false, true, true))[1], ZqTraceItem(5, 1'000'000, true));

    dir.write("deep/er/trace.json", "{");
    EXPECT_THAT(failureOf([&] { ZqTrace::write(toItems({}), path, ZqTraceParams::Set, ""); }),
                StartsWith("The trace meta information [" + path.str() +
                           "trace.json] cannot be written.: Failed to read file "));
    EXPECT_THAT(failureOf([&] { ZqTrace::write(blocks, times, path, ZqTraceParams::Set, ""); }),
                StartsWith("Failed to read file "));
    times->resize(2, true);
    EXPECT_EQ(failureOf([&] { ZqTrace::write(blocks, times, path, ZqTraceParams::Set, ""); }),
              "Cannot write trace file " + path.str() + "img.trc");
}

TEST(Trace, AFailedWriteLeavesWholeFiles) {
    for (const Op op : {Op::Open, Op::Write, Op::Sync, Op::Rename, Op::Close, Op::SyncDir}) {
        for (int nth = 1, nFailed = 1; nFailed > 0; ++nth) {
            SCOPED_TRACE(testing::PrintToString(std::pair(static_cast<int>(op), nth)));
            const TempDir dir;
            const std::string old = trc({1, 2}), now = trc({3});
            dir.write("watched/img.trc", old);
            ZqTraceParams().write(dir.path("watched/"));
            std::string failure;
            {
                FaultOs os(dir.path("watched"));
                os.failNth(op, nth, EIO);
                failure = failureOf([&] {
                    ZqTrace::write(toItems({{3, 0, false}}), dir.path("watched/"), ZqTraceParams::Set, "");
                });
                nFailed = static_cast<int>(os.getNFailed());
            }
            const bool isOld = dir.read("watched/img.trc") == old;
            EXPECT_TRUE(isOld || dir.read("watched/img.trc") == now);
            EXPECT_TRUE(!isOld || failure.starts_with("The trace file [")) << failure;
            EXPECT_TRUE(ZqTraceParams::isValid(dir.path("watched/")));
            EXPECT_EQ(dir.snapshot("watched").size(), 2U) << "something is left over";
        }
    }
}

TEST(Trace, RecordOfARunningTrace) {
    const TempDir dir;
    const std::string lean = R"({"version": 2, "time0": -1, "method": "LOG0", "checksums": {}})";
    EXPECT_FALSE(ZqTraceParams::isValid(dir.prefix()));
    dir.write("trace.json", lean);
    EXPECT_TRUE(ZqTraceParams::isValid(dir.prefix()));
    ZqTraceParams record(dir.prefix());
    EXPECT_TRUE(record.duration == 0 && record.time0 == -1 && record.method == ZqTraceParams::Log0);
    dir.write("img.trc", trc({1, 2, 3}) + "cut");
    record.guid = "kept";
    record.firstSessionBlockIndex = 4;
    record.read();
    EXPECT_TRUE(record.duration == 2000 && record.guid == "kept" && record.firstSessionBlockIndex == 0);

    record.method = static_cast<ZqTraceParams::Method>(10);
    EXPECT_EQ(failureOf([&] { record.write(); }),
              "Failed to write file" + dir.path("trace.json") + ": Unkown Trace method");

    std::string logged;
    ZqLog::setSink([&](const SxString& channel, const SxString& text) { logged += channel + ": " + text; });
    FaultOs os(dir.path());
    os.failNth(Op::Read, 1, EIO, "img.trc");
    record.read();
    ZqLog::setSink(nullptr);
    EXPECT_EQ(record.duration, 0);
    EXPECT_EQ(logged, "base: Cannot read trace duration of active trace. Set to 0.");
}
