#include "ZqPreparations.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {

constexpr int64 VERSION = 2;
constexpr int64 PATIENCE_MS = 5000;
constexpr const char* SCHEMA = "zqrun-schema.json";

SxString noteFile(const SxString& image) {
    return ZqImageFolder::prefix(image) + ZqImageFiles::PREPARATIONS;
}

void addTo(ZqRuntimeInfo::Stats* sum, const ZqRuntimeInfo::Stats& more) {
    if (!more.started) return;
    sum->started = true;
    sum->timeSec += more.timeSec;
    sum->bytes += more.bytes;
    sum->bytesPerSec = sum->timeSec > 0 ? sum->bytes / sum->timeSec : sum->bytes;
}

void logFailure(const SxException& e) {
    zqLogMsg("base", "ZqPreparations: " + e.toString(SxException::ShowMessage, ": "));
}

} // namespace

SxSymbol ZqPreparations::toJson(const ZqRuntimeInfo::Stats& stats) {
    SxSymbol object;
    object.setType(SxParserAst::Object);
    object.append("timeSec", stats.timeSec);
    object.append("bytes", stats.bytes);
    object.append("bytesPerSec", stats.bytesPerSec);
    return object;
}

ZqRuntimeInfo::Stats ZqPreparations::fromJson(const SxSymbol& object) {
    ZqRuntimeInfo::Stats stats;
    if (!object.isValid()) return stats;
    stats.started = true;
    ZqRecordFile::get(object, "timeSec", &stats.timeSec);
    ZqRecordFile::get(object, "bytes", &stats.bytes);
    ZqRecordFile::get(object, "bytesPerSec", &stats.bytesPerSec);
    return stats;
}

ZqPreparations ZqPreparations::read(const SxString& image) {
    ZqPreparations noted;
    try {
        if (SxFSAction::isGone(noteFile(image))) return noted;
        const SxSymbol root = ZqRecordFile::read(noteFile(image), SCHEMA);
        noted.patch = fromJson(root.getElem("patchStats", false));
        noted.defrag = fromJson(root.getElem("defragStats", false));
        noted.isNoted = true;
    } catch (const SxException& e) {
        logFailure(e);
    }
    return noted;
}

void ZqPreparations::add(const SxString& image, const ZqRuntimeInfo& info) {
    if (!info.patchStats.started && !info.defragStats.started) return;
    try {
        ZqImageFolder::requireNoLink(image, ZqImageFiles::RUNS);
        const SxPtr<ZqImageLock> alone =
            ZqImageLock::await(image, ZqImageLock::Record, ZqImageLock::Exclusive, "record", PATIENCE_MS);
        ZqPreparations noted = read(image);
        addTo(&noted.patch, info.patchStats);
        addTo(&noted.defrag, info.defragStats);
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", VERSION);
        if (noted.patch.started) root.appendCopy("patchStats", toJson(noted.patch));
        if (noted.defrag.started) root.appendCopy("defragStats", toJson(noted.defrag));
        ZqRecordFile::write(root, noteFile(image), 0600);
    } catch (const SxException& e) {
        logFailure(e);
    }
}

void ZqPreparations::clear(const SxString& image) {
    try {
        SxFSAction::rm(noteFile(image));
    } catch (const SxException& e) {
        logFailure(e);
    }
}
