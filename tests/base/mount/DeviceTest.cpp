#include "MountTest.h"

namespace {

constexpr const char* POLICY = "/Software/Policies/Microsoft/Windows/RemovableStorageDevices";
constexpr const char* DISKS = "{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}";
constexpr const char* EXPLORER = "HKLM/SOFTWARE/Microsoft/Windows/CurrentVersion/Policies/Explorer";
/// An entry that no registry takes.
const ZqRegistry::Item BAD_ENTRY{"NOWHERE/Software", "x", ZqRegistry::RegSz, "y"};

std::string noDrives() {
    return ZqRegistry::isVal(EXPLORER, "NoDrives") ? ZqRegistry::getVal(EXPLORER, "NoDrives").str() : "none";
}

} // namespace

TEST(Device, WaitsAsLongAsItTakes) {
    const std::string drive = "Cannot determine mount point: ", files = "Filesystem not accessible: ";
    constexpr int64 NEVER = ScriptedDriver::NEVER;
    struct Case {
        int64 letterAfter, filesAfter;
        const char* reason;
        std::string failure;
        int64 elapsedMs;
    };
    const Case cases[] = {
        {0, 0, "", "", 0},
        {40, 75, "", "", 80},
        {60'990, 0, "", "", 60'990},
        {NEVER, 0, "", drive + "Timeout while waiting for mount point", 61'000},
        {NEVER, 0, "no mount of ext4", drive + "no mount of ext4", 0},
        {0, NEVER, "", files + "Timeout while waiting for filesystem", 61'000},
        {500, NEVER, "no mount of ext4", drive + "no mount of ext4", 0},
        {0, NEVER, "damaged", files + "damaged", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failure);
        Machine machine;
        machine.driver.letterAfter = c.letterAfter;
        machine.driver.filesAfter = c.filesAfter;
        machine.driver.diskFailure = c.reason;
        EXPECT_EQ(failureOf([&] { EXPECT_EQ(machine.mountAlone(), "E:"); }), c.failure);
        EXPECT_EQ(machine.elapsedMs(), c.elapsedMs);
        EXPECT_EQ(machine.driver.mounted, c.failure.empty());
        // One line for each pass that ended without a drive.
        const std::string line = " : Cannot query mount point. Drive was not identified";
        const int64 nLines = std::min(c.letterAfter, c.elapsedMs) / 1000;
        EXPECT_EQ(machine.nLogged(line), nLines);
        EXPECT_EQ(machine.nLogged("Waiting for drive to become ready: 60/60" + line), nLines >= 60);
    }
    Machine machine;
    machine.driver.filesAfter = NEVER;
    EXPECT_EQ(machine.mountAlone(false), "E:");
    // A service whose mounts don't come to this namespace.
    Machine blind;
    blind.driver.filesAfter = NEVER;
    blind.driver.isVisible = false;
    EXPECT_THAT(failureOf([&] { blind.mountAlone(); }), HasSubstr("lives in another mount namespace"));
    EXPECT_EQ(blind.elapsedMs(), 3000);
    EXPECT_FALSE(blind.driver.mounted);
}

TEST(Device, RefusedMountsLeaveNothing) {
    Machine machine;
    machine.app.registry = {BAD_ENTRY};
    machine.mgr.setAppParams(machine.app);
    EXPECT_THAT(failureOf([&] { machine.mountAlone(); }),
                StartsWith("ZqMountMgr::mountImage : Modification of registry failed.: "));
    EXPECT_FALSE(machine.driver.mounted);

    ZqImageParams params(machine.dir.prefix() + "image/");
    params.driverVersion = "3.4.11";
    params.write();
    machine.driver.notes.clear();
    const std::string words = "Cannot mount TAVRIN Image: Driver version 3.4.10 too small. Requires 3.4.11";
    EXPECT_EQ(failureOf([&] { machine.mountAlone(); }), words);
    EXPECT_EQ(machine.nLogged(words), 1);
    EXPECT_THAT(machine.driver.notes, IsEmpty());
}

TEST(Device, APolicyMakesTheDiskFixed) {
    for (const std::string hive : {"HKLM", "HKCU"}) {
        for (const char* name : {"Deny_All", DISKS}) {
            Machine machine;
            EXPECT_FALSE(ZqMountMgr::isRemovableRestricted());
            machine.mountAlone();
            machine.mgr.umountImage(machine.image, true);
            ZqRegistry::setVal(SxString(hive) + POLICY, name, ZqRegistry::RegDword, "0");
            machine.mountAlone();
            machine.mgr.umountImage(machine.image, true);
            EXPECT_EQ(machine.nLogged("-> switching to non-removable mode"), 1);
            machine.mountAlone(true, ZqMountMgr::NonRemovable);
            EXPECT_EQ(machine.nLogged("-> switching to non-removable mode"), 1);
            std::vector<std::string> mounts;
            for (const std::string& note : machine.driver.notes) {
                if (note.starts_with("MountImage ro ")) mounts.push_back(note.substr(14, 5));
            }
            EXPECT_THAT(mounts, ElementsAre("remov", "fixed", "fixed"));
        }
    }
    Machine machine;
    ZqRegistry::setVal(SxString("HKCU") + POLICY, DISKS, ZqRegistry::RegDword, "0");
    fs::create_directory(machine.dir.path("root/system.reg"));
    EXPECT_TRUE(ZqMountMgr::isRemovableRestricted()) << "what can't be asked doesn't hide what can";
    EXPECT_EQ(machine.nLogged("Cannot check registry for general removable device restriction on machine: "),
              1);
    EXPECT_EQ(machine.nLogged("Cannot check registry for removable device restriction on machine: "), 1);
}

TEST(Device, HidingSetsOneBit) {
    Machine machine;
    struct Step {
        const char* drive;
        bool hide;
        const char* result;
    };
    for (const Step& s :
         {Step{"E:", false, "0"}, Step{"e:", true, "16"}, Step{"E:", true, "16"}, Step{"A:", true, "17"},
          Step{"Z:", true, "33554449"}, Step{"E:", false, "33554433"}, Step{"E:", false, "33554433"}}) {
        ZqMountMgr::hideDrive(s.drive, s.hide);
        EXPECT_EQ(noDrives(), s.result) << s.drive << s.hide;
    }
    for (const char* bad : {"", "1:", "/mnt"})
        EXPECT_THAT(failureOf([&] { ZqMountMgr::hideDrive(bad, true); }), HasSubstr("is no drive"));
}

TEST(Unmount, InItsOrder) {
    for (const bool removable : {true, false}) {
        Machine machine;
        ScriptedDriver& driver = machine.driver;
        ZqMountMgr& mgr = machine.mgr;
        EXPECT_TRUE(mgr.umountImage(machine.image, false));
        EXPECT_THAT(driver.notes, IsEmpty());
        machine.app.registry = {{"HKLM/Software/Game", "Path", ZqRegistry::RegSz, "{{ZQDRIVE}}/game"}};
        mgr.setAppParams(machine.app);
        machine.mountAlone(true, removable ? ZqMountMgr::Removable : ZqMountMgr::NonRemovable);
        EXPECT_EQ(ZqRegistry::getVal("HKLM/Software/Game", "Path"), "E:/game");
        driver.suspended = driver.monitored = driver.isBusy = true;
        driver.goneAfter = 30;
        driver.markerStays = 70;
        driver.notes.clear();
        EXPECT_TRUE(mgr.umountImage(machine.image, false));
        EXPECT_THAT(driver.notes, ElementsAre("SetLogging off", "SetFailOnUnderflow", "Resume", "MonitorOff",
                                              "dismount E:", removable ? "ejectMedia E:" : "EjectImage"));
        EXPECT_EQ(machine.elapsedMs(), 70);
        EXPECT_FALSE(ZqRegistry::isVal("HKLM/Software/Game", "Path"));
        EXPECT_TRUE(mgr.wasBusy());
        EXPECT_EQ(machine.nLogged("A program still used E:"), 1);

        driver.isBusy = driver.monitored = driver.suspended = false;
        machine.app.registry = {BAD_ENTRY};
        machine.mountAlone(true);
        mgr.setAppParams(machine.app);
        EXPECT_TRUE(mgr.umountImage(machine.image, false)) << "the registry doesn't hold up the eject";
        EXPECT_FALSE(mgr.wasBusy());
    }
}

TEST(Unmount, TheLetterMayBeAnothersAtOnce) {
    for (const bool isOther : {true, false}) {
        Machine machine;
        machine.mountAlone();
        machine.driver.markerStays = ScriptedDriver::NEVER;
        machine.driver.onCall = [&](const std::string& name) {
            if (name == "ejectMedia")
                machine.driver.otherDrives["E:"] = {isOther ? "VOLM" : "", "ZqDD", isOther ? 8U : 7U};
        };
        EXPECT_EQ(failureOf([&] { machine.mgr.umountImage(machine.image, false); }), "");
        EXPECT_EQ(machine.elapsedMs(), 0);
    }
}

TEST(Unmount, TheHardWay) {
    Machine machine;
    machine.mountAlone();
    machine.driver.suspended = true;
    machine.driver.notes.clear();
    machine.driver.goneAfter = 10;
    machine.driver.isBusy = true;
    EXPECT_TRUE(machine.mgr.umountImage(machine.image, true));
    EXPECT_TRUE(machine.mgr.wasBusy());
    EXPECT_THAT(machine.driver.notes,
                ElementsAre("SetLogging off", "SetFailOnUnderflow", "Resume", "EjectImage"));
    machine.driver.letterAfter = ScriptedDriver::NEVER;
    EXPECT_EQ(machine.mgr.getMntPoint(machine.image), "E:") << "the drive is still known";
}

TEST(Unmount, WithoutItsLetter) {
    Machine machine;
    machine.app.registry = {{"HKLM/Software/Game", "Path", ZqRegistry::RegSz, "x"}};
    machine.mgr.setAppParams(machine.app);
    machine.mountAlone();
    EXPECT_FALSE(machine.mgr.umountWithoutLetter(machine.image));
    EXPECT_TRUE(machine.driver.mounted);
    machine.driver.hasLink = false;
    EXPECT_TRUE(machine.mgr.umountWithoutLetter(machine.image));
    EXPECT_FALSE(machine.driver.mounted || ZqRegistry::isVal("HKLM/Software/Game", "Path"));
}

TEST(Unmount, EveryFailureEjects) {
    const std::string bare = ": TAVRIN Driver Error: why";
    struct Case {
        const char* call;
        int nth;
        std::string cause; ///< with $ for the image
        const char* logged;
    };
    const Case cases[] = {
        {"FindDisk", 1, "Cannot query mount state for image $: TAVRIN Driver error: why", "is ejected"},
        {"SetLogging", 1, "Failed to disable guard logging: why", "is ejected"},
        {"SetFailOnUnderflow", 1, "Cannot set underflow mode to fail on image $" + bare, "is ejected"},
        {"Resume", 1, "Cannot resume disk for image $: why", "is ejected"},
        {"MonitorOff", 1, "Cannot disable monitoring on image $" + bare, "is ejected"},
        {"FindDisk", 5,
         "Failed to query mount point for image $: Cannot query mount state for image $: TAVRIN Driver "
         "error: why",
         "is ejected"},
        {"queryIdentity", 1,
         "Cannot open device handle for \\\\.\\E:", "ERROR: Could not open ZqDD device (E:) for umount."},
        {"dismount", 1, "Cannot dismount volume for E:: why", "ERROR: IOCTL cannot dismount volume: why"},
        {"ejectMedia", 1, "Cannot eject media for mount pointE:: why",
         "ERROR: IOCTL cannot eject media: why"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.call);
        Machine machine;
        ScriptedDriver& driver = machine.driver;
        machine.mountAlone();
        driver.suspended = driver.monitored = true;
        driver.notes.clear();
        driver.fail(c.call, c.nth, "why");
        const std::string words =
            SxString("Cannot umount image $: " + c.cause).substitute("$", machine.image).str();
        EXPECT_EQ(failureOf([&] { machine.mgr.umountImage(machine.image, false); }), words);
        EXPECT_EQ(driver.notes.back(), "EjectImage");
        EXPECT_FALSE(driver.mounted);
        EXPECT_EQ(machine.nLogged(c.logged), 1);
        EXPECT_EQ(machine.nLogged("Image " + machine.name + " is ejected, since its unmount failed"), 1);
    }
    for (const bool hard : {true, false}) {
        Machine machine;
        machine.mountAlone(true, ZqMountMgr::NonRemovable);
        machine.driver.fail("EjectImage", 1, "why");
        EXPECT_EQ(failureOf([&] { machine.mgr.umountImage(machine.image, hard); }),
                  "Failed to hard eject image " + machine.name + ": why");
    }
    for (const uint64 nProgress : {0U, 1U, 100U}) {
        Machine machine;
        machine.mountAlone();
        machine.driver.goneAfter = ScriptedDriver::NEVER;
        machine.driver.nProgress = nProgress;
        EXPECT_THAT(failureOf([&] { machine.mgr.umountImage(machine.image, false); }),
                    testing::HasSubstr("Timeout while waiting for dismounting logical drive"));
        EXPECT_EQ(machine.elapsedMs(), 60'000 + 1000 * static_cast<int64>(nProgress));
    }
    {
        // Mounted anew by another client before anybody looks: that drive stays.
        Machine machine;
        machine.mountAlone();
        machine.driver.goneAfter = ScriptedDriver::NEVER;
        machine.driver.nextMadeNs = 2;
        machine.driver.notes.clear();
        EXPECT_TRUE(machine.mgr.umountImage(machine.image, false));
        EXPECT_EQ(machine.elapsedMs(), 0);
        EXPECT_EQ(machine.driver.notes.back(), "ejectMedia E:");
    }
    {
        // Taken away, and mounted anew, while this one was about to begin.
        Machine machine;
        machine.mountAlone();
        machine.driver.nextMadeNs = 2;
        machine.driver.notes.clear();
        machine.driver.onCall = [&](const std::string& name) {
            if (name == "SetFailOnUnderflow") machine.driver.releasedAt = machine.elapsedMs();
        };
        machine.driver.fail("SetFailOnUnderflow", 1, "why");
        EXPECT_TRUE(machine.mgr.umountImage(machine.image, false));
        EXPECT_THAT(machine.driver.notes, testing::Not(testing::Contains("EjectImage")));
    }
    for (const bool files : {true, false}) {
        Machine machine;
        machine.mountAlone();
        (files ? machine.driver.markerStays : machine.driver.goneAfter) = ScriptedDriver::NEVER;
        EXPECT_EQ(failureOf([&] { machine.mgr.umountImage(machine.image, false); }),
                  "Cannot umount image " + machine.name +
                      ": Timeout while waiting for dismounting logical drive");
        EXPECT_EQ(machine.elapsedMs(), 60'000);
        EXPECT_EQ(machine.driver.notes.back(), files ? "ejectMedia E:" : "EjectImage")
            << "a disk that has gone isn't ejected";
    }
}
