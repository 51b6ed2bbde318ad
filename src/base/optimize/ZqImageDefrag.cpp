#include "ZqImageDefrag.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqAheadCarry.h"
#include "ZqBlockGather.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqReorderInputs.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqImageDefrag";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
/// Blocks that are read and written together, and then synced. A power cut damages at most so many at the
/// target's end.
constexpr uint64 PIECE = ZqBlockGather::PIECE;

/// What a link leads to, or has another name, isn't written into.
bool isOwnFile(const SxString& path) {
    const std::optional<SxStat> info = SxFSAction::look(path);
    return info && info->kind == SxStat::File && info->nNames == 1;
}

} // namespace

ZqImageDefrag::ZqImageDefrag(const SxString& image, const SxString& index)
    : ZqDefragJob(image, index),
      piece(PIECE),
      work(imagePath) {
    setThreadName("defrag by copy");
}

void ZqImageDefrag::keepNote(const SxString& consumed_) {
    isNoted = true;
    consumed = consumed_;
}

void ZqImageDefrag::reorder() {
    const SxString target = isNoted ? work.getPath() : indexPath;
    ZqReorderInputs inputs(imagePath, indexPath, indexName);
    inputs.check(false, isForecastOnly());
    source = inputs.makeSource();
    SxFileIO zqf(imagePath + ZqImageFiles::ZQF, "rb", 0600);
    countBlocks(static_cast<uint64>(zqf.getSize()));
    if (isNoted) planAhead(inputs.getOldApp(), inputs.getNewApp());
    bytesExtra = (nTarget + nBeyond) * BLOCK + source.size() * sizeof(uint64);
    if (isForecastOnly()) return forecast(&zqf);

    SxStat old;
    if (const int error = SxOs::get().statFd(zqf.getFd(), &old)) {
        throw SxException(SxException(SxOs::errorText(error), UNIT, __LINE__),
                          SxFileIO::fileReadErr(zqf.getFilePath()), UNIT, __LINE__);
    }
    const ZqOptimizeNote note{ZqOptimizeNote::Copy,
                              inputs.getGuid(),
                              {inputs.getOldDigest(), inputs.getOldApp().sizeZqf},
                              {inputs.getNewDigest(), inputs.getNewApp().sizeZqf},
                              consumed,
                              {},
                              {old.size, old.modifiedMs}};
    setTotal(source.size() * BLOCK);
    const SxString path = target + ZqImageFiles::ZQF;
    const uint64 first = findStart(&zqf, path, isKnown(note));
    requireRoom(target);
    refuseStop();
    if (isNoted) work.removeProgress();
    cutTarget(path, first);
    if (isNoted) {
        if (indexPath == work.getStaged()) work.takeStaged(true);
        work.writeNote(note);
    }
    setTotal((source.size() - first) * BLOCK);
    SxFileIO file;
    if (first > 0) {
        file.open(path, "r+b");
        file.seek(static_cast<int64>(first * BLOCK));
    } else {
        file.create(path);
    }
    SxOs::get().setPermissionsFd(file.getFd(), old.permissions);
    copy(&zqf, &file, first);
    file.close();
    if (isNoted) carryAhead(inputs.getOldApp(), inputs.getNewApp());
}

/// Whether the work folder holds a copy that was begun with the same maps, from the same file.
bool ZqImageDefrag::isKnown(const ZqOptimizeNote& note) const {
    const SxString file = work.file(ZqOptimizeFolder::NOTE);
    return isNoted && SxFSAction::test_f(file) && SxFileIO::readUtf8(file) == note.toText();
}

/// What a target has of the disk serves the new one, or becomes free.
void ZqImageDefrag::requireRoom(const SxString& folder) const {
    const int64 size = SxFSAction::sizeOf(folder + ZqImageFiles::ZQF);
    const uint64 need = (nTarget + nBeyond) * BLOCK, has = size > 0 ? static_cast<uint64>(size) : 0;
    ZqImageFolder::requireSpace(folder, need - std::min(need, has) + ZqOptimizeFolder::ROOM_FOR_RECORDS);
}

/// On the device before a note says what the target is made of: what is kept is believed by that.
void ZqImageDefrag::cutTarget(const SxString& path, uint64 first) {
    if (SxFSAction::isGone(path)) return;
    if (first > 0) {
        SxFileIO file(path, "r+b");
        file.truncate(static_cast<int64>(first * BLOCK));
        file.sync();
    } else {
        SxFSAction::rm(path);
        SxFSAction::syncDir(SxFileInfo(path).getPath());
    }
}

/// How many blocks of a target are kept.
uint64 ZqImageDefrag::findStart(SxFileIO* zqf, const SxString& path, bool known) {
    if (!isOwnFile(path)) return 0;
    const uint64 size = static_cast<uint64>(SxFSAction::sizeOf(path)) / BLOCK;
    // Each piece was synced before the next one was begun. The last one is written again: after a sync that
    // has failed its bytes are in memory alone, where a comparison finds them.
    if (known && size <= nTarget) return size > piece ? size - piece : 0;
    if (!isNoted && size > nTarget) {
        throw SxException("'" + path +
                              "' has more blocks than a copy of this image would have; take it "
                              "away if it is of no use",
                          UNIT, __LINE__);
    }
    SxFileIO file(path, "r+b", 0600);
    file.sync();
    // From here on it is read from the disk.
    SxOs::get().adviseDone(file.getFd(), 0, 0);
    return findDifference(zqf, &file, std::min(size, nTarget));
}

void ZqImageDefrag::forecast(SxFileIO* zqf) {
    requireRoom(isNoted ? work.getPath() : indexPath);
    forecastBytes = nTarget * BLOCK;
    const double rate = ZqBlockGather::measureRate(zqf, sourceOf(0, nTarget), indexPath);
    if (rate > 0) forecastSeconds = static_cast<double>(forecastBytes) / rate;
}

void ZqImageDefrag::planAhead(const ZqAppParams& oldApp, const ZqAppParams& newApp) {
    const ZqAheadCarry carry(imagePath, oldApp, source);
    nBeyond = carry.countKept(newApp, nTarget);
    nLost = carry.countThere() - nTarget - nBeyond;
}

void ZqImageDefrag::carryAhead(const ZqAppParams& oldApp, const ZqAppParams& newApp) {
    try {
        ZqAheadCarry carry(imagePath, oldApp, source);
        nBeyond = carry.write(work.getPath(), newApp, nTarget, [this] { return isStopRequested(); });
        nLost = carry.countThere() - nTarget - nBeyond;
    } catch (const SxException& e) {
        // It is fetched again then.
        zqLogMsg("base", "ZqImageDefrag: " + e.toString(SxException::ShowMessage, ": "));
        nLost += nBeyond;
        nBeyond = 0;
    }
    refuseStop();
}

void ZqImageDefrag::countBlocks(uint64 sizeOld) {
    nIncluded = source.size();
    while (nIncluded > 0 && source[nIncluded - 1] == ZqMovePlan::NONE)
        --nIncluded;
    const auto gap =
        std::find(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(nIncluded), ZqMovePlan::NONE) -
        source.begin();
    if (static_cast<uint64>(gap) < nIncluded) {
        throw SxException("'" + indexName + ZqImageFiles::IDX + "' has no block at ZqF position " +
                              SxString(static_cast<int64>(gap)) + ", but blocks after it; a copy has no gaps",
                          UNIT, __LINE__);
    }
    // The last block of the file doesn't count, since nobody knows whether its download was cut off there.
    const uint64 nThere = sizeOld == 0 ? 0 : (sizeOld - 1) / BLOCK;
    nTarget = 0;
    while (nTarget < nIncluded && source[nTarget] < nThere) {
        ++(source[nTarget] == nTarget ? nKept : nMoved);
        ++nTarget;
    }
    const auto rest = source.begin() + static_cast<std::ptrdiff_t>(nTarget);
    nLost = static_cast<uint64>(
        std::count_if(rest, source.end(), [&](ZqMovePlan::Position from) { return from < sizeOld / BLOCK; }));
}

uint64 ZqImageDefrag::findDifference(SxFileIO* zqf, SxFileIO* file, uint64 end) {
    ZqBlockGather gather(zqf);
    buffer.resize(piece * BLOCK);
    std::vector<char> there(piece * BLOCK);
    for (uint64 next = 0; next < end; next += piece) {
        refuseStop();
        const uint64 pieceEnd = std::min(end, next + piece);
        gather.read(sourceOf(next, pieceEnd), buffer.data());
        const auto n = static_cast<int64>((pieceEnd - next) * BLOCK);
        file->seek(static_cast<int64>(next * BLOCK));
        if (file->readBuffer(there.data(), n) != n) {
            throw SxException(SxFileIO::fileReadErr(file->getFilePath()), UNIT, __LINE__);
        }
        for (uint64 block = next; block < pieceEnd; ++block) {
            const size_t at = (block - next) * BLOCK;
            if (std::memcmp(buffer.data() + at, there.data() + at, BLOCK) != 0) return block;
        }
    }
    return end;
}

void ZqImageDefrag::copy(SxFileIO* zqf, SxFileIO* file, uint64 first) {
    ZqBlockGather gather(zqf);
    buffer.resize(piece * BLOCK);
    const auto nAll = static_cast<double>(source.size());
    for (uint64 next = first; next < nTarget;) {
        refuseStop();
        const uint64 end = std::min(nTarget, next + piece);
        gather.read(sourceOf(next, end), buffer.data());
        const uint64 nBytes = (end - next) * BLOCK;
        file->writeBuffer(buffer.data(), static_cast<int64>(nBytes));
        file->sync();
        addWritten(nBytes);
        next = end;
        setCurrent((next - first) * BLOCK, static_cast<double>(next) * 100 / nAll);
    }
    file->sync();
}
