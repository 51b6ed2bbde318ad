#include "BaseTest.h"
#include "ScriptedDriver.h"
#include "ZqLog.h"
#include "ZqRuntimeInfo.h"
#include "ZqSysEnv.h"

using testing::AnyOf;

namespace {

/// Whether the facts of the machine that this test runs on are there, each list with its length.
void expectFacts(const ZqRuntimeInfo& info) {
    EXPECT_THAT(info.winVer.str(), HasSubstr(" kernel "));
    EXPECT_EQ(info.rteVer, ZqSysEnv::getRTEVersion() + " 3.4.10");
    EXPECT_GT(info.ramTotal, 0);
    EXPECT_GE(info.ramFree, 0);
    EXPECT_LE(info.ramFree, info.ramTotal);
    EXPECT_GT(info.cpuNames.getSize(), 0);
    EXPECT_EQ(info.cpuNames.getSize(), info.cpuCores.getSize());
    EXPECT_EQ(info.gpuNames.getSize(), info.gpuDrivers.getSize());
    EXPECT_EQ(info.gpuNames.getSize(), info.gpuRam.getSize());
    EXPECT_GT(info.driveNames.getSize(), 0);
    for (const int64 n : {info.driveFileSystems.getSize(), info.driveTypes.getSize(),
                          info.driveSizes.getSize(), info.driveFree.getSize()})
        EXPECT_EQ(n, info.driveNames.getSize());
    EXPECT_FALSE(info.driveNames.contains("stale"));
    EXPECT_FALSE(info.gpuRam.contains(-7));
}

/// A record with the facts of an earlier call.
ZqRuntimeInfo stale() {
    ZqRuntimeInfo info;
    info.gpuRam << -7;
    info.gpuNames << "stale";
    info.gpuDrivers << "stale";
    info.driveNames << "stale";
    info.driveFileSystems << "stale";
    info.driveTypes << 3;
    info.driveSizes << 1;
    info.driveFree << 1;
    info.cpuNames << "stale";
    info.cpuCores << 1;
    return info;
}

class Logged {
public:
    Logged() {
        ZqLog::setSink([this](const SxString&, const SxString& text) { lines += text.str() + "\n"; });
    }
    ~Logged() { ZqLog::setSink(nullptr); }
    Logged(const Logged&) = delete;
    Logged& operator=(const Logged&) = delete;
    std::string lines;
};

} // namespace

TEST(HardwareSpecs, FillARecordAnew) {
    const TempDir dir;
    ScriptedDriver driver(dir.path());
    ZqRuntimeInfo info = stale();
    for (int i = 0; i < 2; ++i) {
        info.getHardwareSpecs();
        expectFacts(info);
        EXPECT_EQ(info.zqddVer, "3.4.10");
        EXPECT_EQ(info.zqfmVer, "3.4.10");
    }
}

TEST(HardwareSpecs, NeedAServiceButForTheFactsAlone) {
    for (const char* call : {"DriveGetVersion", "GuardGetVersion"}) {
        SCOPED_TRACE(call);
        const TempDir dir;
        ScriptedDriver driver(dir.path());
        driver.fail(call);
        ZqRuntimeInfo info = stale();
        EXPECT_THAT(failureOf([&] { info.getHardwareSpecs(); }),
                    HasSubstr("Cannot get TAVRIN driver version"));
        EXPECT_EQ(info.zqfmVer, "");
        EXPECT_TRUE(info.driveNames.contains("stale"));
        const int64 nCalls = driver.nCalls;
        info.getMachineFacts();
        expectFacts(info);
        EXPECT_EQ(info.zqfmVer, "");
        EXPECT_EQ(driver.nCalls, nCalls);
    }
}

TEST(HardwareSpecs, LogWhatCantBeFoundOut) {
    ::unsetenv("DISPLAY");
    Logged log;
    ZqRuntimeInfo info = stale();
    {
        FaultOs os("/proc");
        os.failNth(Op::Open, 1, EACCES, "", true);
        info.getMachineFacts();
    }
    EXPECT_EQ(info.ramTotal, -1);
    EXPECT_EQ(info.driveNames.getSize() + info.driveTypes.getSize() + info.driveFree.getSize(), 0);
    // The system's own file and sysfs are there.
    EXPECT_THAT(info.winVer.str(), testing::Not(AnyOf("Unknown", HasSubstr(" kernel "))));
    EXPECT_EQ(info.cpuNames.first(), "Unknown");
    for (const char* name : {"osrelease", "meminfo", "cpuinfo", "mountinfo"}) {
        EXPECT_THAT(log.lines,
                    testing::ContainsRegex("ZqRuntimeInfo::getHardwareSpecs: [^\n]*" + std::string(name)));
    }
    // An id that can't be read takes nothing else.
    ZqRuntimeInfo other;
    FaultOs os("/etc");
    os.failNth(Op::Open, 1, EACCES, "machine-id", true);
    other.getMachineFacts();
    EXPECT_EQ(other.hostId, "Unknown");
    expectFacts(other);
    EXPECT_THAT(log.lines, HasSubstr("getHardwareSpecs: Cannot open file '/etc/machine-id'"));
}
