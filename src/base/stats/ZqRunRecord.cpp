#include "ZqRunRecord.h"

#include "SxException.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqPreparations.h"
#include "ZqRecordFile.h"
#include "ZqRunFiles.h"

#include <algorithm>
#include <array>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqRunRecord";
constexpr const char* SCHEMA = "zqrun-schema.json";
constexpr int64 MS_PER_S = 1000;

void logFailure(const SxException& e) {
    zqLogMsg("base", "ZqRunRecord: " + e.toString(SxException::ShowMessage, ": "));
}

/// Where nothing stands a time is not known.
void getTime(const SxSymbol& root, const char* key, int64* field) {
    *field = -1;
    ZqRecordFile::get(root, key, field);
}

void readInfo(const SxSymbol& root, ZqRuntimeInfo* info) {
    const std::initializer_list<std::pair<const char*, int64*>> numbers = {
        {"time0", &info->time0},
        {"nStarts", &info->nStarts},
        {"runTime", &info->runTime},
        {"preloadSize", &info->preloadSize},
        {"timeToStart", &info->timeToStart},
        {"timeToReady", &info->timeToReady},
        {"dataAtStart", &info->dataAtStart},
        {"dataAtEnd", &info->dataAtEnd},
        {"imgSize", &info->imageSize},
        {"prefetchSizeMB", &info->prefetchSizeMB},
        {"nUnderflows", &info->nUnderflows},
        {"avgUnderflowTime", &info->avgUnderflowTime},
        {"avgUnderflowSize", &info->avgUnderflowSize},
        {"maxUnderflowTime", &info->maxUnderflowTime},
        {"maxUnderflowSize", &info->maxUnderflowSize},
        {"nOnDemandFetches", &info->nOnDemandFetches},
        {"sumOnDemandSize", &info->sumOnDemandSize},
        {"avgOnDemandSize", &info->avgOnDemandSize},
        {"avgOnDemandTime", &info->avgOnDemandTime},
        {"maxOnDemandTime", &info->maxOnDemandTime},
        {"avgOnDemandQueue", &info->avgOnDemandQueue},
        {"maxOnDemandQueue", &info->maxOnDemandQueue},
        {"nHinted", &info->nHinted},
        {"nHintsUsed", &info->nHintsUsed},
    };
    for (const auto& [key, field] : numbers)
        ZqRecordFile::get(root, key, field);
    const std::initializer_list<std::pair<const char*, SxString*>> texts = {
        {"guid", &info->guid},
        {"id", &info->id},
        {"rteVer", &info->rteVer},
        {"winVer", &info->winVer},
        {"clientToken", &info->clientToken}};
    for (const auto& [key, field] : texts)
        ZqRecordFile::get(root, key, field);
    ZqRecordFile::get(root, "avgSpeed", &info->avgSpeed);
    ZqRecordFile::get(root, "maxSpeed", &info->maxSpeed);
    ZqRecordFile::get(root, "sigmaSpeed", &info->sigmaSpeed);
    ZqRecordFile::get(root, "reqSpeed", &info->reqSpeed);
    ZqRecordFile::get(root, "downloadFromZero", &info->downloadFromZero);
    ZqRecordFile::get(root, "downloadComplete", &info->downloadComplete);
    ZqRecordFile::get(root, "startErr", &info->startErr);
    ZqRecordFile::get(root, "endErr", &info->endErr);
    SxList<SxString> apps;
    ZqRecordFile::get(root, "appsAtStart", &apps);
    for (const SxString& app : apps)
        info->appsAtStart << app;
    info->patchStats = ZqPreparations::fromJson(root.getElem("patchStats", false));
    info->defragStats = ZqPreparations::fromJson(root.getElem("defragStats", false));
}

void appendInfo(const ZqRuntimeInfo& info, SxSymbol* root) {
    root->append("imgSize", info.imageSize);
    root->append("timeToReady", info.timeToReady);
    root->append("maxSpeed", info.maxSpeed);
    if (info.coverage) root->append("coverage", *info.coverage);
    root->append("startErr", info.startErr);
    root->append("endErr", info.endErr);
    if (info.appsAtStart.getSize() > 0) {
        SxSymbol apps = root->append("appsAtStart", SxParserAst::Array);
        for (const SxString& app : info.appsAtStart)
            apps.append(app.makeVisible());
    }
    root->append("sumOnDemandSize", info.sumOnDemandSize);
    root->append("nHinted", info.nHinted);
    root->append("nHintsUsed", info.nHintsUsed);
    if (info.patchStats.started) root->appendCopy("patchStats", ZqPreparations::toJson(info.patchStats));
    if (info.defragStats.started) root->appendCopy("defragStats", ZqPreparations::toJson(info.defragStats));
}

} // namespace

SxSymbol ZqRunRecord::toJson() const {
    SxSymbol root = info.toJson();
    if (!isExitKnown) root.getElem("exitCode").setType(SxParserAst::Null);
    root.append("id", info.id);
    root.append("build", build);
    root.append("order", order);
    root.append("rteVer", info.rteVer);
    root.append("winVer", info.winVer);
    root.append("started", wasStarted);
    root.append("stopped", wasStopped);
    appendInfo(info, &root);
    root.append("lengthMs", lengthMs);
    root.append("startMs", startMs);
    if (firstFrameMs >= 0) root.append("firstFrameMs", firstFrameMs);
    if (waits) {
        root.append("waits", waits->n);
        root.append("longestWaitMs", waits->longestMs);
        root.append("sumWaitMs", waits->sumMs);
    }
    if (firstWindowMs >= 0) root.append("firstWindowMs", firstWindowMs);
    if (lastWaitMs >= 0) root.append("lastWaitMs", lastWaitMs);
    if (mountMs >= 0) root.append("mountMs", mountMs);
    root.append("traceFolder", traceFolder);
    root.append("driveFailure", driveFailure);
    if (!lostLetter.isEmpty()) root.append("lostLetter", lostLetter);
    root.append("bytesOnDemand", link.nOnDemandBytes);
    appendTransfer(&root);
    if (wasStarted) root.appendCopy("accuracy", accuracy.toJson());
    if (asOfMs > 0) root.append("asOf", asOfMs);
    return root;
}

void ZqRunRecord::appendTransfer(SxSymbol* root) const {
    root->append("bytesReceived", link.nBytes);
    root->append("bytesTwice", image.nTwice);
    root->append("requests", link.nRequests);
    root->append("retries", link.nRetries);
    root->append("packed", image.isPacked);
    root->append("missingBytes", nMissing);
}

void ZqRunRecord::chooseFile(const SxString& folder) {
    if (file.isEmpty()) file = ZqRunFiles(folder, ZqRunFiles::Record).next(info.time0, info.id);
}

void ZqRunRecord::write(const SxString& folder) {
    bool isNoted = false;
    chooseFile(folder);
    if (!isWritten) {
        const ZqPreparations done = ZqPreparations::read(folder);
        info.patchStats = done.patch;
        info.defragStats = done.defrag;
        isNoted = done.isNoted;
    }
    rewrite();
    isWritten = true;
    if (isNoted) ZqPreparations::clear(folder);
    // One too many is no harm.
    for (const SxException& e : ZqRunFiles(folder, ZqRunFiles::Record).removeOld(static_cast<size_t>(KEPT)))
        logFailure(e);
}

void ZqRunRecord::rewrite() const {
    try {
        SxSymbol root = toJson();
        // The folder's place is no matter of the run, and the image may be moved.
        const SxString parent = ZqRunFiles::imageOf(file);
        ZqImageFolder::requireNoLink(parent, ZqImageFiles::RUNS);
        if (traceFolder.startsWith(parent))
            root.setElem("traceFolder", SxString(traceFolder.str().substr(parent.str().size())));
        if (!info.clientToken.isEmpty()) root.append("clientToken", info.clientToken);
        ZqRecordFile::write(root, file, 0600);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

ZqRunRecord ZqRunRecord::read(const SxString& file) {
    try {
        const SxSymbol root = ZqRecordFile::read(file, SCHEMA);
        ZqRunRecord record;
        record.file = file;
        record.isWritten = true;
        readInfo(root, &record.info);
        ZqRecordFile::get(root, "build", &record.build);
        ZqRecordFile::get(root, "order", &record.order);
        ZqRecordFile::get(root, "stopped", &record.wasStopped);
        const SxSymbol exit = root.getElem("exitCode", false);
        record.isExitKnown = exit.isValid() && exit.getType() != SxParserAst::Null;
        if (record.isExitKnown) record.info.exitCode = exit.toInt();
        ZqRecordFile::get(root, "lengthMs", &record.lengthMs);
        getTime(root, "startMs", &record.startMs);
        record.wasStarted = record.startMs >= 0;
        ZqRecordFile::get(root, "started", &record.wasStarted);
        getTime(root, "firstFrameMs", &record.firstFrameMs);
        if (root.hasElem("waits")) {
            Waits& waits = record.waits.emplace();
            ZqRecordFile::get(root, "waits", &waits.n);
            ZqRecordFile::get(root, "longestWaitMs", &waits.longestMs);
            ZqRecordFile::get(root, "sumWaitMs", &waits.sumMs);
        }
        getTime(root, "firstWindowMs", &record.firstWindowMs);
        getTime(root, "lastWaitMs", &record.lastWaitMs);
        getTime(root, "mountMs", &record.mountMs);
        ZqRecordFile::get(root, "traceFolder", &record.traceFolder);
        ZqRecordFile::get(root, "driveFailure", &record.driveFailure);
        ZqRecordFile::get(root, "lostLetter", &record.lostLetter);
        ZqRecordFile::get(root, "bytesOnDemand", &record.link.nOnDemandBytes);
        ZqRecordFile::get(root, "bytesReceived", &record.link.nBytes);
        ZqRecordFile::get(root, "bytesTwice", &record.image.nTwice);
        ZqRecordFile::get(root, "requests", &record.link.nRequests);
        ZqRecordFile::get(root, "retries", &record.link.nRetries);
        ZqRecordFile::get(root, "packed", &record.image.isPacked);
        ZqRecordFile::get(root, "missingBytes", &record.nMissing);
        ZqRecordFile::get(root, "asOf", &record.asOfMs);
        const SxSymbol judged = root.getElem("accuracy", false);
        if (judged.isValid()) record.accuracy = ZqRunAccuracy::fromJson(judged);
        // Former versions stated 0 where there was no trace.
        if (record.accuracy.isJudged && root.hasElem("coverage"))
            record.info.coverage = root.getElem("coverage").toDouble();
        return record;
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

std::optional<ZqRunRecord> ZqRunRecord::findOpen(const SxString& folder, int64 nStarts) {
    SxList<SxException> failures;
    std::optional<ZqRunRecord> open;
    for (const ZqRunRecord& record : readLast(folder, KEPT, &failures)) {
        if (record.asOfMs > 0 && record.info.nStarts == nStarts) open = record;
    }
    for (const SxException& e : failures)
        logFailure(e);
    return open;
}

void ZqRunRecord::takeFile(const ZqRunRecord& written) {
    file = written.file;
    isWritten = written.isWritten;
    info.patchStats = written.info.patchStats;
    info.defragStats = written.info.defragStats;
}

void ZqRunRecord::goOnFrom(const ZqRunRecord& former, int64 gapMs) {
    const int64 formerMs = former.lengthMs + gapMs;
    const auto later = [&](int64 own, int64 before) { return own >= 0 ? formerMs + own : before; };
    takeFile(former);
    info.goOnFrom(former.info);
    lastWaitMs = later(lastWaitMs, former.lastWaitMs);
    firstFrameMs = former.firstFrameMs >= 0 ? former.firstFrameMs : later(firstFrameMs, -1);
    firstWindowMs = former.firstWindowMs;
    startMs = former.startMs;
    mountMs = former.mountMs;
    // A mean of the whole run, by the time of its parts.
    const double ownShare =
        static_cast<double>(lengthMs) / static_cast<double>(std::max<int64>(formerMs + lengthMs, 1));
    info.avgSpeed = former.info.avgSpeed * (1 - ownShare) + info.avgSpeed * ownShare;
    lengthMs += formerMs;
    info.runTime += std::max<int64>(formerMs - startMs, 0) / MS_PER_S;
    info.timeToStart = std::max<int64>(startMs, 0) / MS_PER_S;
    info.timeToReady = std::max<int64>(firstFrameMs, 0) / MS_PER_S;
    if (former.waits) {
        if (!waits) waits.emplace();
        waits->n += former.waits->n;
        waits->longestMs = std::max(waits->longestMs, former.waits->longestMs);
        waits->sumMs += former.waits->sumMs;
    }
    link.nBytes += former.link.nBytes;
    link.nOnDemandBytes += former.link.nOnDemandBytes;
    link.nRequests += former.link.nRequests;
    link.nRetries += former.link.nRetries;
    image.nTwice += former.image.nTwice;
    image.isPacked = image.isPacked || former.image.isPacked;
}

void ZqRunRecord::noteToken(const SxString& folder, const SxString& id, const SxString& token) {
    const ZqRunFiles files(folder, ZqRunFiles::Record);
    for (const SxString& name : files.list()) {
        if (!ZqRunFiles::isRecordOf(name, id)) continue;
        ZqRunRecord record = read(files.getFolder() + name);
        if (!(record.info.id == id)) continue;
        record.info.clientToken = token;
        record.rewrite();
    }
}

SxList<ZqRunRecord> ZqRunRecord::readLast(const SxString& folder, int64 n, SxList<SxException>* failures) {
    const ZqRunFiles files(folder, ZqRunFiles::Record);
    const std::vector<SxString> names = files.list();
    SxList<ZqRunRecord> records;
    const size_t first = names.size() - std::min(names.size(), static_cast<size_t>(std::max<int64>(n, 0)));
    for (size_t i = first; i < names.size(); ++i) {
        try {
            records << read(files.getFolder() + names[i]);
            records.last().info.path = folder;
        } catch (const SxException& e) {
            *failures << e;
        }
    }
    return records;
}
