#include "ZqDriveFacts.h"
#include "ZqHttpLimits.h"
#include "ZqReportSections.h"
#include "ZqReportUpload.h"
#include "ZqRuntimeInfo.h"

#include <cctype>
#include <cmath>

// Numbers go out exactly: integers by their digits, also those beyond 63 bits, and floating-point ones as the
// shortest text that reads back as the same number.

using SxParserKit::SxSymbol;

namespace {

constexpr double LEAST = 0.000001; ///< of a speed or a coverage that counts
constexpr double THOUSAND = 1000.;

/// Texts come from the machine and its programs, and no reader of JSON takes any bytes.
SxString clean(const SxString& text) {
    std::string result = text.validUtf8().str();
    for (size_t i = 0; (i = result.find('\0', i)) != std::string::npos;)
        result.replace(i, 1, "\uFFFD");
    return SxString(std::move(result));
}

/// Element `i` of a list that may be shorter than the one it belongs to.
template<class T>
T at(const SxList<T>& list, int64 i) {
    return i < list.getSize() ? list(i) : T();
}

void put(SxSymbol* object, const char* key, uint64 number) {
    if (std::in_range<int64>(number)) {
        object->append(key, number);
    } else {
        object->append(key, SxParserAst::BigInt).setBigInt(SxString(number));
    }
}

/// A host path has no letter in front of a colon, and up to its first colon it would be the whole path, which
/// may tell a person's name. So the file system that holds the image stands for it, by its name in `drives`.
SxString hostingDrive(const SxString& path) {
    const std::string& text = path.str();
    const bool hasLetter =
        text.size() > 1 && text[1] == ':' && std::isalpha(static_cast<unsigned char>(text[0])) != 0;
    return hasLetter || path.isEmpty() ? path.left(":") : ZqDriveFacts::nameOf(path);
}

void putDrives(SxSymbol list, const ZqRuntimeInfo& info) {
    int64 i = 0;
    for (const SxString& name : info.driveNames) {
        const uint64 size = at(info.driveSizes, i), nFree = at(info.driveFree, i);
        // Where the free bytes aren't known, those in use aren't either.
        const bool isKnown = i < info.driveFree.getSize() && size > nFree;
        SxSymbol drive = list.append(SxParserAst::Object);
        drive.append("drive", clean(name));
        drive.append("driveType", at(info.driveTypes, i));
        put(&drive, "capacityBytes", size);
        put(&drive, "usageBytes", isKnown ? size - nFree : 0);
        ++i;
    }
}

void putMachine(SxSymbol env, const ZqRuntimeInfo& info) {
    env.append("ramBytes", info.ramTotal);
    SxSymbol cpus = env.append("cpus", SxParserAst::Array);
    int64 i = 0;
    for (const SxString& name : info.cpuNames) {
        SxSymbol cpu = cpus.append(SxParserAst::Object);
        cpu.append("cpu", clean(name));
        cpu.append("nCores", at(info.cpuCores, i++));
    }
    SxSymbol gpus = env.append("gpus", SxParserAst::Array);
    i = 0;
    for (const SxString& name : info.gpuNames) {
        SxSymbol gpu = gpus.append(SxParserAst::Object);
        gpu.append("gpu", clean(name));
        gpu.append("driverVer", clean(at(info.gpuDrivers, i)));
        gpu.append("vramBytes", at(info.gpuRam, i++));
    }
    env.append("hostingDrive", clean(hostingDrive(info.path)));
    putDrives(env.append("drives", SxParserAst::Array), info);
    env.append("winVer", clean(info.winVer));
    env.append("resolution", clean(info.resolution));
}

void putApps(SxSymbol apps, const ZqRuntimeInfo& info) {
    if (info.appsAtStart.getSize() == 0) return;
    SxSymbol list = apps.append("appsAtStart", SxParserAst::Array);
    for (const SxString& name : info.appsAtStart)
        list.append(clean(name));
}

void putRun(SxSymbol run, const ZqRuntimeInfo& info) {
    run.append("tStartSec", info.timeToStart);
    run.append("tTotalSec", info.runTime);
    run.append("exit", info.exitCode);
}

void putDownload(SxSymbol download, const ZqRuntimeInfo& info) {
    const auto inBps = [](double speed) { return speed * THOUSAND * THOUSAND; };
    download.append("throughputAvgBps", inBps(info.avgSpeed));
    download.append("throughputSigmaBps", inBps(info.sigmaSpeed));
    download.append("throughputMaxBps", inBps(info.maxSpeed));
    download.append("throughputReqBps", inBps(info.reqSpeed));
    download.append("preloadBytes", info.preloadSize);
    download.append("tReadySec", info.timeToReady);
    download.append("initialDl", info.downloadFromZero);
    download.append("dlFinished", info.downloadComplete);
    download.append("idx0", info.dataAtStart);
    download.append("idx1", info.dataAtEnd);
    download.append("imgSize", info.imageSize);
}

void putOnDemand(SxSymbol onDemand, const ZqRuntimeInfo& info) {
    onDemand.append("n", info.nOnDemandFetches);
    onDemand.append("tMaxSec", static_cast<double>(info.maxOnDemandTime) / 1000.);
    onDemand.append("tAvgSec", static_cast<double>(info.avgOnDemandTime) / 1000.);
    onDemand.append("sizeAvgBytes", info.avgOnDemandSize);
    onDemand.append("sizeAvgQ", info.avgOnDemandQueue);
    onDemand.append("sizeMaxQ", info.maxOnDemandQueue);
    onDemand.append("nFailed", info.nUnderflows);
}

void putPreparation(SxSymbol preparation, const ZqRuntimeInfo& info) {
    preparation.append("tPatchSec", info.patchStats.timeSec);
    preparation.append("tDefragSec", info.defragStats.timeSec);
}

} // namespace

SxSymbol ZqRuntimeInfo::toReport(const SxList<SxString>& sections, bool update) const {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    if (!update) root.append("id", clean(id));
    root.append("orgName", clean(orgName));
    if (!update && startErr) root.append("startErr", true);
    if (update && endErr) root.append("endErr", true);
    if (!update) {
        root.append("rteVer", clean(rteVer));
        root.append("zqddVer", clean(zqddVer));
        root.append("zqfmVer", clean(zqfmVer));
    }
    const auto section = [&](const char* name, bool holds, auto fill) {
        if (holds && sections.contains(name)) fill(root.append(name, SxParserAst::Object), *this);
    };
    section(ZqReportSections::ENV, !update, putMachine);
    section(ZqReportSections::APPS, true, putApps);
    section(ZqReportSections::HOST, !update,
            [](SxSymbol host, const ZqRuntimeInfo& info) { host.append("hostId", clean(info.hostId)); });
    section(ZqReportSections::RUN, update && runTime > 0, putRun);
    section(ZqReportSections::DOWNLOAD, update && avgSpeed > LEAST, putDownload);
    section(ZqReportSections::ON_DEMAND, update && nOnDemandFetches > 0, putOnDemand);
    section(ZqReportSections::TRACE, update && coverage.value_or(0) > LEAST,
            [](SxSymbol trace, const ZqRuntimeInfo& info) { trace.append("cov", *info.coverage); });
    section(ZqReportSections::PREPARATION, update && (patchStats.timeSec != 0 || defragStats.timeSec != 0),
            putPreparation);
    return root;
}

SxString ZqRuntimeInfo::upload(const SxString& url, const SxMap<SxString, SxString>& headers,
                               // NOLINTNEXTLINE(performance-unnecessary-value-param): as callers know it
                               SxList<SxString> sections, bool update) {
    return upload(url, headers, sections, update, ZqHttpLimits());
}

SxString ZqRuntimeInfo::upload(const SxString& url, const SxMap<SxString, SxString>& headers,
                               const SxList<SxString>& sections, bool update, const ZqHttpLimits& limits) {
    const auto document = [&] { return toReport(sections, update).toJson(); };
    clientToken = ZqReportUpload::send(url, headers, document, update, clientToken, limits);
    return clientToken;
}
