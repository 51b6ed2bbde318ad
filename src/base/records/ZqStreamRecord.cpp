#include "ZqStreamRecord.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMutex.h"
#include "SxOs.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqRecordFile.h"

using SxParserKit::SxSymbol;

namespace {
constexpr const char* UNIT = "src/base/ZqStreamRecord";
constexpr int64 VERSION = 2;
/// Nobody needs more than a moment for a change.
constexpr int64 PATIENCE_MS = 5000;

SxString recordFile(const SxString& image) {
    return ZqImageFolder::prefix(image) + ZqImageFiles::STREAM_JSON;
}
} // namespace

ZqStreamRecord::Stamp ZqStreamRecord::Stamp::of(const SxString& image) {
    SxStat info;
    const SxString file = ZqImageFolder::prefix(image) + ZqImageFiles::ZQF;
    if (SxOs::get().stat(SxOs::hostPath(file), &info) != 0) return {};
    return {info.size, info.modifiedMs};
}

ZqStreamRecord::Left ZqStreamRecord::Left::of(const SxString& image) {
    SxStat info;
    const SxString file = ZqImageFolder::prefix(image) + ZqImageFiles::ZQF;
    if (SxOs::get().stat(SxOs::hostPath(file), &info) != 0) return {};
    return {info.size, info.modifiedNs};
}

bool ZqStreamRecord::isVerified(const SxString& image, const SxString& digest) const {
    return verified == digest && verifiedStamp == Stamp::of(image);
}

void ZqStreamRecord::noteWrites(const SxString& image) {
    ZqStreamRecord old;
    old.read(image);
    if (old.isWritten) return;
    update(image, [](ZqStreamRecord* record) { record->isWritten = true; });
}

void ZqStreamRecord::read(const SxString& image) {
    *this = ZqStreamRecord();
    const SxString file = recordFile(image);
    if (!SxFSAction::exists(file)) return;
    try {
        const SxSymbol root = ZqRecordFile::read(file, "zqstream-schema.json");
        ZqRecordFile::get(root, "url", &url);
        ZqRecordFile::get(root, "cacert", &trustFile);
        ZqRecordFile::get(root, "proxy", &proxy);
        ZqRecordFile::get(root, "nStarts", &nStarts);
        ZqRecordFile::get(root, "nUntraced", &nUntraced);
        ZqRecordFile::get(root, "application", &application);
        ZqRecordFile::get(root, "verified", &verified);
        ZqRecordFile::get(root, "verifiedSize", &verifiedStamp.size);
        ZqRecordFile::get(root, "verifiedTime", &verifiedStamp.modifiedMs);
        ZqRecordFile::get(root, "leftSize", &left.size);
        ZqRecordFile::get(root, "leftTime", &left.modifiedNs);
        ZqRecordFile::get(root, "written", &isWritten);
        const SxSymbol launchObject = root.getElem("launch", false);
        if (!launchObject.isValid()) return;
        launch.emplace();
        launch->original.read(launchObject.getElem("original"));
        for (const SxSymbol& values : launchObject.getElem("written").toList()) {
            launch->written.append(ZqLaunchValues());
            launch->written.last().read(values);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

void ZqStreamRecord::write(const SxString& image) const {
    const SxString file = recordFile(image);
    try {
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("version", VERSION);
        if (!url.isEmpty()) root.append("url", url);
        if (!trustFile.isEmpty()) root.append("cacert", trustFile);
        if (!proxy.isEmpty()) root.append("proxy", proxy);
        root.append("nStarts", nStarts);
        if (nUntraced > 0) root.append("nUntraced", nUntraced);
        if (!application.isEmpty()) root.append("application", application);
        if (!verified.isEmpty()) {
            root.append("verified", verified);
            root.append("verifiedSize", verifiedStamp.size);
            root.append("verifiedTime", verifiedStamp.modifiedMs);
        }
        if (left.size >= 0) {
            root.append("leftSize", left.size);
            root.append("leftTime", left.modifiedNs);
        }
        if (isWritten) root.append("written", true);
        if (launch) {
            SxSymbol object = root.append("launch", SxParserAst::Object);
            launch->original.put(object.append("original", SxParserAst::Object));
            SxSymbol list = object.append("written", SxParserAst::Array);
            for (const ZqLaunchValues& values : launch->written)
                values.put(list.append(SxParserAst::Object));
        }
        ZqRecordFile::write(root, file, 0600);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write file " + file, UNIT, __LINE__);
    }
}

void ZqStreamRecord::update(const SxString& image,
                            const std::function<void(ZqStreamRecord* record)>& change) {
    const SxPtr<ZqImageLock> alone =
        ZqImageLock::await(image, ZqImageLock::Record, ZqImageLock::Exclusive, "record", PATIENCE_MS);
    // Not held over the wait, which is for one image alone.
    static SxMutex one;
    const SxMutexBlock block(&one);
    ZqStreamRecord record;
    record.read(image);
    change(&record);
    record.write(image);
}
