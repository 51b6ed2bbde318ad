#include "MountTest.h"
#include "SxMd5.h"
#include "ZqImageLock.h"
#include "ZqStreamRecord.h"
#include "ZqTraceParams.h"

namespace {

/// What the failed mount says after the image's name, which stands as $ in it.
std::string causeOf(Machine& machine, const std::function<void()>& mount) {
    const std::string failure = failureOf(mount), outer = "Cannot mount ZqF image " + machine.name;
    if (!failure.starts_with(outer + ": ")) return failure;
    return SxString(failure.substr(outer.size() + 2)).substitute(machine.image, "$").str();
}
std::string causeOf(Machine& machine) {
    return causeOf(machine, [&] { machine.mount(); });
}

std::string mountNote(const Machine& machine, const std::string& mode = "ro") {
    return "MountImage " + mode + " removable 0 1 0 32768 4096 " + std::to_string(machine.cursor);
}

} // namespace

TEST(MountImage, TwiceInItsOrder) {
    Machine machine;
    machine.app.cacheSize = 5;
    machine.app.guid = "G1";
    machine.app.filemap = {"cfg.ini"};
    fs::create_directory(machine.dir.path("volume/TAVRIN-private"));
    const SxString trace = machine.dir.path("trace");
    machine.dir.write("trace/img.trc", "of former times");
    int64 nRefused = 0;
    machine.driver.onCall = [&](const std::string&) {
        nRefused +=
            failureOf([&] {
                ZqImageLock::take(machine.image, ZqImageLock::Shape, ZqImageLock::Exclusive, "optimize");
            }).ends_with("(mount)");
    };
    EXPECT_EQ(machine.mount(trace, ZqMountMgr::ReadTWLayer), "E:");
    const std::string mounted = mountNote(machine, "rtw") + " traced";
    EXPECT_THAT(machine.driver.notes,
                ElementsAre("SetCacheSize 0", mounted, "GuardOn", "SetLogging off", "SetFailOnUnderflow",
                            "MonitorOff", "dismount E:", "ejectMedia E:", "SetCacheSize 5000000", mounted,
                            "GuardOn", "SetImageType 4 1", "SetReparse cfg.ini -> C:/ProgramData/TAVRIN/G1",
                            "setReady"));
    EXPECT_GT(nRefused, 20) << "the shape is held all the time";
    ZqImageLock::take(machine.image, ZqImageLock::Shape, ZqImageLock::Exclusive, "optimize");
    EXPECT_TRUE(machine.dir.exists("root/drive_c/ProgramData/TAVRIN/G1/TAVRIN-private/cfg.ini"));
    EXPECT_FALSE(machine.dir.exists("trace/img.trc"));
    const ZqTraceParams params(trace + "/");
    EXPECT_EQ(params.method, ZqTraceParams::MountScan);
    EXPECT_EQ(params.checksumMnt, machine.app.checksumMnt);
}

TEST(MountImage, EveryFailureHasItsWordsAndLeavesNoDrive) {
    const std::string bare = ": TAVRIN Driver Error: why";
    const std::string eject = "Cannot umount image $: ";
    struct Case {
        const char* call;
        int nth;
        std::string cause;
    };
    const Case cases[] = {
        {"GuardPing", 1, "ZqFM is not available: why"},
        {"SetCacheSize", 1, "Cannot set disk cache size to 0" + bare},
        {"MountImage", 1, "Failed to mount $ image: TAVRIN Driver error: Mount Image failed: why"},
        {"GuardOn", 1,
         "Failed to activate guard on $ image preparation mount: Failed to activate guard on $: why"},
        {"SetLogging", 1, eject + "Failed to disable guard logging: why"},
        {"dismount", 1, eject + "Cannot dismount volume for E:: why"},
        {"SetCacheSize", 2, "Cannot set disk cache size to 1000000" + bare},
        {"MountImage", 2, "Failed to mount $ image: TAVRIN Driver error: Mount Image failed: why"},
        {"GuardOn", 2,
         "Failed to activate guard on $ image after persistent mount: Failed to activate guard on $: why"},
        {"SetImageType", 1,
         "Failed to set image type to ZqF for image $: Failed to set image type on $ to 1: why"},
        {"SetReparse", 1,
         "Cannot prepare reparse points: Cannot sent reparse instructions to ZqFM: Failed to reparse on $ "
         "names "
         "a to directory C:/ProgramData/TAVRIN/G1: why"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.call + std::to_string(c.nth));
        Machine machine;
        fs::create_directory(machine.dir.path("volume/TAVRIN-protected"));
        machine.app.cacheSize = 1;
        machine.app.guid = "G1";
        machine.app.dirmap = {"a"};
        machine.driver.fail(c.call, c.nth, "why");
        EXPECT_EQ(causeOf(machine), c.cause);
        EXPECT_FALSE(machine.driver.mounted);
    }
    Machine machine;
    machine.app.dirmap = {"a"};
    EXPECT_EQ(causeOf(machine),
              "Cannot prepare reparse points: No TAVRIN-private or TAVRIN-protected folder on "
              "drive E:");
    EXPECT_FALSE(machine.driver.mounted);
}

TEST(MountImage, IsCheckedAheadOfAnyDrive) {
    struct Case {
        std::string cause;
        std::function<void(Machine&)> damage;
    };
    const std::string corrupt = "Corrupt mapping information detected";
    const std::string wrong = SxMd5::get(SxString(std::string(64, 'x'))).str();
    const Case cases[] = {
        {"Cannot find mapping file $/img.idx", [](Machine& m) { fs::remove(m.dir.path("image/img.idx")); }},
        {"Cannot find image file $/img.zqf", [](Machine& m) { fs::remove(m.dir.path("image/img.zqf")); }},
        {"Insufficient data for image mount available: is99 bytes, expected 100 bytes",
         [](Machine& m) {
             m.app.sizeMnt = 100;
             m.dir.write("image/img.zqf", std::string(99, 'x'));
         }},
        {"Image filesize does not satisfy available data: is8191 bytes, expected 8192 bytes",
         [](Machine& m) {
             m.app.sizeMnt = 0;
             m.cursor = 2;
             m.dir.write("image/img.zqf", std::string(8191, 'x'));
         }},
        {corrupt + ": '$/img.idx' has 56 bytes, expected were 64",
         [](Machine& m) { fs::resize_file(m.dir.path("image/img.idx"), 56); }},
        {corrupt + ": '$/img.idx' has the digest " + wrong + ", expected was ''",
         [](Machine& m) {
             m.dir.write("image/img.idx", std::string(64, 'x'));
             m.app.checksumIdx = "";
         }},
        {corrupt + ": '$/img.idx' has the digest " + wrong + ", expected was '" + wrong + "\\n'",
         [&](Machine& m) {
             m.dir.write("image/img.idx", std::string(64, 'x'));
             m.dir.write("image/img.idx.md5", wrong + "\n");
         }},
        {"The entry '../x' of dirmap in app.json leads upward", [](Machine& m) { m.app.dirmap = {"../x"}; }},
        {"The guid 'a/b' of app.json is no plain name",
         [](Machine& m) {
             m.app.guid = "a/b";
             m.app.filemap = {"x"};
         }},
        {"ZqFM is not available", [](Machine& m) { m.driver.answersPing = false; }},
        {"Image '$' is in the middle of an optimisation; go on with: tavrin image optimize IMAGE --resume",
         [](Machine& m) { m.dir.write("image/optimize.lock", ""); }},
        {"", [](Machine& m) { m.cursor = 1000; }}, // a complete file, whatever the cursor says
        {"",
         [](Machine& m) {
             m.app.sizeMnt = 8192;
             m.cursor = 2;
             m.dir.write("image/img.zqf", std::string(8192, 'x'));
         }},
        {"",
         [](Machine& m) {
             m.dir.write("image/img.idx.md5", m.app.checksumIdx.str());
             m.app.checksumIdx = "not looked at";
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        Machine machine;
        c.damage(machine);
        EXPECT_EQ(causeOf(machine), c.cause);
        EXPECT_EQ(machine.driver.notes.empty(), !c.cause.empty());
    }
    Machine machine;
    const auto lock =
        ZqImageLock::take(machine.image, ZqImageLock::Shape, ZqImageLock::Exclusive, "optimize");
    EXPECT_THAT(causeOf(machine), AllOf(HasSubstr("Image '$' is in use by"), HasSubstr("(optimize)")));
    machine.dir.write("image/img.idx.md5", std::string(1 << 10, 'x'));
    fs::remove(machine.dir.path("image/app.json"));
    EXPECT_THAT(failureOf([&] {
                    ZqMountMgr().mountImageZQF(ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, 1,
                                               1, 1, false, "", "");
                }),
                StartsWith("Failed to read file " + machine.name + "/app.json"));
}

TEST(MountImage, NotesWhatIsAboutToWriteIntoTheImage) {
    for (const bool flushes : {false, true}) {
        Machine machine;
        const auto note = [&] {
            ZqStreamRecord record;
            record.read(machine.image);
            return record.isWritten;
        };
        machine.mount("", ZqMountMgr::ReadOnly);
        machine.mgr.flushTW(machine.image);
        EXPECT_TRUE(note()) << "a later run may bring an address";
        ZqStreamRecord record;
        record.url = "http://127.0.0.1/";
        record.write(machine.image);
        EXPECT_FALSE(note());
        if (flushes) {
            machine.mgr.flushTW(machine.image);
        } else {
            machine.mgr.umountImage(machine.image, false);
            machine.mount("", ZqMountMgr::ReadTWLayer);
            machine.mgr.umountImage(machine.image, false);
            EXPECT_FALSE(note());
            machine.mount("", ZqMountMgr::ReadWrite);
        }
        EXPECT_TRUE(note());
    }
}

TEST(MountImage, TheCacheIsBounded) {
    Machine machine;
    machine.app.cacheSize = int64{1} << 62;
    EXPECT_EQ(causeOf(machine), "Cannot set disk cache size to 9223372036854775807: "
                                "Specified Cache size larger than 2GB");
    EXPECT_FALSE(machine.driver.mounted);
}

TEST(MountImage, TheTraceFolderIsChecked) {
    Machine machine;
    const auto mount = [&](const SxString& folder, const char* method) {
        return causeOf(machine, [&] {
            machine.mgr.mountImageZQF(ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, 32768, 4096,
                                      1, false, folder, method);
        });
    };
    EXPECT_EQ(mount(machine.image, "set"),
              "Cannot clean former trace data: Folder '$' holds the image and isn't emptied for a trace");
    EXPECT_EQ(mount(machine.dir.path("trace"), "sets"), "Trace Method 'sets' unknown!");
    machine.dir.write("library/game/img.zqf", "another image");
    machine.dir.write("library/img.trc", "a trace beside it");
    machine.dir.write("library/game/saves/run/img.trc", "below it");
    machine.dir.write("papers/letter.txt", "mine");
    machine.dir.write("papers/deep/trace.json", "no trace of this folder");
    const std::string below = machine.dir.path("library/game");
    const std::pair<const char*, std::string> refused[] = {
        {"library", "holds the image folder 'game'"},
        {"library/game", "holds an image"},
        {"library/game/saves/run", "lies in the image folder '" + below + "'"},
        {"papers", "holds something else than a trace"}};
    const TreeSnapshot before = machine.dir.snapshot();
    for (const auto& [folder, why] : refused) {
        const std::string path = machine.dir.path(folder);
        EXPECT_EQ(mount(path, "set"), "Cannot clean former trace data: Folder '" + path + "' " + why +
                                          " and isn't emptied for a trace");
    }
    const std::string letter = machine.dir.path("papers/letter.txt");
    EXPECT_EQ(mount(letter, "set"),
              "Cannot clean former trace data: '" + letter + "' is no folder and isn't replaced by a trace");
    EXPECT_EQ(machine.dir.snapshot(), before);
    EXPECT_THAT(machine.driver.notes, IsEmpty());
    EXPECT_EQ(mount("", "anything"), "");
    machine.mgr.umountImage(machine.image, true);
    machine.dir.write("image/traces/1/img.trc", "of a former run");
    EXPECT_EQ(mount(machine.dir.path("image/traces/1"), "set"), "");
    EXPECT_FALSE(machine.dir.exists("image/traces/1/img.trc"));
}
