#include "ZqPatchBuilder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqArchive.h"
#include "ZqBlockLikeness.h"
#include "ZqBlockMatch.h"
#include "ZqDiffTask.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageStaging.h"
#include "ZqJobsTogether.h"
#include "ZqLog.h"
#include "ZqNewFolder.h"
#include "ZqPatchFiles.h"
#include "ZqPatchParams.h"
#include "ZqPatchPlan.h"
#include "ZqPatchStreams.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqPatchBuilder";
constexpr const char* JOB = "patch create";
constexpr int64 WRITEBACK = 8 << 20;
/// Higher levels make the lists 1 % smaller, and take ten bytes of memory for each of a larger dictionary.
constexpr int LIST_LEVEL = 4;

int bestLevel(ZqPatchCompression::Type compression) {
    switch (compression) {
    case ZqPatchCompression::LZMA:
    case ZqPatchCompression::ZLIB:
    case ZqPatchCompression::BZIP2:
        return 9;
    case ZqPatchCompression::LZ4HC:
        return 12;
    case ZqPatchCompression::ZSTD:
        return 21;
    case ZqPatchCompression::RAW:
    case ZqPatchCompression::REPLACE:
        break;
    }
    return 0;
}

} // namespace

ZqPatchBuilder::ZqPatchBuilder(const SxString& older_, const SxString& newer_, const SxString& patch_,
                               const Options& options)
    : older(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(older_))),
      newer(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(newer_))),
      patch(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(patch_))),
      scratch(patch + "parts.tmp/"),
      compression(options.compression),
      level(options.level < 0 ? bestLevel(options.compression) : options.level),
      nNew(options.nNew),
      nOld(options.nOld) {
    setThreadName(JOB);
}

void ZqPatchBuilder::main() {
    require();
    ZqNewFolder folder(patch);
    try {
        build();
        folder.sync();
    } catch (...) {
        removeAll();
        throw;
    }
    folder.keep();
    complete = true;
}

void ZqPatchBuilder::require() const {
    ZqDiffTask::requireLevel(compression, level);
    if (compression != ZqPatchCompression::REPLACE) ZqDiffTask::requireTool();
    ZqImageStaging::refuseOverlap(patch, older);
    ZqImageStaging::refuseOverlap(patch, newer);
    if (!SxFSAction::isGone(scratch)) {
        throw SxException(
            "The patch folder '" + patch +
                "' is being written, or a command that was killed has left it unfinished; in that "
                "case remove it",
            UNIT, __LINE__);
    }
    if (!ZqImageFolder::isFree(patch))
        throw SxException("The patch folder '" + patch + "' isn't empty", UNIT, __LINE__);
}

void ZqPatchBuilder::build() {
    ZqPatchSide from(older, JOB), to(newer, JOB);
    setNTotal(from.getSize() + to.getSize() + uint64{to.getNIncluded()} * ZqPatchSide::BLOCK);
    const bool isReplaced = compression == ZqPatchCompression::REPLACE;
    ZqBlockLikeness likeness;
    {
        ZqJobsTogether scans;
        scans.start("patch scan", [&] { from.scan(isReplaced ? nullptr : &likeness, this); });
        scans.start("patch scan", [&] { to.scan(nullptr, this); });
        scans.wait();
    }
    std::vector<uint32> matched = ZqBlockMatch::match(from, to);
    ZqBlockMatch::confirm(from, to, &matched, this);
    SxFSAction::mkdir_p(scratch, 0700);
    writeMap(from, matched);
    const ZqPatchPlan plan(from, to, matched);
    result.nChanged = plan.getNChanged();
    result.nKept = to.getNIncluded() - result.nChanged;
    ZqPatchPlan::Limits limits;
    if (nNew > 0) limits.nNew = nNew;
    if (nOld > 0) limits.nOld = nOld;
    std::vector<ZqPatchPart> parts;
    if (isReplaced) {
        parts = plan.makeOfNew(limits);
    } else if (result.nChanged > 0) {
        likeness.finish(from);
        parts = plan.make(likeness, limits, this);
        likeness = {};
    }
    ZqPatchParams record;
    writeParts(from, to, parts, &record);
    writeRecords(from, to, &record);
}

/// By old item the new one.
void ZqPatchBuilder::writeMap(const ZqPatchSide& from, const std::vector<uint32>& matched) const {
    SxArray<uint64> map(int64{from.getNItems()});
    std::fill(map.begin(), map.end(), ZqImage::NO_ENTRY);
    for (uint32 item = 0; item < matched.size(); ++item)
        if (matched[item] != ZqPatchSide::NONE) map(int64{matched[item]}) = item;
    SxFileIO(scratch + ZqPatchFiles::MAP, "wb", 0600).write(map);
}

void ZqPatchBuilder::writeParts(const ZqPatchSide& from, const ZqPatchSide& to,
                                const std::vector<ZqPatchPart>& parts, ZqPatchParams* record) {
    result.nParts = parts.size();
    SxList<ZqPatchInfo> list;
    SxFileIO data(patch + ZqPatchFiles::DATA, "wb", 0644);
    SxMd5 md5;
    int64 flushed = 0;
    {
        ZqPatchStreams streams(from, to, parts, scratch, compression, level, this);
        for (size_t i = 0; i < parts.size(); ++i) {
            list << streams.next([&](const char* bytes, int64 n) {
                data.writeBuffer(bytes, n);
                md5.update(bytes, n);
                if (data.getOffset() - flushed < WRITEBACK) return;
                data.startWriteback(flushed, data.getOffset() - flushed);
                flushed = data.getOffset();
            });
            result.nOldBlocks += parts[i].oldItems.size();
        }
    }
    md5.finish();
    data.sync();
    record->sizeData = static_cast<uint64>(data.getSize());
    record->hashData = md5.toString();
    data.close();
    ZqPatchInfo::write(scratch + ZqPatchFiles::INFO, list);
}

void ZqPatchBuilder::writeRecords(const ZqPatchSide& from, const ZqPatchSide& to, ZqPatchParams* record) {
    const auto pack = [&](const char* archive, const char* name, uint64* size, SxString* hash) {
        ZqArchive::compress7z(patch + archive, scratch, {name}, LIST_LEVEL);
        *size = static_cast<uint64>(SxFSAction::sizeOf(patch + archive));
        *hash = SxMd5::file(patch + archive);
    };
    pack(ZqPatchFiles::MAP_7Z, ZqPatchFiles::MAP, &record->sizeMap, &record->hashMap);
    pack(ZqPatchFiles::INFO_7Z, ZqPatchFiles::INFO, &record->sizeInfo, &record->hashInfo);
    SxFSAction::rm_r(scratch);
    // A design decision: digest, load profile, sizes and what the order rests on are of the published file,
    // whose order the patched one hasn't. They would call a right image wrong, and let it start too early.
    ZqAppParams app = to.getApp();
    app.checksumZqf = app.checksumIdx = SxString();
    app.loadprofile.removeAll();
    app.sizeZqf = app.sizeMnt = uint64{to.getNIncluded()} * ZqPatchSide::BLOCK;
    app.write(patch);
    ZqImageParams image = to.getImage();
    image.order.reset();
    image.write(patch);
    record->fromGUID = result.from = from.getApp().guid;
    record->toGUID = result.to = to.getApp().guid;
    record->fromMnt = from.getApp().checksumMnt;
    record->toMnt = to.getApp().checksumMnt;
    record->compression = compression;
    // Comes last: a folder without it is no patch.
    record->write(patch);
    for (const char* name : ZqPatchFiles::ALL)
        result.bytes += static_cast<uint64>(SxFSAction::sizeOf(patch + name));
}

void ZqPatchBuilder::removeAll() const {
    try {
        for (const char* name : ZqPatchFiles::ALL) {
            if (!SxFSAction::isGone(patch + name)) SxFSAction::rm(patch + name);
        }
        if (!SxFSAction::isGone(scratch)) SxFSAction::rm_r(scratch);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqPatchBuilder : cannot remove what was written so far: " + e.toString(3, "\n"));
    }
}
