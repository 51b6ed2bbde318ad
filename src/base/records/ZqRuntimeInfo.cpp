#include "ZqRuntimeInfo.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqRecordFile.h"
#include "ZqSysEnv.h"

#include <algorithm>

using SxParserKit::SxSymbol;

namespace {
constexpr const char* UNIT = "src/base/ZqRunTimeInfo";
}

void ZqRuntimeInfo::Stats::begin(int64 nowMs) {
    *this = Stats();
    started = true;
    timeSec = nowMs;
}

void ZqRuntimeInfo::Stats::end(int64 nowMs, int64 nBytes) {
    timeSec = (nowMs - timeSec) / 1000;
    bytes = nBytes;
    bytesPerSec = timeSec > 0 ? bytes / timeSec : bytes;
}

ZqRuntimeInfo::ZqRuntimeInfo() : id(ZqSysEnv::getNewGUID()) {
}

void ZqRuntimeInfo::reset() {
    ZqRuntimeInfo fresh;
    fresh.orgName = orgName;
    fresh.clientToken = clientToken;
    fresh.appsAtStart = appsAtStart;
    fresh.rteVer = rteVer;
    fresh.zqddVer = zqddVer;
    fresh.zqfmVer = zqfmVer;
    fresh.winVer = winVer;
    fresh.gpuNames = gpuNames;
    fresh.gpuDrivers = gpuDrivers;
    fresh.gpuRam = gpuRam;
    fresh.ramTotal = ramTotal;
    fresh.ramFree = ramFree;
    fresh.ramLoad = ramLoad;
    fresh.cpuNames = cpuNames;
    fresh.cpuCores = cpuCores;
    fresh.resolution = resolution;
    fresh.hostId = hostId;
    fresh.driveNames = driveNames;
    fresh.driveFileSystems = driveFileSystems;
    fresh.driveTypes = driveTypes;
    fresh.driveSizes = driveSizes;
    fresh.driveFree = driveFree;
    *this = fresh;
}

void ZqRuntimeInfo::goOnFrom(const ZqRuntimeInfo& former) {
    const auto mean = [](int64 own, int64 nOwn, int64 before, int64 nBefore) {
        return nOwn + nBefore > 0 ? (own * nOwn + before * nBefore) / (nOwn + nBefore) : 0;
    };
    avgUnderflowTime = mean(avgUnderflowTime, nUnderflows, former.avgUnderflowTime, former.nUnderflows);
    avgUnderflowSize = mean(avgUnderflowSize, nUnderflows, former.avgUnderflowSize, former.nUnderflows);
    maxUnderflowTime = std::max(maxUnderflowTime, former.maxUnderflowTime);
    maxUnderflowSize = std::max(maxUnderflowSize, former.maxUnderflowSize);
    nUnderflows += former.nUnderflows;
    const int64 nOwn = nOnDemandFetches, nBefore = former.nOnDemandFetches;
    avgOnDemandSize = mean(avgOnDemandSize, nOwn, former.avgOnDemandSize, nBefore);
    avgOnDemandTime = mean(avgOnDemandTime, nOwn, former.avgOnDemandTime, nBefore);
    avgOnDemandQueue = mean(avgOnDemandQueue, nOwn, former.avgOnDemandQueue, nBefore);
    maxOnDemandTime = std::max(maxOnDemandTime, former.maxOnDemandTime);
    maxOnDemandQueue = std::max(maxOnDemandQueue, former.maxOnDemandQueue);
    nOnDemandFetches += nBefore;
    sumOnDemandSize += former.sumOnDemandSize;
    nHinted += former.nHinted;
    nHintsUsed += former.nHintsUsed;
    maxSpeed = std::max(maxSpeed, former.maxSpeed);
    reqSpeed = former.reqSpeed;
    id = former.id;
    time0 = former.time0;
    preloadSize = former.preloadSize;
    prefetchSizeMB = former.prefetchSizeMB;
    dataAtStart = former.dataAtStart;
    downloadFromZero = former.downloadFromZero;
    appsAtStart = former.appsAtStart;
    clientToken = former.clientToken;
}

SxSymbol ZqRuntimeInfo::toJson() const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("version", version);
    root.append("guid", guid);
    root.append("time0", time0);
    root.append("nStarts", nStarts);
    root.append("runTime", runTime);
    root.append("preloadSize", preloadSize);
    root.append("timeToStart", timeToStart);
    root.append("dataAtStart", dataAtStart);
    root.append("dataAtEnd", dataAtEnd);
    root.append("downloadFromZero", downloadFromZero);
    root.append("downloadComplete", downloadComplete);
    root.append("avgSpeed", avgSpeed);
    root.append("sigmaSpeed", sigmaSpeed);
    root.append("reqSpeed", reqSpeed);
    root.append("prefetchSizeMB", prefetchSizeMB);
    root.append("nUnderflows", nUnderflows);
    root.append("avgUnderflowTime", avgUnderflowTime);
    root.append("avgUnderflowSize", avgUnderflowSize);
    root.append("maxUnderflowTime", maxUnderflowTime);
    root.append("maxUnderflowSize", maxUnderflowSize);
    root.append("nOnDemandFetches", nOnDemandFetches);
    root.append("avgOnDemandSize", avgOnDemandSize);
    root.append("avgOnDemandTime", avgOnDemandTime);
    root.append("maxOnDemandTime", maxOnDemandTime);
    root.append("avgOnDemandQueue", avgOnDemandQueue);
    root.append("maxOnDemandQueue", maxOnDemandQueue);
    root.append("exitCode", exitCode);
    return root;
}

void ZqRuntimeInfo::write(const SxString& folder) const {
    SxString file = (folder.isEmpty() ? path : folder);
    if (!file.isEmpty() && !file.endsWith("/")) file += "/";
    file += ZqImageFiles::RUNTIME_JSON;
    try {
        ZqRecordFile::write(toJson(), file);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + SxFileInfo(file).getAbsPath(), UNIT, __LINE__);
    }
}

SxString ZqRuntimeInfo::boolToString(bool value) {
    return value ? "true" : "false";
}
