#include "FaultOs.h"
#include "MountTest.h"
#include "SxFileInfo.h"
#include "SxMd5.h"
#include "ZqImageLock.h"
#include "ZqTrace.h"
#include "ZqTraceBuilder.h"
#include "ZqTraceOrigins.h"
#include "ZqTraceRecords.h"

#include <set>

namespace {

using ItemList = std::vector<ZqTraceItem>;

/// An image whose traces are swept.
class Sweep : public Machine {
public:
    const std::string traces = "image/traces/";

    SxString folder(const std::string& run) const { return dir.path(traces + run) + "/"; }

    /// A run of blocks, one each millisecond, from 5 ms after its start on.
    void makeRun(const std::string& run, int64 time0, const std::vector<uint64>& blocks) const {
        ItemList items;
        for (const uint64 block : blocks)
            items.emplace_back(block, static_cast<uint64>(time0) + 5 + items.size(), false);
        makeTrace(run, time0, items);
    }
    void makeTrace(const std::string& run, int64 time0, const ItemList& items) const {
        ZqTraceParams record;
        record.time0 = time0;
        record.checksumMnt = app.checksumMnt;
        record.write(folder(run));
        const auto list = SxPtr<ZqTrace::Items>::create();
        for (const ZqTraceItem& item : items)
            list->append(item);
        SxFileIO file(folder(run) + "img.trc", "wb");
        ZqTrace::writeItems(&file, list);
    }
    /// As one that a former version has joined: it doesn't name what went in.
    void makeSeries(const std::string& run) const {
        ZqTraceParams record(folder(run));
        record.method = ZqTraceParams::IncMonitoring;
        record.write();
    }
    ItemList itemsOf(const std::string& run) const {
        const auto items = ZqTrace::getItems(folder(run), false, true, true);
        return {items->begin(), items->end()};
    }
    std::string sourcesOf(const std::string& run) const {
        std::string names;
        for (const ZqTraceParams::Source& source : ZqTraceParams(folder(run)).sources)
            names += source.name.str() + " ";
        return names;
    }
    std::vector<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(dir.path(traces)))
            found.insert(entry.path().filename().string());
        return {found.begin(), found.end()};
    }
    /// Gives the failure; `stopped` tells whether it gave up.
    std::string sweep(bool* stopped = nullptr, const SxString& run = "merged") {
        ZqTraceBuilder builder(image, dir.path(traces), run);
        builder.start();
        builder.wait();
        if (stopped) *stopped = builder.stopRequested();
        nJoined = builder.getNJoined();
        nHeld = builder.getNHeld();
        nCorrupted = builder.getNCorrupted();
        refusal = builder.getRefusal();
        left.clear();
        for (const ZqTraceBuilder::Left& one : builder.getLeft())
            left[one.name.str()] = one.why.str();
        removed = {builder.getRemoved().begin(), builder.getRemoved().end()};
        return builder.hasException() ? builder.getException().what() : "";
    }

    int64 nJoined = 0, nHeld = 0, nCorrupted = 0;
    SxString refusal;
    std::map<std::string, std::string> left; ///< why, by name
    std::vector<SxString> removed;
};

/// The same by appending folder by folder, with all that it says going through files.
std::pair<std::string, ZqTraceParams> appendOneByOne(const TempDir& dir, const std::vector<SxString>& runs) {
    const SxString work = dir.path("work/");
    ZqTrace base(runs[0]);
    ZqTraceParams record(runs[0]);
    base.read(runs[0]);
    base.write(work);
    record.write(work);
    base = ZqTrace(work);
    base.read(work);
    for (size_t i = 1; i < runs.size(); ++i) {
        base.read(work);
        record.firstSessionBlockIndex = base.getNItems(true);
        base.append(runs[i], work, 0);
    }
    // The work folder isn't one that went in.
    record.sources.clear();
    for (const SxString& run : runs)
        record.sources.push_back(ZqTraceOrigins::self(run, ZqTraceParams(run)));
    record.duration = base.getTraceDuration();
    base.trim();
    base.write(work);
    record.method = ZqTraceParams::IncMonitoring;
    record.size = SxFileInfo(work + "img.trc").getSize();
    record.checksumTrc = SxMd5::file(work + "img.trc");
    record.write(work);
    return {dir.read("work/img.trc") + dir.read("work/trace.json"), record};
}

} // namespace

TEST(TraceBuilder, IsThatOfAppendingRunByRun) {
    TestRandom random;
    TRACE_SEED(random);
    for (int round = 0; round < 40 && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        Sweep sweep;
        std::map<int64, SxString> runs;
        for (uint64 k = random.between(2, 6); k > 0; --k) {
            const std::string name = "run" + std::to_string(k);
            const auto time0 = static_cast<int64>(random.below(100'000));
            if (runs.count(time0)) continue;
            ItemList items;
            int64 time = time0 + static_cast<int64>(random.below(50)) - 20;
            for (uint64 n = random.between(k == 2 ? 0 : 1, 30); n > 0; --n) {
                time += static_cast<int64>(random.below(9)) - 2;
                items.emplace_back(random.below(40), static_cast<uint64>(time), random.chance(0.2));
            }
            sweep.makeTrace(name, time0, items);
            if (items.empty()) sweep.dir.write(sweep.traces + name + "/img.trc", "rest");
            if (random.chance(0.3)) {
                ZqTraceParams record(sweep.folder(name));
                record.duration = static_cast<int64>(random.below(500)); // true or not
                record.write();
            }
            runs[time0] = sweep.folder(name);
        }
        if (runs.size() < 2) continue;
        std::vector<SxString> inOrder;
        for (const auto& [time0, path] : runs)
            inOrder.push_back(path);
        const auto [expected, record] = appendOneByOne(sweep.dir, inOrder);
        EXPECT_EQ(sweep.sweep(), "");
        EXPECT_EQ(sweep.nJoined, static_cast<int64>(runs.size()));
        EXPECT_EQ(sweep.names().size(), runs.size() + 1);
        EXPECT_EQ(sweep.dir.read(sweep.traces + "merged/img.trc") +
                      sweep.dir.read(sweep.traces + "merged/trace.json"),
                  expected);
        EXPECT_EQ(sweep.dir.snapshot(sweep.traces + "merged").size(), 2U);
    }
}

TEST(TraceBuilder, RunsAddUpOverTime) {
    Sweep sweep;
    bool stopped = true;
    sweep.makeRun("b", 300, {1, 9});
    EXPECT_EQ(sweep.sweep(&stopped), "");
    EXPECT_FALSE(stopped);
    EXPECT_EQ(sweep.nLogged("ZqTraceBuilder::main: Nothing to merge"), 1);
    EXPECT_THAT(sweep.names(), ElementsAre("b"));

    sweep.makeRun("a", 100, {1, 2, 1, 3});
    sweep.makeRun("z", 200, {3, 4});
    TreeSnapshot runs = sweep.dir.snapshot(sweep.traces);
    EXPECT_EQ(sweep.sweep(&stopped), "");
    EXPECT_FALSE(stopped);
    EXPECT_THAT(sweep.names(), ElementsAre("a", "b", "merged", "z"));
    TreeSnapshot now = sweep.dir.snapshot(sweep.traces);
    std::erase_if(now, [](const auto& entry) { return entry.first.starts_with("merged"); });
    EXPECT_EQ(now, runs) << "the runs serve an order, and stay";
    EXPECT_EQ(sweep.itemsOf("merged").size(), 5U);
    ZqTraceParams record(sweep.folder("merged"));
    EXPECT_EQ(record.firstSessionBlockIndex, 4);
    EXPECT_EQ(record.time0, 100);
    EXPECT_GT(sweep.nLogged("Base trace " + sweep.folder("a").str()), 0);
    EXPECT_GT(sweep.nLogged("Appending trace " + sweep.folder("z").str()), 0);
    EXPECT_EQ(sweep.nLogged("Removing trace folder"), 0);
    EXPECT_EQ(sweep.nHeld, 0);

    // The former result comes first, as the oldest, and what is in it isn't joined again.
    sweep.makeRun("c", 400, {8, 1});
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_THAT(sweep.names(), ElementsAre("a", "b", "c", "merged", "z"));
    EXPECT_EQ(sweep.nJoined, 2);
    EXPECT_EQ(sweep.nHeld, 3);
    EXPECT_EQ(sweep.itemsOf("merged").size(), 6U);
    EXPECT_EQ(sweep.itemsOf("merged").back().block, 8U);
    record.read(sweep.folder("merged"));
    EXPECT_EQ(record.firstSessionBlockIndex, 5);
    EXPECT_EQ(sweep.sourcesOf("merged"), "a z b c ");
    EXPECT_THAT(sweep.removed, IsEmpty());
    runs = sweep.dir.snapshot(sweep.traces);
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.dir.snapshot(sweep.traces), runs) << "joined twice";
    EXPECT_EQ(sweep.nHeld, 4);
}

TEST(TraceBuilder, WhatIsDamagedGoesAndWhatIsNoTraceStays) {
    Sweep sweep;
    constexpr int64 LATE = 1'700'000'000'000'000;
    sweep.makeRun("good", LATE, {5, 5, 6});
    sweep.makeRun("empty", 1, {7});
    fs::resize_file(sweep.dir.path(sweep.traces + "empty/img.trc"), 0);
    sweep.makeRun("cut", 2, {7});
    sweep.dir.write(sweep.traces + "cut/trace.json", R"({"version": 2, "ti)");
    sweep.makeRun("without items", 3, {7});
    fs::remove(sweep.dir.path(sweep.traces + "without items/img.trc"));
    // The first of all. Joined to it, the good one could no longer be used.
    sweep.makeRun("wild", 0, {7, uint64{1} << 51});
    fs::create_directory(sweep.dir.path(sweep.traces + "nothing"));
    sweep.dir.write(sweep.traces + "half/img.trc.tmp", "of a sweep that was cut off");
    // After the good one its times would lie where no record reaches.
    sweep.makeTrace("far", LATE + 1, {{1, 5, false}, {2, static_cast<uint64>(LATE), false}});
    sweep.dir.write(sweep.traces + "letters/dear.txt", "precious");
    sweep.makeRun("mixed", LATE - 1000, {8});
    sweep.makeSeries("mixed");
    sweep.dir.write(sweep.traces + "mixed/notes.txt", "precious");
    sweep.makeRun("mixed/older", 5, {9});
    sweep.dir.write(sweep.traces + "note.txt", "a file");
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nJoined, 2);
    EXPECT_EQ(sweep.itemsOf("merged").size(), 3U);
    EXPECT_EQ(sweep.nLogged("ZqTraceBuilder::main: Corrupted trace"), sweep.nCorrupted);
    EXPECT_EQ(sweep.nCorrupted, 5);
    EXPECT_THAT(sweep.names(), ElementsAre("far", "good", "letters", "merged", "mixed", "note.txt", "wild"));
    EXPECT_EQ(sweep.dir.read(sweep.traces + "mixed/notes.txt"), "precious");
    EXPECT_EQ(sweep.itemsOf("mixed/older").size(), 1U);
    EXPECT_FALSE(fs::exists(sweep.dir.path(sweep.traces + "mixed/img.trc"))) << "it would be joined again";
    EXPECT_THAT(sweep.left["mixed"], HasSubstr("what else it holds stays"));
    EXPECT_THAT(sweep.removed,
                testing::UnorderedElementsAre("empty", "cut", "without items", "nothing", "half"));
    EXPECT_THAT(sweep.left["wild"], HasSubstr("which no disk has"));
    EXPECT_THAT(sweep.left["far"], HasSubstr("times that no trace can hold"));

    // Nothing that can be read at all: the folders go, no result comes.
    Sweep hopeless;
    for (const char* name : {"a", "b", "merged"})
        hopeless.dir.write(hopeless.traces + name + "/trace.json", "{");
    EXPECT_EQ(hopeless.sweep(), "");
    EXPECT_THAT(hopeless.names(), IsEmpty());
    EXPECT_EQ(hopeless.nCorrupted, 3);
}

TEST(TraceBuilder, SoundRunsThatArentJoinedStayAndAreNamed) {
    Sweep sweep;
    const auto change = [&](const std::string& run, const std::function<void(ZqTraceParams*)>& set) {
        ZqTraceParams record(sweep.folder(run));
        set(&record);
        record.write();
    };
    const auto ofBuild = [](const char* build) {
        return [build](ZqTraceParams* record) { record->checksumMnt = build; };
    };
    sweep.makeRun("1 old", 100, {1, 2});
    sweep.makeRun("merged", 50, {3});
    for (const char* run : {"1 old", "merged"})
        change(run, ofBuild("0123456789"));
    for (const auto& [run, time0] : {std::pair("2 a", 200), {"3 b", 300}, {"3 c", 300}, {"4 newest", 400}}) {
        sweep.makeRun(run, time0, {static_cast<uint64>(time0), 7, 7});
        change(run, ofBuild("now"));
    }
    fs::resize_file(sweep.dir.path(sweep.traces + "3 b/img.trc"), 32); // no copy of the other one
    for (const char* run : {"version", "method", "digest", "size"})
        sweep.makeRun(run, 500, {8});
    const auto rewrite = [&](const std::string& run, const std::string& from, const std::string& to) {
        std::string text = sweep.dir.read(sweep.traces + run + "/trace.json");
        text.replace(text.find(from), from.size(), to);
        sweep.dir.write(sweep.traces + run + "/trace.json", text);
    };
    rewrite("version", "\"version\": 2", "\"version\": 3");
    rewrite("method", "monitoring", "telepathy");
    for (const auto& [run, time0] : {std::pair("digest", 350), {"size", 360}}) {
        change(run, [&, name = std::string(run), start = time0](ZqTraceParams* record) {
            record->time0 = start;
            record->checksumMnt = "now";
            (name == "size" ? record->size : record->duration) = 999;
            if (name == "digest") record->checksumTrc = SxMd5::get(SxString("another"));
        });
    }
    const auto itemsBefore = sweep.itemsOf("merged");
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nJoined, 3);
    EXPECT_EQ(sweep.nCorrupted, 0);
    EXPECT_THAT(sweep.names(), ElementsAre("1 old", "2 a", "3 b", "3 c", "4 newest", "digest", "merged",
                                           "merged-01234567", "method", "size", "version"));
    EXPECT_THAT(sweep.removed, IsEmpty());
    ASSERT_EQ(sweep.itemsOf("merged").size(), 4U);
    EXPECT_EQ(sweep.itemsOf("merged")[2].block, 300U);
    EXPECT_EQ(sweep.itemsOf("merged-01234567"), itemsBefore) << "the former result is lost";
    const std::pair<const char*, const char*> reasons[] = {{"1 old", "of the build '0123456789'"},
                                                           {"merged-01234567", "of the build '0123456789'"},
                                                           {"3 b", "at the same time as '3 c'"},
                                                           {"version", "File version"},
                                                           {"method", "Trace Method 'telepathy' unknown"},
                                                           {"digest", "tavrin trace mend"},
                                                           {"size", "tavrin trace mend"}};
    EXPECT_EQ(sweep.left.size(), std::size(reasons));
    for (const auto& [run, why] : reasons)
        EXPECT_THAT(sweep.left[run], HasSubstr(why)) << run;

    // Nothing of all this is a reason to write the result anew, or to take its place.
    const TreeSnapshot before = sweep.dir.snapshot(sweep.traces);
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.dir.snapshot(sweep.traces), before);
    EXPECT_EQ(sweep.nJoined, 0);
    EXPECT_EQ(sweep.nHeld, 3);
    EXPECT_THAT(sweep.removed, IsEmpty());
    EXPECT_THAT(sweep.left["3 b"], HasSubstr("at the same time as '3 c'"));
}

TEST(TraceBuilder, GivesUpAndTouchesNothing) {
    Sweep sweep;
    sweep.makeRun("a", 1, {1});
    sweep.makeRun("b", 2, {2});
    const TreeSnapshot before = sweep.dir.snapshot(sweep.traces);
    const auto expectRefusal = [&](const std::string& why) {
        SCOPED_TRACE(why);
        bool stopped = false;
        EXPECT_EQ(sweep.sweep(&stopped), "");
        EXPECT_TRUE(stopped);
        EXPECT_THAT(sweep.refusal.str(), StartsWith(why));
        EXPECT_GT(sweep.nLogged("ZqTraceBuilder::main: " + why), 0);
        sweep.log.clear();
        EXPECT_EQ(sweep.dir.snapshot(sweep.traces), before);
    };
    sweep.mountAlone();
    expectRefusal("Image still mounted, trace not complete.");
    sweep.mgr.umountImage(sweep.image, true);
    for (const char* job : {"run", "trace build"}) {
        const auto user = ZqImageLock::take(sweep.image, ZqImageLock::Shape, ZqImageLock::Shared, job);
        expectRefusal("Image '");
        EXPECT_THAT(sweep.refusal.str(),
                    AllOf(HasSubstr("' is in use by process"), HasSubstr("(" + std::string(job) + ")")));
    }
    bool stopped = false;
    sweep.driver.fail("FindDisk");
    EXPECT_THAT(sweep.sweep(&stopped), StartsWith("Trace builder failed."));
    EXPECT_TRUE(stopped);
    sweep.driver.mend("FindDisk");
    for (const char* name : {"", ".", "..", "x/y", "../traces"})
        EXPECT_THAT(sweep.sweep(nullptr, name), HasSubstr("is no name for a trace folder")) << name;
    sweep.dir.write(sweep.traces + "letters/dear.txt", "precious");
    EXPECT_THAT(sweep.sweep(nullptr, "letters"), HasSubstr("holds something else than a trace"));
    EXPECT_EQ(sweep.dir.read(sweep.traces + "letters/dear.txt"), "precious");
    fs::remove_all(sweep.dir.path(sweep.traces + "letters"));
    EXPECT_EQ(sweep.dir.snapshot(sweep.traces), before);
    // Where it is the first that has no end, the others aren't damaged.
    ZqTraceParams endless(sweep.folder("a"));
    endless.duration = ZqTraceFormat::MOST_MS - ZqTraceFormat::LEAST_MS;
    endless.write();
    const TreeSnapshot withEndless = sweep.dir.snapshot(sweep.traces);
    EXPECT_THAT(sweep.sweep(), HasSubstr("last too long for another one"));
    EXPECT_EQ(sweep.dir.snapshot(sweep.traces), withEndless);
    fs::remove_all(sweep.dir.path(sweep.traces));
    EXPECT_EQ(sweep.sweep(&stopped), "");
    EXPECT_TRUE(stopped);
    EXPECT_THAT(sweep.refusal.str(), StartsWith("Cannot find "));
}

TEST(TraceBuilder, LeavesTheTraceOfAnotherMountedDriveAlone) {
    Sweep sweep;
    for (const auto& [name, time0] : {std::pair("a", 1), {"b", 2}, {"live", 3}})
        sweep.makeRun(name, time0, {static_cast<uint64>(time0)});
    SxFileIO recorder(sweep.folder("live") + "img.trc", "r+b");
    ASSERT_EQ(SxOs::get().lockRange(recorder.getFd(), 0, 1, SxOs::Lock::Exclusive), 0);
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_THAT(sweep.names(), ElementsAre("a", "b", "live", "merged"));
    EXPECT_EQ(sweep.itemsOf("live").size(), 1U);
    EXPECT_EQ(sweep.itemsOf("merged").size(), 2U);
    sweep.makeRun("c", 9, {9});
    EXPECT_THAT(sweep.sweep(nullptr, "live"), HasSubstr("A mounted drive records into the trace"));
    EXPECT_THAT(sweep.names(), ElementsAre("a", "b", "c", "live", "merged"));
}

TEST(TraceBuilder, GoesOnWhereItWasCutOffWithoutWhatIsNewSince) {
    // As a kill leaves it: the result is in its place, and of what went into it one run is there, one was
    // recorded anew under its name.
    // The note is one of a former version, whose result doesn't name the runs, so that they have to go.
    Sweep sweep;
    sweep.makeRun("merged", 1, {1, 2});
    sweep.makeSeries("merged");
    sweep.makeRun("a", 1, {1});
    sweep.makeRun("b", 2, {3, 4});
    const std::string digest = SxMd5::file(sweep.folder("a") + "trace.json").str();
    const auto note = [&](const std::string& target, const std::string& b) {
        sweep.dir.write(
            sweep.traces + "merged/sources.json",
            R"({"target": ")" + target + R"(", "aside": "", "folders": [{"name": "a", "record": ")" + digest +
                R"(", "size": 16}, {"name": ")" + b + R"(", "record": "of another", "size": 32}]})");
    };
    note("merged", "b");
    {
        const TreeSnapshot before = sweep.dir.snapshot(sweep.traces);
        FaultOs os(sweep.dir.path());
        os.failNth(FaultOs::Op::Open, 1, EIO, "sources.json");
        EXPECT_THAT(sweep.sweep(), testing::StartsWith("Trace builder failed."));
        EXPECT_EQ(sweep.dir.snapshot(sweep.traces), before) << "what has no note would be joined again";
    }
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_THAT(sweep.names(), ElementsAre("b", "merged"));
    EXPECT_EQ(sweep.nJoined, 2);
    ASSERT_EQ(sweep.itemsOf("merged").size(), 4U) << "the new run isn't lost";
    EXPECT_EQ(sweep.itemsOf("merged").back().block, 4U);

    // A note that leads out of the folder is passed over.
    sweep.dir.write("image/precious/img.trc", std::string(32, 'x'));
    for (const auto& [target, b] :
         {std::pair("merged", "../precious"), {"../precious", "b"}, {"merged", ".."}}) {
        note(target, b);
        EXPECT_EQ(sweep.sweep(), "");
        EXPECT_THAT(sweep.names(), ElementsAre("b", "merged"));
        EXPECT_EQ(sweep.dir.snapshot("image/precious").size(), 1U);
    }
}

TEST(TraceBuilder, NoRunGoesInTwiceWhateverBecameOfIt) {
    Sweep sweep;
    for (const auto& [name, time0] : {std::pair("a", 100), {"b", 200}, {"c", 300}, {"d", 400}, {"e", 500}}) {
        sweep.makeRun(name, time0, {static_cast<uint64>(time0), 7});
        ZqTrace(sweep.folder(name)).mend(); // as the end of a recording does, it states size and digest
    }
    EXPECT_EQ(sweep.sweep(), "");
    const ItemList joined = sweep.itemsOf("merged");
    const auto place = [&](const std::string& name) { return sweep.dir.path(sweep.traces + name); };
    const auto expectHeld = [&](int64 n) {
        const std::string former = sweep.sourcesOf("merged");
        EXPECT_EQ(sweep.sweep(), "");
        EXPECT_EQ(sweep.nHeld, n);
        EXPECT_EQ(sweep.nJoined, 0);
        EXPECT_EQ(sweep.itemsOf("merged"), joined);
        EXPECT_EQ(sweep.sourcesOf("merged"), former);
    };
    fs::rename(place("a"), place("renamed"));
    fs::copy(place("b"), place("copied"));
    ZqTrace(sweep.folder("b")).shift(30);
    ZqTrace(sweep.folder("c")).dropTime(0, 5);
    ZqTrace(sweep.folder("d")).align(sweep.folder("e"));
    expectHeld(6);
    EXPECT_THAT(sweep.left, IsEmpty());
    // What happens to the result itself is no reason either.
    ZqTrace(sweep.folder("merged")).shift(-20);
    ZqTrace(sweep.folder("merged")).trim(sweep.folder("merged"));
    expectHeld(6);
    // Of two with the same start the other one is named as long as the one that went in is there.
    sweep.makeRun("twin", 500, {9});
    expectHeld(6);
    EXPECT_THAT(sweep.left["twin"], HasSubstr("at the same time as 'e'"));
    fs::remove_all(place("twin"));

    // What was recorded anew under a noted name is another run.
    sweep.makeRun("copied", 600, {8});
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nJoined, 2);
    EXPECT_EQ(sweep.itemsOf("merged").size(), joined.size() + 1);
    EXPECT_EQ(sweep.sourcesOf("merged"), "copied a b c d e ");

    // Nor what is left where the runs are gone, as too old ones.
    for (const char* name : {"renamed", "b", "c", "d", "e", "copied"})
        fs::remove_all(place(name));
    sweep.makeRun("f", 700, {1});
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nJoined, 2);
    EXPECT_EQ(sweep.sourcesOf("merged"), "copied a b c d e f ");
}

TEST(TraceBuilder, AJoinedTraceIsToldFromARun) {
    Sweep sweep;
    for (const auto& [name, time0] : {std::pair("a", 100), {"b", 200}})
        sweep.makeRun(name, time0, {static_cast<uint64>(time0)});
    EXPECT_EQ(sweep.sweep(), "");
    const auto place = [&](const std::string& name) { return sweep.dir.path(sweep.traces + name); };
    // A copy of it, and one that shares a run with it.
    fs::copy(place("merged"), place("backup"));
    sweep.makeRun("c", 300, {300});
    ZqTrace(sweep.folder("b")).append(sweep.folder("c"), sweep.folder("z b and c"), 0);
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nJoined, 2);
    EXPECT_EQ(sweep.sourcesOf("merged"), "a b c ");
    for (const char* name : {"backup", "z b and c"})
        EXPECT_THAT(sweep.left[name], HasSubstr("joined of runs that are in another")) << name;
    EXPECT_THAT(sweep.names(), ElementsAre("a", "b", "backup", "c", "merged", "z b and c"));
    for (const char* name : {"backup", "z b and c"})
        fs::remove_all(place(name));

    // Under another name it is taken over, and goes; its runs stay. A run that has the name makes room.
    fs::rename(place("merged"), place("mapped"));
    sweep.makeRun("merged", 400, {400});
    ZqTrace(sweep.folder("mapped")).shift(-1);
    sweep.makeRun("z", 1100, {9});
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.sourcesOf("merged"), "merged a b c ");
    EXPECT_EQ(sweep.itemsOf("merged").size(), 4U);
    EXPECT_THAT(sweep.removed, ElementsAre("mapped"));
    EXPECT_THAT(sweep.left["z"], HasSubstr("at the same time as 'mapped'"));
    fs::remove_all(place("z"));
    sweep.left.erase("z");
    ASSERT_EQ(sweep.left.size(), 1U);
    EXPECT_EQ(sweep.itemsOf(sweep.left.begin()->first).size(), 1U);
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nHeld, 4);

    // One that can't be used holds nothing back: its runs are joined anew.
    sweep.dir.write(sweep.traces + "merged/img.trc", std::string(64, 'x'));
    EXPECT_EQ(sweep.sweep(), "");
    EXPECT_EQ(sweep.nHeld, 0);
    EXPECT_EQ(sweep.nJoined, 4);
    EXPECT_EQ(sweep.itemsOf("merged").size(), 4U);
    EXPECT_THAT(sweep.left.begin()->second, HasSubstr("tavrin trace mend"));
}
