#include "ZqImageRepair.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqLog.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/ZqImageRepair";
constexpr auto STRETCH = static_cast<int64>(ZqRemoteImage::STRETCH);
} // namespace

uint64 ZqImageRepair::mend(const std::function<void(uint64 nDone)>& report, const ZqStopTest& stop) const {
    const SxPtr<ZqSeekTable> table = image->awaitTable(stop);
    if (!table || !table->hasChecksums()) return 0;
    const SxArray<uint64> wrong = findWrong(*table, report, stop);
    if (wrong.getSize() == 0) return 0;
    zqLogMsg("base", SxString("ZqImageRepair: ") + wrong.getSize() + " stretches of '" + zqf +
                         "' are wrong, from " + wrong(0) + " on; they are fetched again");
    SxFileIO file(zqf, "r+b");
    for (const uint64 stretchIdx : wrong) {
        const SxPtr<SxArray<char>> bytes = fetch(stretchIdx, stop);
        if (ZqSeekTable::checksumOf(bytes->data(), bytes->getSize()) !=
            table->getFrame(stretchIdx).checksum) {
            throw SxException("Stretch " + SxString(stretchIdx) + " of '" + zqf +
                                  "' is wrong, and comes otherwise than the seek table says",
                              UNIT, __LINE__);
        }
        file.seek(static_cast<int64>(stretchIdx) * STRETCH);
        file.writeBuffer(bytes->data(), bytes->getSize());
    }
    file.sync();
    return static_cast<uint64>(wrong.getSize());
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

/// It was right once, so whatever passes is waited for; what doesn't is raised.
SxPtr<SxArray<char>> ZqImageRepair::fetch(uint64 stretchIdx, const ZqStopTest& stop) const {
    for (;;) {
        try {
            return image->fetchAnew(stretchIdx, stop);
        } catch (const SxException& e) {
            if (!e.hasTag(ZqNetLink::UNREACHABLE) && !e.hasTag(ZqNetLink::BROKEN)) throw;
            zqLogMsg("base", "ZqImageRepair: " + e.toString(SxException::ShowMessage, ": "));
        }
        image->getLink()->sleep(image->getLink()->getSettings().maxBackOffMs, stop);
    }
}
