#include "../mount/MountTest.h"
#include "SxFSAction.h"
#include "ZqExtractContent.h"
#include "ZqExtractNote.h"
#include "ZqFileLock.h"
#include "ZqImageLock.h"
#include "ZqStreamRecord.h"

#include <unistd.h>

namespace {

constexpr const char* SIDE = "root/drive_c/ProgramData/TAVRIN/G1/TAVRIN-protected/";
constexpr const char* OUT = "root/drive_c/Games/out/TAVRIN-protected/";

/// A drive with redirected items, some of which programs have saved to.
class Played : public Machine {
public:
    Played() {
        app.guid = "G1";
        app.access = {"a launcher that isn't there"};
        app.registry.append({"HKLM/Software/Lab", "Path", ZqRegistry::RegSz, "{{ZQDRIVE}}/x.exe"});
        app.dirmap = {"app/saves/deep", "app\\saves", "app/nowhere"};
        app.filemap = {"app/START.cfg", "app/new/scores", "app/saves/two", "app/untouched"};
        for (const char* file : {"app/a.txt", "app/sub/b", "app/saves/one", "app/start.cfg", "app/untouched"})
            dir.write(std::string("volume/TAVRIN-protected/") + file, std::string("drive's ") + file);
        fs::create_directory(dir.path("volume/TAVRIN-protected/empty"));
        fs::create_symlink("../a.txt", dir.path("volume/TAVRIN-protected/app/sub/link"));
        fs::create_hard_link(dir.path("volume/TAVRIN-protected/app/a.txt"),
                             dir.path("volume/TAVRIN-protected/app/sub/same"));
        for (const char* file : {"app/saves/two", "app/saves/deep/x", "app/start.cfg", "app/START.cfg",
                                 "app/new/scores", "app/other"})
            dir.write(std::string(SIDE) + file, std::string("played ") + file);
        app.write(dir.prefix() + "image/");
    }
    std::string extract(bool isKept = false, const std::string& from = "image") {
        ZqExtractContent job(SxString(dir.path(from)), destination, isKept);
        const std::string failure = failureOf(job);
        stopped = job.stopRequested();
        complete = job.isComplete();
        resumed = job.isResumed();
        EXPECT_EQ(failure.empty(), job.isComplete());
        return failure;
    }
    /// All that stands there but lock files and the registry, which has times in it.
    TreeSnapshot content() const {
        TreeSnapshot tree = contentOf(dir, "");
        std::erase_if(tree, [](const auto& entry) {
            return entry.first.ends_with(".reg") || entry.first.ends_with("-registry.lock");
        });
        return tree;
    }
    /// What must be there at the end, however it was come to.
    void expectInstalled() const {
        const std::vector<std::pair<const char*, const char*>> files = {
            {"app/a.txt", "drive's app/a.txt"},
            {"app/sub/b", "drive's app/sub/b"},
            {"app/sub/link", "drive's app/a.txt"},
            {"app/saves/two", "played app/saves/two"},
            {"app/saves/deep/x", "played app/saves/deep/x"},
            {"app/start.cfg", "played app/start.cfg"},
            {"app/new/scores", "played app/new/scores"},
            {"app/untouched", "drive's app/untouched"}};
        for (const auto& [file, text] : files)
            EXPECT_EQ(dir.read(std::string(OUT) + file), text);
        EXPECT_TRUE(fs::equivalent(dir.path(std::string(OUT) + "app/a.txt"),
                                   dir.path(std::string(OUT) + "app/sub/same")));
        EXPECT_TRUE(dir.exists(std::string(OUT) + "empty"));
        for (const char* file : {"app/saves/one", "app/START.cfg", "app/nowhere", "app/other"})
            EXPECT_FALSE(dir.exists(std::string(OUT) + file)) << file;
        EXPECT_THAT(dir.read("root/system.reg"), HasSubstr("\"Path\"=\"C:/Games/out/x.exe\""));
        EXPECT_FALSE(driver.mounted);
    }
    void expectTidy() const {
        // A job that is killed at its last step leaves its lock file, which holds nobody up.
        for (const auto& [path, mark] : dir.snapshot()) {
            const bool isMoved = path.starts_with("elsewhere/"); // by the test, out of reach
            EXPECT_TRUE(isMoved || path.find(".tavrin-extract") == std::string::npos ||
                        path.ends_with(".lock"))
                << path << " is left";
        }
    }
    void expectRemoved() const {
        expectTidy();
        EXPECT_FALSE(fs::exists(image.str()));
        EXPECT_EQ(dir.snapshot(SIDE).size(), 2U) << "of the private side only app/other stays";
    }

    SxString destination = "C:/Games/out";
    SxPtr<ZqImageLock> other;
    SxPtr<ZqFileLock> alone;
    bool stopped = false, complete = false, resumed = false;
};

} // namespace

TEST(Extract, CopiesTheDriveAndThePrivateItemsAndRemovesBoth) {
    Played machine;
    ASSERT_EQ(machine.extract(), "");
    machine.expectInstalled();
    machine.expectRemoved();
    EXPECT_THAT(machine.driver.notes, testing::Contains("MountImage ro removable 0 1 0 32768 4096 8"));
    EXPECT_THAT(machine.driver.notes, testing::Not(testing::Contains(StartsWith("SetReparse"))));
    const std::string line =
        "ZqExtractContent::main : mv C:/ProgramData/TAVRIN/G1/TAVRIN-protected/app/saves "
        "C:/Games/out/TAVRIN-protected/app/saves";
    EXPECT_EQ(machine.nLogged(line), 1) << "what lies in it goes with it";
}

TEST(Extract, KeepsTheImageAndThePrivateFilesIfAsked) {
    Played machine;
    const TreeSnapshot before = machine.content();
    ASSERT_EQ(machine.extract(true), "");
    machine.expectInstalled();
    machine.expectTidy();
    TreeSnapshot after = machine.content();
    std::erase_if(after, [](const auto& entry) {
        return entry.first.starts_with("root/drive_c/Games") || entry.first == "root/dosdevices/c:";
    });
    EXPECT_EQ(after, before);
    EXPECT_EQ(machine.extract(true), "C:/Games/out/ already exists.");
}

TEST(Extract, TakesTheOtherFolderWhereTheFirstHoldsNothing) {
    Played machine;
    fs::rename(machine.dir.path("volume/TAVRIN-protected"), machine.dir.path("volume/TAVRIN-private"));
    fs::create_directory(machine.dir.path("volume/TAVRIN-protected"));
    fs::remove_all(machine.dir.path(SIDE));
    ASSERT_EQ(machine.extract(), "");
    EXPECT_EQ(machine.dir.read("root/drive_c/Games/out/TAVRIN-private/app/start.cfg"),
              "drive's app/start.cfg");
    EXPECT_FALSE(machine.dir.exists("root/drive_c/Games/out/TAVRIN-protected"));
}

TEST(Extract, ALinkGoesWithItsImage) {
    Played machine;
    fs::create_directory_symlink("image", machine.dir.path("link"));
    ASSERT_EQ(machine.extract(false, "link"), "");
    machine.expectInstalled();
    machine.expectRemoved();
    EXPECT_FALSE(machine.dir.exists("link"));
}

TEST(Extract, WhatIsRefusedLeavesAllAsItWas) {
    struct Case {
        std::string failure;
        std::function<void(Played&)> change;
        bool asksToStop = true;
    };
    const auto write = [](const char* name, const char* bytes) {
        return [=](Played& machine) { machine.dir.write(name, bytes); };
    };
    const auto edit = [](const std::function<void(ZqAppParams&)>& change) {
        return [=](Played& machine) {
            change(machine.app);
            machine.app.write(machine.dir.prefix() + "image/");
        };
    };
    const auto fail = [](const char* call, int nth = 1) {
        return [=](Played& machine) { machine.driver.fail(call, nth, "as told"); };
    };
    const std::vector<Case> cases = {
        {"image/ is not a directory.",
         [](Played& machine) { fs::rename(machine.name, machine.name + ".other"); }, false},
        {"Cannot read app parameters in ", write("image/app.json", "{")},
        {"image/img.zqf is not fully downloaded.",
         [](Played& machine) {
             fs::resize_file(machine.name + "/img.zqf", fs::file_size(machine.name + "/img.zqf") - 1);
         },
         false},
        {"C:/Games/out/ already exists.", write("root/drive_c/Games/OUT/file", ""), false},
        {"C:/Games/out/ already exists.",
         [](Played& machine) {
             fs::create_directory(machine.dir.path("root/drive_c/Games"));
             fs::create_symlink("nowhere", machine.dir.path("root/drive_c/Games/out"));
         },
         false},
        {"lies in the image", [](Played& machine) { machine.destination = machine.image + "/deep/out"; },
         false},
        {"Cannot create destination directory Q:/out/: ",
         [](Played& machine) { machine.destination = "Q:/out"; }},
        {"is in parts", write("image/img.zqf.join", "24576\n4096"), false},
        {"is in the middle of an optimisation", write("image/optimize.lock", "")},
        {"is in the middle of a patch", write("image/patch.progress", "")},
        {"The entry '../out' of dirmap", edit([](ZqAppParams& app) { app.dirmap.append("../out"); })},
        {"The guid '..' of app.json", edit([](ZqAppParams& app) { app.guid = ".."; })},
        {"are in use by the drive of image",
         [](Played& machine) {
             machine.app.write(machine.dir.prefix() + "second/");
             machine.driver.otherImages = {machine.dir.path("second")};
         }},
        {"image/ is already mounted.",
         [](Played& machine) {
             machine.app.access.removeAll();
             machine.mount();
         }},
        {"has the digest",
         [](Played& machine) { machine.dir.write("image/img.zqf", std::string(machine.app.sizeZqf, 'x')); }},
        {"is in use by process",
         [](Played& machine) {
             machine.other =
                 ZqImageLock::take(machine.image, ZqImageLock::Growth, ZqImageLock::Exclusive, "run");
         }},
        {"Another command extracts an image to 'C:/Games/out/' at the moment",
         [](Played& machine) {
             const SxString lock = machine.dir.path("root/drive_c/Games/.out.tavrin-extract.lock");
             machine.alone = SxPtr<ZqFileLock>::create(lock, "", "");
         }},
        {"(image verify)",
         [](Played& machine) {
             machine.other =
                 ZqImageLock::take(machine.image, ZqImageLock::Shape, ZqImageLock::Shared, "image verify");
         }},
        {"was changed while it was copied",
         [](Played& machine) {
             machine.driver.onCall = [&machine](const std::string& name) {
                 if (name == "GuardOff") fs::last_write_time(machine.name + "/img.zqf", fs::file_time_type());
             };
         }},
        {"Cannot mount TAVRIN disk ", fail("MountImage")},
        {"Cannot mount TAVRIN disk ", fail("GuardOff")},
        {"Cannot eject TAVRIN disk ", fail("dismount", 2)},
        {"No files in E:/TAVRIN-private/* found.",
         [](Played& machine) { fs::remove_all(machine.dir.path("volume/TAVRIN-protected")); }},
        {"is a link, which can't be redirected",
         [](Played& machine) {
             fs::rename(machine.dir.path("volume/TAVRIN-protected/app/saves"), machine.dir.path("elsewhere"));
             fs::create_directory_symlink(machine.dir.path("elsewhere"),
                                          machine.dir.path("volume/TAVRIN-protected/app/saves"));
         }},
        {"needs a file, but",
         [](Played& machine) { machine.dir.write("volume/TAVRIN-protected/app/new/scores/x", ""); }},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.failure);
        Played machine;
        each.change(machine);
        const bool wasMounted = machine.driver.mounted;
        const TreeSnapshot before = machine.content();
        EXPECT_THAT(machine.extract(), HasSubstr(each.failure));
        EXPECT_GT(machine.nLogged("ZqExtractContent::main : "), 0);
        EXPECT_EQ(machine.stopped, each.asksToStop);
        EXPECT_EQ(machine.driver.mounted, wasMounted);
        EXPECT_EQ(machine.content(), before);
    }
}

namespace {

/// What must hold after a cut, before anybody goes on: the image and the private files are whole, or the
/// image is refused to everybody else.
void expectWholeOrRefused(const Played& machine, const TreeSnapshot& before) {
    const bool isNamed = machine.dir.exists("root/drive_c/Games/out");
    if (!isNamed) {
        TreeSnapshot now = machine.content();
        std::erase_if(now, [](const auto& entry) {
            return entry.first.find(".tavrin-extract") != std::string::npos ||
                   entry.first.find("extract.json") != std::string::npos ||
                   entry.first == "root/drive_c/Games" || entry.first == "root/dosdevices/c:";
        });
        EXPECT_EQ(now, before);
    }
    if (!fs::exists(machine.name)) return;
    const std::string refusal = failureOf(
        [&] { ZqImageLock::take(machine.image, ZqImageLock::Shape, ZqImageLock::Shared, "mount"); });
    EXPECT_EQ(refusal.find("go on with: tavrin content extract IMAGE '") != std::string::npos, isNamed)
        << refusal;
}

/// How a job is ended in the middle.
struct Cut {
    enum Kind { Kill, Power, Failure, Stop, FullDisk } kind;
    const char* name;
    Op op = Op::Stat; ///< that fails
    int64 stride = 1; ///< of many places, these are looked at
};

void PrintTo(const Cut& cut, std::ostream* out) {
    *out << cut.name;
}

const std::vector<Cut> CUTS = {{Cut::Kill, "kill"},
                               {Cut::Power, "power"},
                               {Cut::Stop, "stop"},
                               {Cut::FullDisk, "full"},
                               {Cut::Failure, "stat", Op::Stat, 7},
                               {Cut::Failure, "open", Op::Open, 3},
                               {Cut::Failure, "read", Op::Read},
                               {Cut::Failure, "list", Op::List},
                               {Cut::Failure, "unlink", Op::Unlink},
                               {Cut::Failure, "times", Op::SetModified},
                               {Cut::Failure, "rename", Op::Rename},
                               {Cut::Failure, "sync", Op::SyncFs}};

} // namespace

class ExtractCut : public testing::TestWithParam<Cut> {};
INSTANTIATE_TEST_SUITE_P(Extract, ExtractCut, testing::ValuesIn(CUTS),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_P(ExtractCut, TheSameCommandFinishesFromEveryStep) {
    const Cut::Kind cut = GetParam().kind;
    std::mt19937_64 random(11);
    int64 nNamed = 0, nBefore = 0;
    bool struck = true;
    for (int64 nth = 1; struck && !HasFailure(); nth += GetParam().stride) {
        SCOPED_TRACE(nth);
        Played machine;
        const TreeSnapshot before = machine.content();
        FaultOs os(machine.dir.path());
        ZqExtractContent job(machine.image, machine.destination);
        bool wasAsked = false;
        if (cut == Cut::Kill || cut == Cut::Power) os.cutPowerAt(nth);
        if (cut == Cut::Failure) os.failNth(GetParam().op, nth, EIO);
        if (cut == Cut::FullDisk) os.setFreeSpaceAnswer(int64{1} << 40);
        if (cut == Cut::FullDisk) os.setDiskLeft(nth * 40 - 40);
        os.setHook([&](int64 step, Op, const std::string&) {
            if (cut != Cut::Stop || step != nth) return;
            wasAsked = true;
            job.stop();
        });
        const std::string failure = failureOf(job);
        struck = os.isCut() || os.getNFailed() > 0 || wasAsked || (cut == Cut::FullDisk && !failure.empty());
        if (cut == Cut::Power) os.crash(&random);
        if (cut == Cut::Kill) os.revive();
        if (cut == Cut::FullDisk) os.setDiskLeft(int64{1} << 40);
        if (cut == Cut::Failure) os.failNth(GetParam().op, int64{1} << 40, EIO);
        machine.driver.mounted = false;
        EXPECT_EQ(job.isComplete(), failure.empty() && !(cut == Cut::Stop && !machine.dir.exists(OUT)));
        ++(machine.dir.exists(OUT) ? nNamed : nBefore);
        if (!job.isComplete()) {
            expectWholeOrRefused(machine, before);
            // After the last step there is nothing left to be gone on with.
            const std::string again = machine.extract();
            EXPECT_THAT(again, testing::AnyOf("", HasSubstr("is not a directory.")));
        }
        machine.expectInstalled();
        machine.expectRemoved();
    }
    EXPECT_GT(nBefore, 0);
    EXPECT_TRUE(nNamed > 0 || cut == Cut::Failure);
}

namespace {

/// A job that has ended when the image was to be renamed, or, `isRemoved`, in the middle of its removal.
std::string cutAfterItsName(Played& machine, bool isRemoved) {
    FaultOs os(machine.dir.path());
    os.failNth(isRemoved ? Op::Unlink : Op::Rename, 1, EIO, "/.image.tavrin-extracted", true);
    return machine.extract();
}

ZqExtractNote noteFor(const Played& machine) {
    const auto info = SxFSAction::look(machine.dir.path("root/drive_c/Games/out"));
    ZqExtractNote note;
    note.destination = machine.dir.path("root/drive_c/Games/out");
    note.device = info->device;
    note.inode = info->inode;
    note.mark = ZqExtractNote::markOf(note.destination);
    note.folder = "TAVRIN-protected";
    note.guid = "G1";
    return note;
}

} // namespace

TEST(Extract, TheEndIsLeftToTheSameCommand) {
    struct Case {
        std::string failure; ///< of the next command; empty where it finishes
        std::function<void(Played&)> change;
        bool isRemoved = false, isKept = false;
    };
    const auto moveInstallation = [](Played& machine) {
        fs::rename(machine.dir.path("root/drive_c/Games/out"), machine.dir.path("elsewhere"));
    };
    const std::vector<Case> cases = {
        {"", [](Played&) {}},
        {"", [](Played&) {}, true},
        {"", [](Played&) {}, false, true},
        {"is removed in part, so it can't be kept", [](Played&) {}, true, true},
        {"is extracted to '", [](Played& machine) { machine.destination = "C:/Games/other"; }},
        {"", moveInstallation},
        {"which isn't there any longer; what is left of the image lies in", moveInstallation, true},
        // Another folder may get the inode of one that was removed.
        {"already exists.",
         [](Played& machine) { fs::remove(machine.dir.path("root/drive_c/Games/out/.tavrin-extract")); }},
        {"already exists.", [&](Played& machine) {
             moveInstallation(machine);
             machine.dir.write("root/drive_c/Games/out/mine", "");
         }}};
    for (const Case& each : cases) {
        SCOPED_TRACE(&each - cases.data());
        Played machine;
        EXPECT_THAT(cutAfterItsName(machine, each.isRemoved), StartsWith("Cannot remove TAVRIN image "));
        machine.expectInstalled();
        for (const auto mode : {ZqImageLock::Shared, ZqImageLock::Exclusive}) {
            if (each.isRemoved) break;
            const auto take = [&] {
                ZqImageLock::takeAnyState(machine.image, ZqImageLock::Shape, mode, "patch apply");
            };
            EXPECT_EQ(failureOf(take).empty(), mode == ZqImageLock::Shared) << "only readers that tell of it";
        }
        each.change(machine);
        EXPECT_THAT(machine.extract(each.isKept), HasSubstr(each.failure));
        EXPECT_EQ(machine.complete, each.failure.empty());
        if (!machine.complete) continue;
        machine.expectInstalled();
        EXPECT_EQ(machine.resumed, !machine.dir.exists("elsewhere"));
        EXPECT_EQ(fs::exists(machine.name), each.isKept);
        EXPECT_FALSE(fs::exists(machine.name + "/extract.json"));
        if (!each.isKept) machine.expectRemoved();
    }
}

TEST(Extract, ANoteThatLeadsOutRemovesNothingElse) {
    using Change = void (*)(ZqExtractNote&);
    const std::vector<std::pair<const char*, Change>> cases = {
        {"leads upward", [](ZqExtractNote& note) { note.dirmap = {"../../../secret"}; }},
        {"is no plain name", [](ZqExtractNote& note) { note.guid = ".."; }},
        {"is no protected folder", [](ZqExtractNote& note) { note.folder = "TAVRIN-/../../../.."; }},
        {"is no protected folder", [](ZqExtractNote& note) { note.folder = "TAVRIN-\\..\\..\\G2"; }},
        {"is a link", [](ZqExtractNote& note) { note.filemap = {"app/outward/key"}; }}};
    for (const auto& [failure, change] : cases) {
        SCOPED_TRACE(failure);
        Played machine;
        machine.dir.write("root/drive_c/Games/out/.tavrin-extract", "M");
        machine.dir.write("secret/key", "precious");
        fs::create_directory_symlink(machine.dir.path("secret"),
                                     machine.dir.path(std::string(SIDE) + "app/outward"));
        ZqExtractNote note = noteFor(machine);
        note.dirmap = {"app/saves"};
        change(note);
        note.write(machine.image);
        EXPECT_THAT(machine.extract(), HasSubstr(failure));
        EXPECT_EQ(machine.dir.read("secret/key"), "precious");
    }
}

TEST(Extract, EntriesThatCantBeMadeLeaveTheJob) {
    Played machine;
    const std::string registry = machine.dir.path("root/system.reg");
    fs::create_directory(registry);
    ZqExtractContent job(machine.image, machine.destination);
    EXPECT_THAT(failureOf(job), StartsWith("Cannot make the registry entries of C:/Games/out/"));
    EXPECT_TRUE(job.hasException());
    EXPECT_TRUE(fs::exists(machine.name));
    fs::remove(registry);
    EXPECT_EQ(machine.extract(), "");
    machine.expectInstalled();
    machine.expectRemoved();
}
