#pragma once

#include "../base/BaseTest.h"
#include "Builders.h"
#include "ScriptedDriver.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"
#include "ZqMountMgr.h"

#include <algorithm>

/// A machine root of its own with an image, a drive service that plays a script, and the drive E: that it
/// shows once it is told to mount.
class Machine {
public:
    Machine() {
        TestRandom random;
        const TestImage content(random, 8);
        content.write(dir.prefix() + "image/");
        app = ZqAppParams(dir.prefix() + "image/");
        cursor = content.nZqf();
        for (const char* folder : {"root/dosdevices", "root/drive_c", "volume"})
            fs::create_directories(dir.path(folder));
        fs::create_directory_symlink(dir.path("volume"), dir.path("root/dosdevices/e:"));
        ZqMachineRoot::set(dir.path("root"));
        ZqLog::setSink([this](const SxString&, const SxString& text) { log.push_back(text.str()); });
    }
    ~Machine() {
        ZqLog::setSink({});
        ZqMachineRoot::set("");
    }

    SxString mount(const SxString& traceFolder = "", ZqMountMgr::MountMode mode = ZqMountMgr::ReadOnly) {
        app.write(dir.prefix() + "image/");
        return mgr.mountImageZQF(mode, ZqMountMgr::Removable, image, SIZE_RAW, 4096, cursor, false,
                                 traceFolder, "mountscan");
    }
    SxString mountAlone(bool awaitFileSystem = true, ZqMountMgr::DeviceMode mode = ZqMountMgr::Removable) {
        return mgr.mountImage(ZqMountMgr::ReadOnly, mode, image, "", false, awaitFileSystem, false, SIZE_RAW,
                              4096, cursor);
    }
    int64 elapsedMs() { return driver.clock().elapsedMs(); }
    int64 nLogged(const std::string& part) const {
        return std::count_if(log.begin(), log.end(),
                             [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }

    static constexpr uint64 SIZE_RAW = 8 * 4096;
    const TempDir dir;
    const SxString image = dir.path("image");
    const std::string name = image.str();
    uint64 cursor = 0;
    ZqAppParams app;
    ScriptedDriver driver{dir.path("volume")};
    ZqMountMgr mgr;
    std::vector<std::string> log;
};

constexpr const char* DRIVER_ERROR = "TAVRIN Driver Error";
