#include "LauncherTest.h"

#include <random>

namespace {

using M = LauncherMachine;

uint64 deviceOf(const std::string& path) {
    struct stat found = {};
    return ::stat(path.c_str(), &found) == 0 ? found.st_dev : 0;
}

/// A folder that can be written and lies on another file system than the machine roots do, or empty.
std::string anotherFileSystem() {
    const M machine;
    const uint64 here = deviceOf(machine.dir.path());
    for (const char* folder : {"/dev/shm", "/tmp", "/var/tmp", "/run"}) {
        const uint64 there = deviceOf(folder);
        if (there != 0 && there != here && ::access(folder, W_OK) == 0) return folder;
    }
    return "";
}

} // namespace

TEST(Launchers, WhateverCutsAMountOffIsTakenBack) {
    // The power is cut, or the process killed, before each durable step of a mount and of its unmount; then
    // comes the next mount of another image, or a restore.
    std::mt19937_64 random(17);
    for (const bool unmounts : {false, true}) {
        bool struck = true;
        for (int64 step = 1; struck && !testing::Test::HasFailure(); ++step) {
            for (const int loss : {0, 1, 2}) { // killed; all of what wasn't synced lost; some of it
                SCOPED_TRACE(SxString(unmounts ? "unmount" : "mount").str() + ", step " +
                             std::to_string(step) + ", loss " + std::to_string(loss));
                M machine;
                const auto before = machine.state();
                machine.app.write(machine.dir.prefix() + "image/");
                {
                    std::optional<FaultOs> os;
                    if (!unmounts) os.emplace(machine.dir.path("root"));
                    if (os) os->cutPowerAt(os->getNSteps() + step);
                    failureOf([&] { machine.mount(); });
                    if (unmounts) {
                        os.emplace(machine.dir.path("root"));
                        os->cutPowerAt(os->getNSteps() + step);
                        failureOf([&] { machine.mgr.umountImage(machine.image, false); });
                    }
                    struck = os->isCut();
                    machine.loseDrive();
                    if (struck && loss == 0) os->revive();
                    if (struck && loss == 1) os->crash();
                    if (struck && loss == 2) os->crash(&random);
                }
                const auto restored = ZqLaunchers::restore();
                EXPECT_TRUE(restored.failures.isEmpty())
                    << (restored.failures.isEmpty() ? "" : restored.failures.first().what());
                EXPECT_EQ(machine.changesSince(before), "");
            }
        }
    }
}

TEST(Launchers, ARestoreThatIsCutOffGoesOn) {
    std::mt19937_64 random(18);
    bool struck = true;
    for (int64 step = 1; struck && !testing::Test::HasFailure(); ++step) {
        for (const int loss : {0, 1, 2}) {
            SCOPED_TRACE("step " + std::to_string(step) + ", loss " + std::to_string(loss));
            M machine;
            const auto before = machine.state();
            machine.mount();
            machine.loseDrive();
            {
                FaultOs os(machine.dir.path("root"));
                os.cutPowerAt(os.getNSteps() + step);
                failureOf([&] { ZqLaunchers::restore(); });
                struck = os.isCut();
                if (struck && loss == 0) os.revive();
                if (struck && loss == 1) os.crash();
                if (struck && loss == 2) os.crash(&random);
            }
            // The next mount does the same.
            ZqMountMgr other;
            machine.app.access.removeAll();
            machine.app.registry.removeAll();
            machine.app.write(machine.dir.prefix() + "image/");
            other.mountImage(ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, "", false, true,
                             false, Machine::SIZE_RAW, 4096, machine.cursor);
            EXPECT_EQ(machine.changesSince(before), "");
        }
    }
}

TEST(Launchers, WhateverFailsIsTakenBack) {
    // Each operation of each kind fails once in a mount, whose own clean-up it may meet as well; the disk is
    // full from some point on.
    const int nOps = static_cast<int>(Op::Lock) + 1, FULL = nOps;
    for (int op = 0; op <= FULL; ++op) {
        if (op == static_cast<int>(Op::Close)) continue;
        bool struck = true;
        const int64 stride = op == static_cast<int>(Op::Stat) ? 23 : 1;
        for (int64 nth = 0; struck && !testing::Test::HasFailure(); nth += stride) {
            SCOPED_TRACE("operation " + std::to_string(op) + ", place " + std::to_string(nth));
            M machine;
            const auto before = machine.state();
            std::string failure;
            {
                FaultOs os(machine.dir.path("root"));
                if (op == FULL) {
                    os.setDiskLeft(nth * 256);
                } else {
                    os.failNth(static_cast<Op>(op), nth + 1, EIO);
                }
                failure = failureOf([&] { machine.mount(); });
                struck = op == FULL ? !failure.empty() : os.getNFailed() > 0;
            }
            failureOf([&] { machine.mgr.umountImage(machine.image, false); });
            machine.loseDrive();
            const auto restored = ZqLaunchers::restore();
            EXPECT_TRUE(restored.failures.isEmpty());
            EXPECT_EQ(machine.changesSince(before), "") << failure;
        }
    }
}

TEST(Launchers, WhateverFailsInAnUndoIsTriedAgain) {
    const int nOps = static_cast<int>(Op::Lock) + 1, FULL = nOps;
    for (const bool restores : {false, true}) {
        for (int op = 0; op <= FULL; ++op) {
            if (op == static_cast<int>(Op::Close)) continue;
            bool struck = true;
            const int64 stride = op == static_cast<int>(Op::Stat) ? 11 : 1;
            for (int64 nth = 0; struck && !testing::Test::HasFailure(); nth += stride) {
                SCOPED_TRACE(testing::Message() << (restores ? "restore" : "unmount") << ", operation " << op
                                                << ", place " << nth);
                M machine;
                const auto before = machine.state();
                machine.mount();
                machine.dir.write(M::DATA + "Manifests/late.item", "came between");
                machine.dir.write(M::DATA + "Manifests/Pending/y.item", "came between");
                if (restores) machine.loseDrive();
                {
                    FaultOs os(machine.dir.path("root"));
                    if (op == FULL) {
                        os.setDiskLeft(nth * 256);
                    } else {
                        os.failNth(static_cast<Op>(op), nth + 1, EIO);
                    }
                    const std::string failure = failureOf([&] {
                        restores ? void(ZqLaunchers::restore())
                                 : void(machine.mgr.umountImage(machine.image, false));
                    });
                    struck = op == FULL ? nth < 40 : os.getNFailed() > 0;
                }
                machine.loseDrive();
                EXPECT_TRUE(ZqLaunchers::restore().failures.isEmpty());
                for (const char* name : {"Manifests/late.item", "Manifests/Pending/y.item"}) {
                    EXPECT_EQ(machine.dir.read(M::DATA + name), "came between");
                    fs::remove(machine.dir.path(M::DATA + name));
                }
                EXPECT_EQ(machine.changesSince(before), "");
                EXPECT_EQ(machine.launchersFile(), "");
            }
        }
    }
}

TEST(Launchers, TwoFileSystems) {
    // What is set aside lies on another disk than the launcher's folder.
    const std::string elsewhere = anotherFileSystem();
    if (elsewhere.empty()) GTEST_SKIP() << "no folder of another file system can be written";
    const TempDir other(elsewhere);
    for (const bool isCutOff : {false, true}) {
        M machine;
        fs::create_directory_symlink(other.path(), machine.dir.path(M::PROGRAM_DATA) + "VOLM");
        // Halves of moves that were cut off.
        other.write("EpicGamesLauncher/Manifests.tavrin-moving/x.item", "half");
        const auto before = machine.state();
        machine.mount();
        EXPECT_EQ(other.read("EpicGamesLauncher/Manifests/GUID-1.item"), "the player's own");
        machine.dir.write(M::DATA + "Manifests/late.item", "came between");
        if (isCutOff) {
            machine.loseDrive();
            // As a return that was cut off leaves it: the copy is whole, the original half removed.
            const TempDir kept;
            const fs::path aside = other.path("EpicGamesLauncher");
            fs::copy(aside, kept.path("aside"), fs::copy_options::recursive);
            EXPECT_TRUE(ZqLaunchers::restore().failures.isEmpty());
            fs::copy(kept.path("aside"), aside, fs::copy_options::recursive);
            fs::remove(aside / "Manifests/GUID-1.item");
        } else {
            machine.mgr.umountImage(machine.image, false);
        }
        EXPECT_TRUE(ZqLaunchers::restore().failures.isEmpty());
        EXPECT_EQ(machine.dir.read(M::DATA + "Manifests/late.item"), "came between");
        fs::remove(machine.dir.path(M::DATA + "Manifests/late.item"));
        EXPECT_EQ(machine.changesSince(before), "");
        EXPECT_FALSE(other.exists("EpicGamesLauncher"));
    }
}

TEST(Launchers, TheOriginalLaunchValuesOutliveACut) {
    bool struck = true;
    std::mt19937_64 random(19);
    for (int64 step = 1; struck && !testing::Test::HasFailure(); ++step) {
        for (const int loss : {0, 1, 2}) {
            SCOPED_TRACE(std::to_string(step) + ", loss " + std::to_string(loss));
            M machine;
            machine.app.access = {"Steam"};
            machine.mount();
            machine.mgr.umountImage(machine.image, false);
            // The launcher has moved.
            M::set("HKLM/SOFTWARE/WOW6432Node/Valve/Steam", "InstallPath", "C:\\Elsewhere");
            const auto mount = [&](bool noLaunchers) {
                ZqMountMgr mgr;
                ZqMountMgr::MountRequest request{
                    ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, "", Machine::SIZE_RAW, 4096,
                    machine.cursor};
                request.noLaunchers = noLaunchers;
                failureOf([&] { mgr.mountImageZQF(request, ""); });
                return mgr.getLaunch().cmd.str();
            };
            {
                FaultOs os(machine.dir.path("image"));
                os.cutPowerAt(os.getNSteps() + step);
                mount(false);
                struck = os.isCut();
                machine.loseDrive();
                if (struck && loss == 0) os.revive();
                if (struck && loss == 1) os.crash();
                if (struck && loss == 2) os.crash(&random);
            }
            EXPECT_EQ(mount(true), "{{ZQDRIVE}}/alpha.exe");
        }
    }
}
