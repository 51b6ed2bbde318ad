// The operation of ZqTrace that carries a trace over to another build of its image.

#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqImage.h"
#include "ZqLog.h"
#include "ZqReadable.h"
#include "ZqTrace.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
constexpr uint64 NONE = ~uint64{0};

SxArray<uint64> readMap(const SxString& file) {
    try {
        if (!SxFSAction::test_f(file)) throw SxException("Missing file " + file, UNIT, __LINE__);
        return ZqImage::readEntries(file);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read patch map: " + file, UNIT, __LINE__);
    }
}

void logResult(int64 nItems, uint64 nMapped, uint64 nLost) {
    const SxString bar = "+" + SxString(std::string(77, '-'));
    for (const SxString& line :
         {bar, SxString("Result of Trace Analysis"), bar,
          SxString::sprintf("Number of analyzed Items: %10zd", static_cast<ssize_t>(nItems)),
          SxString::sprintf("Number of mapped   Items: %10ju (%5.1lf %%)", static_cast<uintmax_t>(nMapped),
                            ZqReadable::percentage(nMapped, nItems)),
          SxString::sprintf("Number of lost     Items: %10ju (%5.1lf %%)", static_cast<uintmax_t>(nLost),
                            ZqReadable::percentage(nLost, nItems)),
          bar}) {
        zqLogMsg("base", line);
    }
}

/// Puts the record of the trace in `from` into the folder `to`, whatever it holds.
void copyRecord(const SxString& from, const SxString& to) {
    if (SxFileInfo(from).getAbsPath() == SxFileInfo(to).getAbsPath()) return;
    SxFileIO::writeAtomic(to + ZqTraceFiles::RECORD, SxFileIO::readUtf8(from + ZqTraceFiles::RECORD));
}

} // namespace

void ZqTrace::mapToImage(const SxString& patchPath, const SxString& outPath) const {
    ZqAppParams app;
    try {
        app = ZqAppParams(patchPath);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read app parameters from " + patchPath, UNIT, __LINE__);
    }
    const ZqTraceRecords::Unchanged files(pathPrefix);
    const ZqTraceParams record(pathPrefix);
    if (record.checksumMnt == app.checksumMnt) {
        throw SxException("Trace already based on new image.", UNIT, __LINE__);
    }
    ZqTraceRecords::requireMatch(pathPrefix);
    const SxString file = patchPath + "map.idx";
    const SxArray<uint64> map = readMap(file);
    // A trace may be larger than the memory, so it is walked once more instead of being held.
    int64 nItems = 0;
    uint64 nMapped = 0;
    const auto walk = [&](const Put& put) {
        ZqTraceRecords::Reader reader(pathPrefix);
        nItems = reader.getN();
        nMapped = 0;
        ZqTraceItem item;
        while (reader.next(&item)) {
            // The old image never had a block beyond the map's end.
            const bool isInside = item.block < static_cast<uint64>(map.getSize());
            const uint64 rawIdx = isInside ? map(static_cast<int64>(item.block)) : NONE;
            if (rawIdx == NONE) continue;
            if ((rawIdx & ZqTraceFormat::FLAG) != 0) {
                throw SxException("The patch map " + file + " is damaged: entry " + item.block +
                                      " names block " + rawIdx + ", which no disk has",
                                  UNIT, __LINE__);
            }
            item.block = rawIdx;
            ++nMapped;
            put(item);
        }
        files.require();
    };
    walk([](const ZqTraceItem&) {});
    logResult(nItems, nMapped, static_cast<uint64>(nItems) - nMapped);
    write(ZqTraceLock(outPath), walk, outPath, record.getMethodAfter(ZqTraceParams::Patch), app.checksumMnt,
          [&] { copyRecord(pathPrefix, outPath); });
}
