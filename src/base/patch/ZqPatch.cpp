#include "ZqPatch.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqArchive.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqPatchFiles.h"
#include "ZqPatchParams.h"
#include "ZqSysEnv.h"
#include "ZqTaskMon.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqPatch";
constexpr int64 BLOCK = ZqBlocks::SIZE;
/// Blocks that are compared in one go: enough for long reads, few enough to stay in the cache.
constexpr size_t WINDOW = 256;
constexpr int64 REPORT_MS = 1000;
constexpr const char* RAW = "img.raw";
constexpr const char* IDX_7Z = "img.idx.7z";

struct Item {
    uint64 rawIdx, zqfIdx;
};

/// Called before each window with the RAW index of its first block and the number of entries.
using Report = std::function<void(uint64 rawIdx, uint64 nTotal)>;

/// One of the two files, read by blocks.
class Side {
public:
    explicit Side(const SxString& path) : file(path, "rb"), size(file.getSize()) {}

    /// Fills the buffer with the blocks that `index` of the items names. Neighbours in the file that are
    /// neighbours here are one read; the result is that of reading them one by one. Bytes from `end` on are
    /// zeros.
    void fill(const std::vector<Item>& items, uint64 Item::*index, int64 end) {
        for (size_t first = 0; first < items.size();) {
            size_t last = first + 1;
            while (last < items.size() && items[last].*index == items[last - 1].*index + 1)
                ++last;
            char* to = buffer.data() + static_cast<int64>(first) * BLOCK;
            const int64 nBytes = static_cast<int64>(last - first) * BLOCK;
            const uint64 nBlocks = static_cast<uint64>(end + BLOCK - 1) / ZqBlocks::SIZE;
            const uint64 blockIdx = items[first].*index;
            int64 nThere = 0;
            if (blockIdx < nBlocks) {
                const int64 offset = static_cast<int64>(blockIdx) * BLOCK;
                nThere = std::min(nBytes, end - offset);
                file.seek(offset);
                if (file.readBuffer(to, nThere) != nThere)
                    throw SxException(SxFileIO::fileReadErr(file.getFilePath()), UNIT, __LINE__);
            }
            std::memset(to + nThere, 0, static_cast<size_t>(nBytes - nThere));
            first = last;
        }
    }

    SxFileIO file;
    const int64 size;
    SxArray<char> buffer = SxArray<char>(static_cast<int64>(WINDOW) * BLOCK);
};

/// The comparison of one image.
class Comparison {
public:
    Comparison(const SxString& rawFile, const SxString& zqfFile, ZqTaskMon* progress_)
        : raw(rawFile),
          zqf(zqfFile),
          nStored(static_cast<uint64>(zqf.size) / ZqBlocks::SIZE),
          progress(progress_),
          startTime(ZqSysEnv::getSysTime()) {}

    ZqPatch::ImageCounters run(const SxArray<uint64>& map, const Report& report) {
        counters.nTotal = static_cast<uint64>(map.getSize());
        const auto nEntries = map.getSize() - std::count(map.begin(), map.end(), ZqImage::NO_ENTRY);
        if (progress) progress->setNTotal(static_cast<uint64>(nEntries * BLOCK));
        counters.nUnmapped = static_cast<uint64>(map.getSize() - nEntries);
        for (uint64 rawIdx = 0; rawIdx < counters.nTotal; ++rawIdx) {
            const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
            if (zqfIdx == ZqImage::NO_ENTRY) continue;
            if (items.empty()) report(rawIdx, counters.nTotal);
            items.push_back({rawIdx, zqfIdx});
            if (items.size() == WINDOW) compareWindow();
        }
        if (!items.empty()) compareWindow();
        md5Raw.finish();
        md5Zqf.finish();
        counters.md5Raw = md5Raw.toString();
        counters.md5Zqf = apart ? md5Zqf.toString() : counters.md5Raw;
        return counters;
    }

private:
    void compareWindow() {
        if (progress && progress->stopRequested())
            throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        const uint64 lastRawIdx = items.back().rawIdx;
        if (lastRawIdx >= (static_cast<uint64>(raw.size) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE) {
            throw SxException("File '" + raw.file.getFilePath() + "' ends before block " + lastRawIdx, UNIT,
                              __LINE__);
        }
        // The last RAW block may be cut; the image has it whole.
        raw.fill(items, &Item::rawIdx, raw.size);
        zqf.fill(items, &Item::zqfIdx, static_cast<int64>(nStored) * BLOCK);

        const int64 nBytes = static_cast<int64>(items.size()) * BLOCK;
        const char *rawBytes = raw.buffer.data(), *zqfBytes = zqf.buffer.data();
        const bool differ = std::memcmp(rawBytes, zqfBytes, static_cast<size_t>(nBytes)) != 0;
        countBlocks(differ);
        // Up to the first difference the two digests are the same, so one is taken: it is what costs most
        // here.
        if (differ && !apart) {
            md5Zqf = md5Raw;
            apart = true;
        }
        md5Raw.update(rawBytes, nBytes);
        if (apart) md5Zqf.update(zqfBytes, nBytes);
        if (progress) {
            progress->addNCurrent(static_cast<uint64>(nBytes));
            progress->updateSpeed(startTime);
        }
        items.clear();
    }

    void countBlocks(bool differ) {
        for (size_t i = 0; i < items.size(); ++i) {
            const size_t at = i * ZqBlocks::SIZE;
            const bool isThere = items[i].zqfIdx < nStored;
            const bool isWrong =
                differ && std::memcmp(raw.buffer.data() + at, zqf.buffer.data() + at, ZqBlocks::SIZE) != 0;
            if (isWrong) ++counters.nInvalid;
            if (isThere) {
                ++counters.nMapped;
                if (isWrong && counters.firstWrongRawIdx == ZqImage::NO_ENTRY)
                    counters.firstWrongRawIdx = items[i].rawIdx;
            } else {
                ++counters.nUnmapped;
                ++counters.nMissing;
                if (!isWrong) ++counters.nMissingZero;
            }
        }
    }

    Side raw, zqf;
    const uint64 nStored; ///< whole blocks of the ZqF file
    ZqTaskMon* const progress;
    const int64 startTime;
    std::vector<Item> items;
    SxMd5 md5Raw, md5Zqf;
    bool apart = false;
    ZqPatch::ImageCounters counters;
};

void logCounters(const ZqPatch::ImageCounters& counters) {
    zqLogMsg("base", "MD5 sum RAW : " + counters.md5Raw);
    zqLogMsg("base", "MD5 sum ZqF : " + counters.md5Zqf);
    zqLogMsg("base", "Total       : " + SxString(counters.nTotal));
    zqLogMsg("base", "Mapped      : " + SxString(counters.nMapped));
    zqLogMsg("base", "Unmapped    : " + SxString(counters.nUnmapped));
    zqLogMsg("base", "Invalid     : " + SxString(counters.nInvalid));
}

/// `atEnd` is called when all blocks are compared, before the log lines.
ZqPatch::ImageCounters compare(const SxString& rawDir, const SxString& zqfDir, ZqTaskMon* progress,
                               const Report& report, const std::function<void()>& atEnd) {
    zqLogMsg("base", "ZqFastPatch::verifyImage : rawDir [" + rawDir + "] zqfDir [" + zqfDir + "]");
    const SxString idxFile = zqfDir + ZqImageFiles::IDX, zqfFile = zqfDir + ZqImageFiles::ZQF,
                   rawFile = rawDir + RAW;
    if (!SxFSAction::test_f(idxFile) && SxFSAction::test_f(zqfDir + IDX_7Z))
        ZqArchive::extract7z(zqfDir + IDX_7Z, zqfDir);
    for (const SxString& file : {idxFile, zqfFile, rawFile}) {
        if (!SxFSAction::test_f(file))
            throw SxException("File " + SxFileInfo(file).getAbsPath() + " not found", UNIT, __LINE__);
    }
    try {
        const SxArray<uint64> map = ZqImage::readEntries(idxFile);
        ZqPatch::ImageCounters counters = Comparison(rawFile, zqfFile, progress).run(map, report);
        atEnd();
        logCounters(counters);
        return counters;
    } catch (const SxException& e) {
        throw SxException(e, "Verification of image content failed", UNIT, __LINE__);
    }
}

void requirePlainOrPacked(const SxString& folder, const char* plain, const char* packed) {
    if (SxFSAction::sizeOf(folder + plain) >= 0 || SxFSAction::sizeOf(folder + packed) >= 0) return;
    throw SxException("File " + SxFileInfo(folder + packed).getAbsPath() + " is missing.", UNIT, __LINE__);
}

void print(const SxString& text) {
    std::fputs(text.ascii(), stdout);
    std::fflush(stdout);
}

} // namespace

void ZqPatch::verifyMeta(const SxString& patchDir) {
    ZqPatchParams().read(patchDir);
    requirePlainOrPacked(patchDir, ZqPatchFiles::MAP, ZqPatchFiles::MAP_7Z);
    requirePlainOrPacked(patchDir, ZqPatchFiles::INFO, ZqPatchFiles::INFO_7Z);
}

void ZqPatch::verifyImage(const SxString& rawDir, const SxString& zqfDir) {
    int64 lastReport = 0;
    bool reported = false;
    compare(
        rawDir, zqfDir, nullptr,
        [&](uint64 rawIdx, uint64 nTotal) {
            const int64 now = ZqSysEnv::getSysTime();
            if (reported && now - lastReport < REPORT_MS) return;
            reported = true;
            lastReport = now;
            print(SxString::sprintf("\rVerifying  %zu / %zu                       \r", size_t{rawIdx},
                                    size_t{nTotal}));
        },
        [] { print("\rImage verified                     \n"); });
}

ZqPatch::ImageCounters ZqPatch::verifyImage(const SxString& rawDir, const SxString& zqfDir,
                                            ZqTaskMon* progress) {
    return compare(
        rawDir, zqfDir, progress, [](uint64, uint64) {}, [] {});
}
