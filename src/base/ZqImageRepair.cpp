#include "ZqImageRepair.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqLog.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/ZqImageRepair";
constexpr auto STRETCH = static_cast<int64>(ZqRemoteImage::STRETCH);
/// Answers that are wrong, from a server that is the right one, until it is taken for what it has.
constexpr int MAX_WRONG = 4;
/// Looks for a table that has to wait, where nobody plays.
constexpr int TABLE_LOOKS = 2;
/// The longest pause, in first ones.
constexpr int64 MOST_PAUSES = 8;
} // namespace

/// What has failed of one thing that is fetched.
struct ZqImageRepair::Tries {
    bool isOfTable = false; ///< which a server need not have
    int nWrong = 0;
    int64 nPauses = 1; ///< length of the next pause, in first ones
};

uint64 ZqImageRepair::mend(const std::function<void(uint64 nDone)>& report, const ZqStopTest& stop) const {
    const SxPtr<ZqSeekTable> table = awaitTable(stop);
    if (!table || !table->hasChecksums()) return 0;
    const SxArray<uint64> wrong = findWrong(*table, report, stop);
    if (wrong.getSize() == 0) return 0;
    replace(wrong, *table, stop);
    return static_cast<uint64>(wrong.getSize());
}

void ZqImageRepair::replace(const SxArray<uint64>& stretches, const ZqSeekTable& table,
                            const ZqStopTest& stop) const {
    zqLogMsg("base", SxString("ZqImageRepair: ") + stretches.getSize() + " stretches of '" + zqf +
                         "' are wrong, from " + stretches(0) + " on; they are fetched again");
    SxStat info;
    if (SxOs::get().lstat(SxOs::hostPath(zqf), &info) != 0 || info.kind != SxStat::File)
        throw SxException("'" + zqf + "' is a link, and what it leads to isn't changed", UNIT, __LINE__);
    SxFileIO file(zqf, "r+b");
    for (const uint64 stretchIdx : stretches) {
        const SxPtr<SxArray<char>> bytes = fetch(stretchIdx, table, stop);
        file.seek(static_cast<int64>(stretchIdx) * STRETCH);
        file.writeBuffer(bytes->data(), bytes->getSize());
    }
    file.sync();
}

SxArray<uint64> ZqImageRepair::findWrong(const ZqSeekTable& table,
                                         const std::function<void(uint64 nDone)>& report,
                                         const ZqStopTest& stop) const {
    SxFileIO file(zqf, "rb");
    file.adviseSequential();
    SxArray<uint64> wrong;
    SxArray<char> bytes(STRETCH);
    for (uint64 stretchIdx = 0; stretchIdx < table.getNFrames(); ++stretchIdx) {
        image->getLink()->checkStop(stop);
        const int64 n = file.readBuffer(bytes.data(), STRETCH);
        // A file that is too short is wrong there, too.
        if (ZqSeekTable::checksumOf(bytes.data(), n) != table.getFrame(stretchIdx).checksum)
            wrong.append(stretchIdx);
        report(static_cast<uint64>(file.getOffset()));
    }
    return wrong;
}

/// Another job may have asked for the table in vain, and it be on its way again.
SxPtr<ZqSeekTable> ZqImageRepair::awaitTable(const ZqStopTest& stop) const {
    Tries tries;
    tries.isOfTable = true;
    for (int nLooks = 1;; ++nLooks) {
        SxPtr<ZqSeekTable> table = image->awaitTable(stop);
        SxException why;
        if (table || !image->isTableDelayed(&why)) return table;
        if (player.settle && player.settle(why)) {
            try {
                recover(why, &tries, stop);
            } catch (const SxException& e) {
                // As a store says that has none and doesn't list its files.
                if (!e.hasTag(ZqNetLink::NOT_FOUND)) throw;
                return nullptr;
            }
        } else if (nLooks < TABLE_LOOKS) {
            image->getLink()->sleep(image->getLink()->getSettings().maxBackOffMs, stop);
        } else {
            return table;
        }
    }
}

SxPtr<SxArray<char>> ZqImageRepair::fetch(uint64 stretchIdx, const ZqSeekTable& table,
                                          const ZqStopTest& stop) const {
    for (Tries tries;;) {
        try {
            SxPtr<SxArray<char>> bytes = image->fetchAnew(stretchIdx, stop);
            if (ZqSeekTable::checksumOf(bytes->data(), bytes->getSize()) ==
                table.getFrame(stretchIdx).checksum) {
                return bytes;
            }
            throw SxException(ZqNetLink::WRONG,
                              "Stretch " + SxString(stretchIdx) + " of '" + zqf +
                                  "' is wrong, and comes otherwise than the seek table says",
                              UNIT, __LINE__);
        } catch (const SxException& e) {
            recover(e, &tries, stop);
        }
    }
}

/// Returns when the same may be tried again. It was right once, so whatever passes is waited for.
void ZqImageRepair::recover(const SxException& why, Tries* tries, const ZqStopTest& stop) const {
    if (why.hasTag(SxException::STOPPED)) throw SxException(why);
    const bool isAway = why.hasTag(ZqNetLink::UNREACHABLE) || why.hasTag(ZqNetLink::BROKEN);
    if (!(player.settle && player.settle(why)) && !isAway) throw SxException(why);
    zqLogMsg("base", "ZqImageRepair: " + why.toString(SxException::ShowMessage, ": "));
    image->getLink()->sleep(tries->nPauses * image->getLink()->getSettings().maxBackOffMs, stop);
    tries->nPauses = std::min(2 * tries->nPauses, isAway ? 1 : MOST_PAUSES);
    if (isAway) return;
    try {
        player.requireSame(stop);
    } catch (const SxException& e) {
        // A page to log in to stands in the place of app.json, too.
        if (e.hasTag(SxException::STOPPED) || !player.settle(e)) throw;
        return;
    }
    const bool isItsOwn =
        why.hasTag(ZqNetLink::WRONG) || (tries->isOfTable && why.hasTag(ZqNetLink::NOT_FOUND));
    if (isItsOwn && ++tries->nWrong >= MAX_WRONG) throw SxException(why);
    image->forgetServer();
}
