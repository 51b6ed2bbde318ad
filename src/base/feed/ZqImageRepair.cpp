#include "ZqImageRepair.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqBlocks.h"
#include "ZqLog.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/ZqImageRepair";
constexpr auto STRETCH = static_cast<int64>(ZqBlocks::STRETCH);
/// Answers that are wrong, while the server's `app.json` is right, until they count as what the server has.
constexpr int MAX_WRONG = 4;
/// Looks for a table that has to wait, where nobody plays.
constexpr int TABLE_LOOKS = 2;
/// The longest pause, in first ones.
constexpr int64 MOST_PAUSES = 8;
/// What a stretch may take before the others have their turn. It doubles with each go, so that on a slow link
/// the later ones are long enough.
constexpr int64 FIRST_LIMIT_MS = ZqImageRepair::TRY_MS, MAX_LIMIT_MS = 32 * FIRST_LIMIT_MS;
/// After so many failures one after the other the rest waits for the next go: they aren't those of a few
/// stretches.
constexpr int MAX_FAILED = 3;
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
    const std::deque<uint64> wrong = findWrong(*table, report, stop);
    if (wrong.empty()) return 0;
    replace(wrong, *table, stop);
    return wrong.size();
}

void ZqImageRepair::replace(std::deque<uint64> stretches, const ZqSeekTable& table,
                            const ZqStopTest& stop) const {
    zqLogMsg("base", SxString("ZqImageRepair: ") + stretches.size() + " stretches of '" + zqf +
                         "' are wrong, from " + stretches.front() + " on; they are fetched again");
    Tries tries;
    for (int64 limitMs = FIRST_LIMIT_MS;; limitMs = std::min(2 * limitMs, MAX_LIMIT_MS)) {
        const size_t nBefore = stretches.size();
        SxException why;
        replaceSome(&stretches, table, limitMs, stop, &why);
        if (stretches.empty()) return;
        if (stretches.size() < nBefore) tries = Tries();
        recover(why, &tries, stop);
    }
}

void ZqImageRepair::replaceSome(std::deque<uint64>* stretches, const ZqSeekTable& table, int64 limitMs,
                                const ZqStopTest& stop, SxException* why) const {
    if (stretches->empty()) return;
    SxStat info;
    if (SxOs::get().lstat(SxOs::hostPath(zqf), &info) != 0 || info.kind != SxStat::File)
        throw SxException("'" + zqf + "' is a link, and what it leads to isn't changed", UNIT, __LINE__);
    SxFileIO file(zqf, "r+b");
    bool isChanged = false;
    int nFailed = 0;
    for (size_t nLeft = stretches->size(); nLeft > 0 && nFailed < MAX_FAILED; --nLeft) {
        const uint64 stretchIdx = stretches->front();
        stretches->pop_front();
        const SxPtr<SxArray<char>> bytes = tryFetch(stretchIdx, table, limitMs, stop, why);
        if (!bytes) {
            stretches->push_back(stretchIdx);
            ++nFailed;
            continue;
        }
        file.seek(static_cast<int64>(stretchIdx) * STRETCH);
        file.writeBuffer(bytes->data(), bytes->getSize());
        isChanged = true;
        nFailed = 0;
    }
    if (isChanged) file.sync();
}

std::deque<uint64> ZqImageRepair::findWrong(const ZqSeekTable& table,
                                            const std::function<void(uint64 nDone)>& report,
                                            const ZqStopTest& stop) const {
    SxFileIO file(zqf, "rb");
    file.adviseSequential();
    std::deque<uint64> wrong;
    SxArray<char> bytes(STRETCH);
    for (uint64 stretchIdx = 0; stretchIdx < table.getNFrames(); ++stretchIdx) {
        image->getLink()->checkStop(stop);
        const int64 n = file.readBuffer(bytes.data(), STRETCH);
        // A file that is too short is wrong there, too.
        if (ZqSeekTable::checksumOf(bytes.data(), n) != table.getFrame(stretchIdx).checksum)
            wrong.push_back(stretchIdx);
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
                // So says a store that has no table and doesn't list its files.
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

/// Null where it can't be had now, and `why`.
SxPtr<SxArray<char>> ZqImageRepair::tryFetch(uint64 stretchIdx, const ZqSeekTable& table, int64 limitMs,
                                             const ZqStopTest& stop, SxException* why) const {
    const SxString name = "Stretch " + SxString(stretchIdx) + " of '" + zqf + "'";
    const int64 endNs = SxClock::get().steadyNs() + limitMs * 1'000'000;
    try {
        SxPtr<SxArray<char>> bytes = image->fetchAnew(
            stretchIdx, [&] { return (stop && stop()) || SxClock::get().steadyNs() > endNs; });
        if (ZqSeekTable::checksumOf(bytes->data(), bytes->getSize()) == table.getFrame(stretchIdx).checksum)
            return bytes;
        *why = SxException(ZqNetLink::WRONG, name + " is wrong, and comes otherwise than the seek table says",
                           UNIT, __LINE__);
    } catch (const SxException& e) {
        const bool isStopped = e.hasTag(SxException::STOPPED);
        if (isStopped && stop && stop()) throw;
        *why = isStopped ? SxException(ZqNetLink::BROKEN,
                                       name + " doesn't come within " + SxString(limitMs / 1000) + " s", UNIT,
                                       __LINE__)
                         : e;
    }
    return nullptr;
}

/// Returns when the same may be tried again. It was right once, so whatever passes is waited for.
void ZqImageRepair::recover(const SxException& why, Tries* tries, const ZqStopTest& stop) const {
    if (why.hasTag(SxException::STOPPED)) throw SxException(why);
    const bool isAway = ZqNetLink::isAway(why);
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
