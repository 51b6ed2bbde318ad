#include "SxException.h"
#include "ZqDriveFacts.h"
#include "ZqGraphicsFacts.h"
#include "ZqLog.h"
#include "ZqMemoryFacts.h"
#include "ZqMountMgr.h"
#include "ZqProcessorFacts.h"
#include "ZqRuntimeInfo.h"
#include "ZqScreenFacts.h"
#include "ZqSysEnv.h"
#include "ZqSystemFacts.h"

#include <vector>

// The part of the record that needs the drive service and the system, which records don't know.

namespace {

void log(const SxString& text) {
    zqLogMsg("base", "ZqRuntimeInfo::getHardwareSpecs: " + text);
}

void log(const std::vector<SxString>& faults) {
    for (const SxString& fault : faults)
        log(fault);
}

void fillMemory(ZqRuntimeInfo* info) {
    const ZqMemoryFacts facts = ZqMemoryFacts::read();
    log(facts.faults);
    if (facts.totalMiB < 0) return;
    info->ramTotal = facts.totalMiB;
    info->ramFree = facts.freeMiB;
    info->ramLoad = facts.loadPercent;
}

void fillHostId(ZqRuntimeInfo* info) {
    try {
        const SxString id = ZqSysEnv::getMachineId();
        if (!id.isEmpty()) info->hostId = id;
    } catch (const SxException& e) {
        log(e.toString(SxException::ShowMessage, ": "));
    }
}

void fillGraphics(ZqRuntimeInfo* info) {
    const ZqGraphicsFacts facts = ZqGraphicsFacts::read();
    log(facts.faults);
    for (const ZqGraphicsFacts::Card& card : facts.cards) {
        info->gpuNames << card.name;
        info->gpuDrivers << card.driver;
        info->gpuRam << card.memory;
    }
}

void fillProcessors(ZqRuntimeInfo* info) {
    const ZqProcessorFacts facts = ZqProcessorFacts::read();
    log(facts.faults);
    for (const ZqProcessorFacts::Processor& processor : facts.processors) {
        info->cpuNames << processor.name;
        info->cpuCores << processor.nCores;
    }
}

void fillDrives(ZqRuntimeInfo* info) {
    const ZqDriveFacts facts = ZqDriveFacts::read();
    log(facts.faults);
    for (const ZqDriveFacts::Drive& drive : facts.drives) {
        info->driveNames << drive.name;
        info->driveFileSystems << drive.fileSystem;
        info->driveTypes << drive.type;
        info->driveSizes << drive.size;
        info->driveFree << drive.free;
    }
}

void emptyLists(ZqRuntimeInfo* info) {
    info->gpuNames.removeAll();
    info->gpuDrivers.removeAll();
    info->gpuRam.removeAll();
    info->cpuNames.removeAll();
    info->cpuCores.removeAll();
    info->driveNames.removeAll();
    info->driveFileSystems.removeAll();
    info->driveTypes.removeAll();
    info->driveSizes.removeAll();
    info->driveFree.removeAll();
}

} // namespace

void ZqRuntimeInfo::getHardwareSpecs() {
    getSystemVersions();
    zqddVer = ZqMountMgr::getDriveVersion();
    zqfmVer = ZqMountMgr::getGuardVersion();
    getMachineFacts();
}

SxString ZqRuntimeInfo::getKnownSpecs() {
    try {
        getHardwareSpecs();
        return {};
    } catch (const SxException& e) {
        zqddVer = zqfmVer = SxString();
        getMachineFacts();
        return e.toString(SxException::ShowMessage, ": ");
    }
}

void ZqRuntimeInfo::getSystemVersions() {
    // With that of the drive service which this library is made for.
    rteVer = ZqSysEnv::getRTEVersion() + " " + ZqMountMgr::DRIVER_VERSION;
    const ZqSystemFacts system = ZqSystemFacts::read();
    log(system.faults);
    if (!(system.name == "Unknown")) winVer = system.name;
}

void ZqRuntimeInfo::getMachineFacts() {
    emptyLists(this);
    getSystemVersions();
    const SxString screen = ZqScreenFacts::read();
    if (!(screen == "Unknown")) resolution = screen;
    fillHostId(this);
    fillMemory(this);
    fillGraphics(this);
    fillProcessors(this);
    fillDrives(this);
}
