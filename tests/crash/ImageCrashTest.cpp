#include "../base/BaseTest.h"
#include "Builders.h"
#include "ZqAppParams.h"
#include "ZqArchive.h"
#include "ZqCreateContent.h"
#include "ZqImage.h"
#include "ZqImageBuild.h"
#include "ZqImageLock.h"
#include "ZqImageOrder.h"
#include "ZqImagePack.h"
#include "ZqImageRaw.h"
#include "ZqImageStaging.h"
#include "ZqMachineRoot.h"
#include "ZqTrace.h"
#include "ZqTraceBuilder.h"

#include <csignal>
#include <optional>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t PART = 5000;
constexpr int64 PLENTY = 1 << 30;
const std::string ZQF = TestRandom(5).bytes(3 * PART + 17);

/// A job on the folder "watched" that is cut off, and what must hold then.
struct Job {
    const char* name;
    void (*prepare)(const TempDir&);
    std::string (*run)(const TempDir&); ///< gives the failure
    /// Says what is lost, if anything.
    std::string (*findLoss)(const TempDir&, const TreeSnapshot& before, const TreeSnapshot& after);
    int64 told, untold;       ///< bytes from one to the next place where the disk is full; see disturb()
    bool takesBack = false;   ///< a failure leaves all as it was
    int64 freeSpace = PLENTY; ///< that the disk says it has
    bool failing = false;     ///< the second write to img.zqf finds the disk full
};

void PrintTo(const Job& job, std::ostream* out) {
    *out << job.name;
}

std::string partName(size_t part) {
    return "watched/img.zqf.part" + std::to_string(part + 1);
}

std::string contentOfPart(const TempDir& dir, size_t part) {
    if (dir.exists(partName(part))) return dir.read(partName(part));
    if (!dir.exists(partName(part) + ".zstd")) return "";
    const auto unpack = [&] {
        ZqArchive::decompressZSTD(dir.path(partName(part) + ".zstd"), dir.path("unpacked"));
    };
    return failureOf(unpack).empty() ? dir.read("unpacked") : "";
}

/// Each byte of the ZqF file must be found in img.zqf or in its part, and what the record's name says must be
/// true.
std::string findLostParts(const TempDir& dir, const TreeSnapshot&, const TreeSnapshot&) {
    const std::string zqf = dir.exists("watched/img.zqf") ? dir.read("watched/img.zqf") : "";
    for (size_t part = 0; part * PART < ZQF.size(); ++part) {
        const std::string bytes = ZQF.substr(part * PART, PART);
        if (contentOfPart(dir, part) == bytes) continue;
        if (dir.exists("watched/img.zqf.info"))
            return "the record stands without the whole of " + partName(part);
        if (zqf.size() < part * PART || zqf.substr(part * PART, PART) != bytes) {
            return "the bytes of " + partName(part) + " are nowhere";
        }
    }
    const bool saysPartial = dir.exists("watched/img.zqf.join") || !dir.exists("watched/img.zqf");
    return saysPartial || zqf == ZQF ? "" : "img.zqf isn't whole, and nothing says so";
}

/// Where app.json stands, the old image or the new one must be whole, whatever else lies in image.new.
std::string findMixedImage(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    TreeSnapshot tree = contentOf(dir);
    if (!tree.contains("image/app.json") && !tree.contains("new/deep/app.json")) return "";
    std::erase_if(tree, [](const auto& entry) { return entry.first.find("image.new") != std::string::npos; });
    return tree == before || tree == after ? "" : "app.json stands with an image that is neither old nor new";
}

/// The same; and whoever writes there next finds one of the two, with nothing to be done by hand.
std::string findLostReplacement(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    const std::string mixed = findMixedImage(dir, before, after);
    const std::string image =
        dir.path(before.contains("image/app.json") ? "watched/image" : "watched/new/deep");
    if (!mixed.empty() || !fs::exists(image)) return mixed;
    const bool isBegun = fs::exists(image + "/image.new/ready");
    const auto take = [&](ZqImageLock::Mode mode) {
        return failureOf([&] { ZqImageLock::take(image, ZqImageLock::Shape, mode, "next"); });
    };
    const std::string refusal = take(ZqImageLock::Shared), failure = take(ZqImageLock::Exclusive);
    if (isBegun && refusal.find("tavrin mount IMAGE") == std::string::npos)
        return "a reader isn't told: " + refusal;
    if (!failure.empty()) return failure;
    TreeSnapshot tree = contentOf(dir);
    if (isBegun) return tree == after ? "" : "the new image isn't in its place";
    std::erase_if(tree, [](const auto& entry) { return entry.first.find("image.new") != std::string::npos; });
    if (tree == before || tree == after) return "";
    return before.contains("image/app.json") ? "neither the old image nor the new one is there" : "";
}

/// Where the old image is gone, all files of the new one must be there or in their places.
std::string findLostImage(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    const TreeSnapshot tree = contentOf(dir);
    if (!before.contains("image/app.json") || tree.contains("image/app.json")) return "";
    for (const auto& [path, mark] : after) {
        const auto staged = tree.find("image/image.new/" + fs::path(path).filename().string());
        const auto there = staged != tree.end() ? staged : tree.find(path);
        if (there == tree.end() || there->second != mark) return path + " is lost";
    }
    return "";
}

/// Each file must be the old one or the new one.
std::string findMixedFile(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    const TreeSnapshot now = contentOf(dir);
    for (const auto& [name, mark] : after) {
        const auto left = now.find(name), old = before.find(name);
        const bool isOld = (left == now.end()) == (old == before.end()) &&
                           (left == now.end() || left->second == old->second);
        if (!isOld && (left == now.end() || left->second != mark)) return name + " is neither old nor new";
    }
    return "";
}

void makeWhole(const TempDir& dir) {
    dir.write("watched/img.zqf", ZQF);
}

void makeParts(const TempDir& dir) {
    dir.write("watched/img.zqf.info", std::to_string(ZQF.size()) + "\n" + std::to_string(PART));
    for (size_t part = 0; part * PART < ZQF.size(); ++part)
        dir.write(partName(part), ZQF.substr(part * PART, PART));
}

void makeWholeAndParts(const TempDir& dir) {
    makeWhole(dir);
    makeParts(dir);
}

void makeCutOffJoin(const TempDir& dir) {
    makeParts(dir);
    fs::rename(dir.path("watched/img.zqf.info"), dir.path("watched/img.zqf.join"));
    fs::remove(dir.path(partName(0)));
    dir.write("watched/img.zqf", ZQF.substr(0, PART) + "and what was on its way");
}

void makeSource(const TempDir& dir) {
    dir.write("watched/source/a", "a");
    dir.write("watched/source/b/c", std::string(3 * 4096 + 1, 'c'));
}

void makeSourceAndImage(const TempDir& dir) {
    makeSource(dir);
    for (const std::string name :
         {"app.json", "img.json", "img.idx", "img.zqf", "img.files", "img.idx.md5", "img.hints",
          "traces/1/x.json"}) {
        dir.write("watched/image/" + name, "old");
    }
}

/// The image of that folder, with what has gathered in it since.
void makeSourceAndSameImage(const TempDir& dir) {
    makeSource(dir);
    ZqImageBuild job(dir.path("watched/image"), dir.path("watched/source"), {});
    EXPECT_EQ(failureOf(job), "");
    for (const std::string name : {"img.idx.md5", "img.hints", "runtime.json"})
        dir.write("watched/image/" + name, "old");
    for (const std::string name : {"img.tix", "img.tmp", "traces/1/trace.json", "traces/2/img.trc"})
        dir.write("watched/image/" + name, "gathered");
}

/// Runs a job as the one under way.
std::string runNow(ZqTaskMon& job) {
    jobUnderWay = &job;
    return failureOf(job);
}

std::string create(const TempDir& dir, const std::string& target) {
    ZqCreateContent job(dir.path(target), dir.path("watched/source"), true);
    return runNow(job);
}

std::string createOver(const TempDir& dir) {
    return create(dir, "watched/image");
}

std::string createNew(const TempDir& dir) {
    return create(dir, "watched/new/deep");
}

std::string build(const TempDir& dir, const ZqImageBuild::Options& what) {
    ZqImageBuild job(dir.path("watched/image"), dir.path("watched/source"), what);
    return runNow(job);
}

std::string buildOver(const TempDir& dir) {
    ZqImageBuild::Options what;
    what.mayDiscard = true;
    return build(dir, what);
}

std::string buildAgain(const TempDir& dir) {
    ZqImageBuild::Options what;
    what.cmd = "another";
    return build(dir, what);
}

/// An image whose order comes with hints takes the place of another.
std::string replaceWithHints(const TempDir& dir) {
    return failureOf([&] {
        ZqImageStaging staging(SxString(dir.path("watched/image/")), "test", true);
        const SxString folder = staging.begin(0);
        for (const std::string name : {"img.zqf", "img.idx", "img.json", "img.hints", "app.json"})
            SxFileIO::writeAtomic(folder + name, "new");
        staging.commit("build");
    });
}

void makeServed(const TempDir& dir, const std::string& folder, uint64 nRaw) {
    TestRandom random(5);
    TestImage(random, nRaw).write(SxString(dir.path(folder) + "/"));
}

void makeUnpacked(const TempDir& dir) {
    makeServed(dir, "watched", 130);
    dir.write("watched/img.zqf.zst", "old");
    dir.write("watched/img.zqf.zst.new", "left by another");
}

std::string pack(const TempDir& dir) {
    ZqImagePack job(dir.path("watched"), 3);
    return runNow(job);
}

void makeServedAlone(const TempDir& dir) {
    makeServed(dir, "image", 12);
    fs::create_directory(dir.path("watched"));
}

void makeServedAndRaw(const TempDir& dir) {
    makeServedAlone(dir);
    dir.write("watched/raw/img.raw", "old");
}

std::string writeRaw(const TempDir& dir) {
    ZqImageRaw job(dir.path("image"), dir.path("watched/raw"));
    return runNow(job);
}

void makeServedAndTrace(const TempDir& dir) {
    makeServedAlone(dir);
    const auto items = SxPtr<ZqTrace::Items>::create();
    for (const uint64 block : {3U, 2U, 1U, 0U})
        items->append(ZqTraceItem(block, 0, false));
    const ZqAppParams app(dir.prefix() + "image/");
    ZqTrace::write(items, dir.prefix() + "trace/", ZqTraceParams::Merge, app.checksumMnt);
}

std::string order(const TempDir& dir) {
    // It takes no folder with anything in it.
    if (!dir.exists("watched/new/deep/app.json")) fs::remove_all(dir.path("watched/new"));
    ZqImageOrder job(dir.path("image"), {SxString(dir.path("trace"))}, dir.path("watched/new/deep"));
    return runNow(job);
}

/// A job that runs on the caller's thread, as the one under way.
class Monitor : public ZqTaskMon {
public:
    Monitor() { jobUnderWay = this; }

private:
    void main() override {}
};

template<bool compress>
std::string split(const TempDir& dir) {
    Monitor monitor;
    return failureOf([&] { ZqImage(SxString(dir.path("watched/"))).split(PART, compress, &monitor); });
}

std::string join(const TempDir& dir) {
    Monitor monitor;
    return failureOf([&] { ZqImage(SxString(dir.path("watched/"))).join(&monitor); });
}

void makePacked(const TempDir& dir) {
    dir.write("in/img.idx", ZQF);
    dir.write("in/sub/other", "other");
    ZqArchive::compress7z(dir.path("a.7z"), dir.path("in"), {"img.idx", "sub/other"});
    fs::create_directory(dir.path("watched"));
}

std::string unpack(const TempDir& dir) {
    const Monitor idle;
    return failureOf([&] { ZqArchive::extract7z(dir.path("a.7z"), dir.path("watched")); });
}

void makeTrace(const TempDir& dir, const std::string& name, int64 time0, uint64 block) {
    const SxString path = dir.path("watched/traces/" + name) + "/";
    ZqTraceParams record;
    record.time0 = time0;
    record.write(path);
    const auto items = SxPtr<ZqTrace::Items>::create();
    for (uint64 i = 0; i < 5; ++i)
        items->append(ZqTraceItem(block + i, static_cast<uint64>(time0) + i, false));
    SxFileIO file(path + "img.trc", "wb");
    ZqTrace::writeItems(&file, items);
}

void makeTraces(const TempDir& dir) {
    dir.write("watched/app.json", "{}");
    makeTrace(dir, "run2", 200, 12);
    makeTrace(dir, "0run1", 100, 10);
    makeTrace(dir, "zero", 300, 20);
    fs::resize_file(dir.path("watched/traces/zero/img.trc"), 0);
}

void makeTracesAndResult(const TempDir& dir) {
    makeTraces(dir);
    makeTrace(dir, "merged", 50, 100);
    ZqTraceParams record(dir.path("watched/traces/merged/"));
    record.method = ZqTraceParams::IncMonitoring;
    record.sources = {{"gone", "its digest", 16, 50, {}}};
    record.write();
}

std::string joinTraces(const TempDir& dir) {
    // No service of this machine is to be asked.
    ZqMachineRoot::set(dir.path("root"));
    const Monitor idle; // for the sweep itself takes no notice of a stop
    ZqTraceBuilder job(dir.path("watched"), dir.path("watched/traces"), "merged");
    std::string failure = failureOf(job);
    ZqMachineRoot::set("");
    return failure;
}

/// Runs stay, and before the result is whole and in its place a former one must be whole somewhere.
std::string findLostTraces(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    const auto traceIn = [](const TreeSnapshot& tree, const std::string& folder) {
        const auto items = tree.find(folder + "/img.trc"), record = tree.find(folder + "/trace.json");
        using Trace = std::optional<std::pair<TreeMark, TreeMark>>;
        return items == tree.end() || record == tree.end() ? Trace()
                                                           : Trace(std::pair(items->second, record->second));
    };
    const TreeSnapshot now = contentOf(dir);
    for (const std::string name : {"traces/0run1", "traces/run2"}) {
        if (traceIn(now, name) != traceIn(before, name)) return "the trace of " + name + " is lost";
    }
    const auto former = traceIn(before, "traces/merged");
    if (!former || traceIn(now, "traces/merged") == traceIn(after, "traces/merged")) return "";
    // It is moved out of the way.
    const bool isThere = std::any_of(now.begin(), now.end(), [&](const auto& entry) {
        return entry.second.kind == TreeMark::Folder && traceIn(now, entry.first) == former;
    });
    return isThere ? "" : "the former result is lost";
}

const Job JOBS[] = {
    {"Split", makeWhole, split<false>, findLostParts, 499, 499, true},
    {"SplitCompressed", makeWhole, split<true>, findLostParts, 499, 499, true},
    {"SplitAnew", makeWholeAndParts, split<false>, findLostParts, 499, 499},
    {"Join", makeParts, join, findLostParts, 499, 499},
    {"JoinPartByPart", makeParts, join, findLostParts, 499, 499, false, PART},
    {"JoinInBatches", makeParts, join, findLostParts, 499, 499, false, 4 * PART},
    {"JoinOverAnOlderFile", makeWholeAndParts, join, findLostParts, 499, 499},
    {"JoinResumed", makeCutOffJoin, join, findLostParts, 499, 499},
    {"JoinTakenBack", makeParts, join, findLostParts, 0, 0, true, PLENTY, true},
    {"CreateOverAnImage", makeSourceAndImage, createOver, findLostReplacement, 100'000, 499},
    {"CreateInANewFolder", makeSource, createNew, findLostReplacement, 100'000, 499, true},
    {"BuildOverAnImage", makeSourceAndImage, buildOver, findLostReplacement, 2 << 20, 3000},
    {"BuildOverTheSameBuild", makeSourceAndSameImage, buildAgain, findLostReplacement, 2 << 20, 3000},
    {"ReplaceWithHints", makeSourceAndImage, replaceWithHints, findLostReplacement, 0, 0},
    {"Order", makeServedAndTrace, order, findMixedImage, 512, 100},
    {"Pack", makeUnpacked, pack, findMixedFile, 50'000, 50'000},
    {"Raw", makeServedAlone, writeRaw, findMixedFile, 4096, 1000},
    {"RawOverAnOldOne", makeServedAndRaw, writeRaw, findMixedFile, 4096, 1000},
    {"Unpack", makePacked, unpack, findMixedFile, 4096, 1000, true},
    {"JoinTraces", makeTraces, joinTraces, findLostTraces, 0, 0},
    {"JoinTracesToAResult", makeTracesAndResult, joinTraces, findLostTraces, 0, 0}};

/// Those that a failure leaves in a state to go on from.
std::vector<Job> disturbedJobs() {
    std::vector<Job> jobs;
    for (const Job& job : JOBS) {
        if (job.told > 0) jobs.push_back(job);
    }
    return jobs;
}

std::string nameOf(const testing::TestParamInfo<Job>& instance) {
    return instance.param.name;
}

class ImageCrash : public testing::TestWithParam<Job> {
protected:
    void SetUp() override {
        const TempDir dir;
        GetParam().prepare(dir);
        before = contentOf(dir);
        ASSERT_EQ(GetParam().run(dir), "");
        after = contentOf(dir);
    }

    static void arrange(FaultOs& os) {
        os.setFreeSpaceAnswer(GetParam().freeSpace);
        if (GetParam().failing) os.failNth(Op::Write, 2, ENOSPC, "img.zqf");
    }

    /// Runs the job in a child that is killed before that durable step; gives whether it was.
    static bool killAt(int64 step, const TempDir& dir) {
        const pid_t child = ::fork();
        if (child == 0) {
            FaultOs os(dir.path("watched"));
            arrange(os);
            os.setHook([step](int64 now, Op, const std::string&) {
                if (now == step) ::kill(::getpid(), SIGKILL);
            });
            GetParam().run(dir);
            ::_exit(0);
        }
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child)
            throw std::runtime_error("cannot run a child");
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

    /// Looks at what a cut has left, and lets the job be done.
    void checkAndRepeat(const TempDir& dir) const {
        EXPECT_EQ(GetParam().findLoss(dir, before, after), "");
        EXPECT_EQ(contentOf(dir) == after ? "" : GetParam().run(dir), "");
        EXPECT_EQ(contentOf(dir), after);
    }

    TreeSnapshot before, after;
};

class ImageDisturbed : public ImageCrash {};

} // namespace

TEST_P(ImageCrash, KilledAtAnyStep) {
    int64 step = 1;
    for (bool killed = true; killed && !HasFailure(); ++step) {
        SCOPED_TRACE("killed at step " + std::to_string(step));
        const TempDir dir;
        GetParam().prepare(dir);
        killed = killAt(step, dir);
        checkAndRepeat(dir);
    }
    EXPECT_GT(step, 5) << "the job has hardly any steps";
}

TEST_P(ImageCrash, PowerCutAtAnyStep) {
    for (uint64 seed = 0; seed <= 12; ++seed) {
        bool cut = true;
        for (int64 step = 1; cut && !HasFailure(); ++step) {
            SCOPED_TRACE("power cut at step " + std::to_string(step) + ", seed " + std::to_string(seed) +
                         (seed ? "" : " (nothing that is pending survives)"));
            const TempDir dir;
            GetParam().prepare(dir);
            {
                FaultOs os(dir.path("watched"));
                arrange(os);
                os.cutPowerAt(step);
                const std::string failure = GetParam().run(dir);
                cut = os.isCut();
                EXPECT_TRUE(cut || failure.empty() != GetParam().failing) << failure;
                std::mt19937_64 random(seed);
                os.crash(seed ? &random : nullptr);
            }
            EXPECT_EQ(findLostImage(dir, before, after), "");
            // What is done, or taken back, must stay so.
            EXPECT_TRUE(cut || contentOf(dir) == (GetParam().failing ? before : after));
            checkAndRepeat(dir);
        }
    }
}

TEST_P(ImageDisturbed, LosesNothingAndCanBeRepeated) {
    const Job& job = GetParam();
    const auto run = [&](const TempDir& dir) {
        if (job.freeSpace < PLENTY) dynamic_cast<FaultOs&>(SxOs::get()).setFreeSpaceAnswer(job.freeSpace);
        return job.run(dir);
    };
    const auto filesOf = [](TreeSnapshot tree) {
        std::erase_if(tree, [](const auto& entry) { return entry.second.kind == TreeMark::Folder; });
        return tree;
    };
    const TreeSnapshot old = filesOf(before), made = filesOf(after);
    const auto check = [&](const TempDir& dir, const std::string& failure) {
        const TreeSnapshot left = filesOf(contentOf(dir));
        EXPECT_TRUE((!failure.empty() && !job.takesBack) || left == old || left == made)
            << failure << testing::PrintToString(left);
        EXPECT_EQ(findLostImage(dir, before, after), "") << failure;
        checkAndRepeat(dir);
    };
    disturb(job.prepare, run, check, job.told, job.untold);
}

TEST(TraceJoin, DisturbedInAnyWayLosesNoBlock) {
    const auto blocksIn = [](const TempDir& dir) {
        std::set<uint64> blocks;
        for (const auto& entry : fs::directory_iterator(dir.path("watched/traces"))) {
            const SxString path = entry.path().string() + "/";
            if (!ZqTraceParams::isValid(path) || !fs::exists(entry.path() / "img.trc")) continue;
            const auto items = ZqTrace::getItems(path, true, true, true);
            for (const ZqTraceItem& item : *items)
                blocks.insert(item.block);
        }
        return blocks;
    };
    const TempDir undisturbed;
    makeTracesAndResult(undisturbed);
    const std::set<uint64> all = blocksIn(undisturbed);
    disturb(
        makeTracesAndResult, joinTraces,
        [&](const TempDir& dir, const std::string& failure) {
            EXPECT_EQ(blocksIn(dir), all) << failure;
            EXPECT_EQ(joinTraces(dir), "");
            EXPECT_EQ(blocksIn(dir), all) << failure;
            const auto tree = dir.snapshot("watched/traces");
            EXPECT_TRUE(tree.count("merged/img.trc"));
            EXPECT_EQ(ZqTraceParams(dir.path("watched/traces/merged/")).sources.size(), 3U) << failure;
            EXPECT_EQ(tree.size(), 9U) << failure << testing::PrintToString(tree);
        },
        100, 100);
}

INSTANTIATE_TEST_SUITE_P(Jobs, ImageCrash, testing::ValuesIn(JOBS), nameOf);
INSTANTIATE_TEST_SUITE_P(Jobs, ImageDisturbed, testing::ValuesIn(disturbedJobs()), nameOf);
