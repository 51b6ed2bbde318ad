#include "MountTest.h"
#include "ZqTraceParams.h"

#include <limits>

namespace {

/// What stands in a failure besides the words of the operation.
enum Form {
    Caused, ///< the bare failure is the cause
    Alone,  ///< nothing but the service's reason
    Flat    ///< the cause's text is part of the words
};

struct Operation {
    const char* call;
    std::function<void(const ZqMountMgr&, const SxString& image)> run;
    std::string words;
    Form form = Caused;
    bool quietUnmounted = true; ///< doesn't reach the service while the image isn't mounted
};

std::vector<Operation> operations(const std::string& image) {
    using M = const ZqMountMgr&;
    using S = const SxString&;
    const std::string state = "Cannot query mount state for image " + image;
    const std::string block = "Cannot retrieve Underflow block";
    return {
        {"FindDisk", [](M m, S i) { EXPECT_FALSE(m.isMounted(i)); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_FALSE(m.isSuspended(i)); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_FALSE(m.isUnderflow(i)); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_FALSE(m.isMonitored(i)); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_EQ(m.getCursor(i), 0U); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_EQ(m.getSectorSize(i), 0U); }, state},
        {"FindDisk", [](M m, S i) { EXPECT_EQ(m.getUnderflowQueueLen(i), 0U); }, state},
        {"IsRemovable", [](M m, S i) { m.isRemovable(i); },
         "Cannot determine removable state: TAVRIN Driver error", Alone, false},
        {"HasTraceEvent", [](M m, S i) { EXPECT_FALSE(m.retrieveTraceEvent(i)); },
         "Cannot query trace event on image " + image},
        {"SetCursor", [](M m, S i) { m.setCursor(i, 9); },
         "Cannot set disk cursor for image " + image + " to idx 9"},
        {"SetQACursor", [](M m, S i) { m.setQACursor(i, 8); },
         "Cannot set disk QA cursor for image " + image + " to idx 8"},
        {"Suspend", [](M m, S i) { m.suspend(i); }, "Cannot suspend disk for image " + image, Alone},
        {"Resume", [](M m, S i) { m.resume(i); }, "Cannot resume disk for image " + image, Alone},
        {"SetFailOnUnderflow", [](M m, S i) { m.failOnUnderflow(i); },
         "Cannot set underflow mode to fail on image " + image},
        {"FlushTWToImage", [](M m, S i) { m.flushTW(i); }, "Cannot flush TW layer to image " + image},
        {"MonitorOff", [](M m, S i) { m.monitorOff(i); }, "Cannot disable monitoring on image " + image},
        {"PopUnderflowZqFBlock", [](M m, S i) { EXPECT_EQ(m.popUnderflowZqFBlock(i), 0U); }, block, Flat},
        {"PopUnderflowZqFBlocks",
         [](M m, S i) {
             EXPECT_EQ(m.popUnderflowZqFBlocks(i, 2), (SxArray<uint64>{0, 0}));
         },
         block, Flat},
        {"GetRequestData",
         [](M m, S i) {
             EXPECT_EQ(m.getRequestData(i), (SxArray<uint64>{0, 0}));
         },
         "Cannot get request info", Flat},
        {"ResolveUnderflow",
         [](M m, S i) {
             m.sendBlockToUFLayer(i, {'a', 'b'}, 3);
         },
         "Cannot send data to underflow layer for image " + image + " for zqf idx 3", Caused, false},
        {"GuardOn", [](M m, S i) { m.guardOn(i); }, "Failed to activate guard on " + image, Alone, false},
        {"GuardOff", [](M m, S i) { m.guardOff(i); }, "Failed to deactivate guard on " + image, Alone, false},
        {"SetImageType", [](M m, S i) { m.setImageType(i, ZqFImage); },
         "Failed to set image type on " + image + " to 1", Alone, false},
        {"SetReparse", [](M m, S i) { m.reparse(i, "a,b", "C:/p"); },
         "Failed to reparse on " + image + " names a,b to directory C:/p", Alone, false},
        {"SetLogging", [](M m, S) { m.guardLogging(true); }, "Failed to enable guard logging", Alone, false},
        {"SetLogging", [](M m, S) { m.guardLogging(false); }, "Failed to disable guard logging", Alone,
         false},
        {"StoreDisks", [](M m, S) { m.storeDisks(); }, "Cannot store disks states", Caused, false},
        {"LoadDisks", [](M m, S) { m.loadDisks(); }, "Cannot load disk states", Alone, false},
        {"Reset", [](M m, S) { m.reset(); }, "Cannot reset TAVRIN driver", Caused, false},
        {"SetCacheSize", [](M m, S) { m.setCacheSize(2'000'000'000); },
         "Cannot set disk cache size to 2000000000", Caused, false},
        {"DriveGetVersion", [](M m, S) { m.getDriveVersion(); }, "Cannot get TAVRIN driver version", Caused,
         false},
        {"GuardGetVersion", [](M m, S) { m.getGuardVersion(); }, "Cannot get TAVRIN driver version", Caused,
         false},
    };
}

std::string chain(const Operation& operation, const std::string& reason) {
    const std::string behind = reason.empty() ? "" : ": " + reason;
    const std::string bare =
        operation.words.starts_with("Cannot query mount state") ? "TAVRIN Driver error" : DRIVER_ERROR;
    switch (operation.form) {
    case Caused:
        return operation.words + ": " + bare + behind;
    case Alone:
        return operation.words + behind;
    case Flat:
        return operation.words + ": TAVRIN Driver error: TAVRIN Driver error" + behind;
    }
    return "";
}

} // namespace

TEST(DriveState, EveryFailureHasItsWords) {
    Machine machine;
    ScriptedDriver& driver = machine.driver;
    for (const Operation& operation : operations(machine.name)) {
        SCOPED_TRACE(operation.call);
        for (const std::string reason : {"", "the service has a reason"}) {
            driver.mounted = driver.monitored = true;
            driver.image = machine.name;
            driver.fail(operation.call, 1, reason);
            EXPECT_EQ(failureOf([&] { operation.run(machine.mgr, machine.image); }),
                      chain(operation, reason));
            driver.fail(operation.call, std::numeric_limits<int>::max());
        }
        driver.mounted = false;
        driver.notes.clear();
        if (!operation.quietUnmounted) continue;
        EXPECT_EQ(failureOf([&] { operation.run(machine.mgr, machine.image); }), "");
        EXPECT_THAT(driver.notes, IsEmpty());
    }
    EXPECT_EQ(failureOf([&] { machine.mgr.guardOn(machine.image); }),
              "Failed to activate guard on " + machine.name + ": Image " + machine.name + " has no drive");
    EXPECT_EQ(failureOf([&] { machine.mgr.setCacheSize(2'000'000'001); }),
              "Cannot set disk cache size to 2000000001: Specified Cache size larger than 2GB");
    driver.notes.clear();
    machine.mgr.setCacheSize(-(int64{1} << 32) - 1);
    EXPECT_THAT(driver.notes, ElementsAre("SetCacheSize 0"));
}

TEST(DriveState, ValuesPassThrough) {
    Machine machine;
    ScriptedDriver& driver = machine.driver;
    driver.mounted = true;
    driver.image = machine.name;
    driver.suspended = driver.monitored = true;
    driver.queue = {1, 2};
    driver.cursor = 5;
    const int64 nCalls = driver.nCalls;
    EXPECT_TRUE(machine.mgr.isSuspended(machine.image) && machine.mgr.isMonitored(machine.image));
    EXPECT_TRUE(machine.mgr.isUnderflow(machine.image));
    EXPECT_EQ(machine.mgr.getCursor(machine.image), 5U);
    EXPECT_EQ(machine.mgr.getSectorSize(machine.image), 4096U);
    EXPECT_EQ(machine.mgr.getUnderflowQueueLen(machine.image), 2U);
    EXPECT_EQ(machine.mgr.getMntPoint(machine.image), "E:");
    EXPECT_EQ(driver.nCalls - nCalls, 7) << "one look for each answer";
    EXPECT_EQ(machine.mgr.getRequestData(machine.image), (SxArray<uint64>{8192, 4096}));
    for (const char* version : {"3.4.10", "123456789", "1234567890"}) {
        driver.version = version;
        EXPECT_EQ(machine.mgr.getDriveVersion(), version);
        EXPECT_EQ(machine.mgr.getGuardVersion(), version);
    }
}

TEST(DriveState, PingNeverRaises) {
    Machine machine;
    EXPECT_TRUE(ZqMountMgr::drivePing() && ZqMountMgr::guardPing());
    machine.driver.answersPing = false;
    EXPECT_FALSE(ZqMountMgr::drivePing() || ZqMountMgr::guardPing());
    EXPECT_THAT(machine.log, IsEmpty());
    machine.driver.answersPing = true;
    machine.driver.fail("DrivePing");
    machine.driver.fail("GuardPing", 1, "no /dev/fuse");
    EXPECT_FALSE(ZqMountMgr::drivePing() || ZqMountMgr::guardPing());
    EXPECT_THAT(machine.log, ElementsAre("Unable to contact ZqDD: TAVRIN Driver Error",
                                         "TAVRIN Driver Error: no /dev/fuse"));
}

TEST(DriveState, WhichVersionsAreServed) {
    const std::pair<const char*, bool> cases[] = {
        {"3.4.10", true}, {"3.4.9", true},   {"3.4.11", false},
        {"3.5.0", false}, {"4.0.0", false},  {"3.3.99", true},
        {"2.9.9", true},  {"3.3.4", true},   {"3.4.10.7", true},
        {"3.4", true},    {"3.5", false},    {"2.99.99", true},
        {"", false},      {"x.4.10", false}, {"3.4.x", false},
        {"3..1", false},  {"-1.0.0", true},  {"3.4.99999999999999999999", false}};
    for (const auto& [version, allowed] : cases)
        EXPECT_EQ(ZqMountMgr::isDriverVersionAllowed(version), allowed) << version;
}

TEST(DriveState, FindsItsDriveAmongOthers) {
    Machine machine;
    ScriptedDriver& driver = machine.driver;
    EXPECT_EQ(machine.mgr.queryMntPoint(machine.image), "");
    EXPECT_EQ(machine.mgr.getDevId(machine.image), -1);
    driver.mounted = true;
    driver.image = machine.name;
    // What a dead service left, or another one of this machine root shows, looks the same.
    driver.otherDrives = {{"C:", {"ATA", "Disk", 7}}, {"D:", {"VOLM", "ZqDD", 7}}};
    EXPECT_EQ(machine.mgr.queryMntPoint(machine.image), "E:");
    driver.drive = "d:";
    EXPECT_EQ(machine.mgr.getMntPoint(machine.image), "d:");
    EXPECT_EQ(machine.mgr.getDevId(machine.image), 3);
    driver.hasLink = false;
    const std::string words = "Cannot query mount point";
    const std::string cause = ": Cannot query mount point. Drive was not identified";
    EXPECT_EQ(failureOf([&] { machine.mgr.queryMountPoint(machine.image); }), words + cause);
    EXPECT_EQ(failureOf([&] { machine.mgr.getMntPoint(machine.image); }), words + "." + cause);
    driver.fail("FindDisk", 1, "why");
    EXPECT_EQ(failureOf([&] { machine.mgr.queryMntPoint(machine.image); }),
              "Cannot query mount state for image " + machine.name + ": TAVRIN Driver error: why");
    EXPECT_EQ(machine.mgr.getDevId(machine.image), -1);
    EXPECT_EQ(machine.nLogged("Cannot obtain device id."), 1);
}

TEST(DriveState, TheGuardIsAwaited) {
    Machine machine;
    ScriptedDriver& driver = machine.driver;
    driver.mounted = true;
    driver.image = machine.name;
    driver.guardAfter = 40;
    machine.mgr.guardOn(machine.image);
    EXPECT_EQ(machine.elapsedMs(), 40);
    driver.guardAfter = ScriptedDriver::NEVER;
    const int64 beganMs = machine.elapsedMs();
    EXPECT_EQ(failureOf([&] { machine.mgr.guardOn(machine.image); }),
              "Failed to activate guard on " + machine.name);
    EXPECT_EQ(machine.elapsedMs() - beganMs, 60'000);
    EXPECT_EQ(failureOf([&] { machine.mgr.guardOff(machine.image); }),
              "Failed to deactivate guard on " + machine.name);
    EXPECT_THAT(machine.log, ElementsAre("Guard activation time out", "Guard deactivation time out"));
}

TEST(DriveState, MonitoringBeginsAfresh) {
    Machine machine;
    ScriptedDriver& driver = machine.driver;
    driver.mounted = true;
    driver.image = machine.name;
    const SxString folder = machine.dir.path("trace");
    const auto monitor = [&](const SxString& to, const char* method, uint64 time0) {
        return failureOf([&] { machine.mgr.monitorOn(machine.image, to, method, time0); });
    };
    const auto words = [&](const SxString& to) {
        return "Cannot enable monitoring for " + machine.name + " with trc path " + to.str() + ": ";
    };
    machine.dir.write("trace/img.trc", "old");
    EXPECT_EQ(monitor(folder, "no such", 0), words(folder) + "Trace Method 'no such' unknown!");
    EXPECT_TRUE(machine.dir.exists("trace/img.trc"));
    const std::string above = machine.dir.path();
    EXPECT_EQ(monitor(above, "set", 0), words(above) + "Cannot delete trace folder " + above + ": Folder '" +
                                            above + "' holds the image and isn't emptied for a trace");
    driver.fail("MonitorOn", 1, "why");
    EXPECT_EQ(monitor(folder, "set", 0), words(folder) + "TAVRIN Driver error: why");
    driver.fail("MonitorOn", 1000);
    machine.mgr.setAppParams(machine.app);
    EXPECT_EQ(monitor(folder, "set", 1234), "");
    EXPECT_FALSE(machine.dir.exists("trace/img.trc"));
    const ZqTraceParams trace(folder + "/");
    EXPECT_EQ(trace.method, ZqTraceParams::Set);
    EXPECT_EQ(trace.time0, 1234);
    EXPECT_EQ(trace.guid, machine.app.guid);
    EXPECT_EQ(trace.checksumMnt, machine.app.checksumMnt);
    EXPECT_EQ(trace.checksumIdx, machine.app.checksumIdx);
    machine.dir.write("trace/img.trc", "of this trace");
    EXPECT_EQ(monitor(folder, "set", 0), "");
    EXPECT_TRUE(machine.dir.exists("trace/img.trc")) << "it is monitored already";
}
