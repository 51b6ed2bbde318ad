#include "ZqImageCheck.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxSymbol.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqFileTable.h"
#include "ZqFrameDecoder.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqOrderHints.h"
#include "ZqPackedForm.h"
#include "ZqPackedMap.h"
#include "ZqSeekTable.h"
#include "ZqSysEnv.h"

#include <cstring>
#include <vector>

namespace {
constexpr const char* UNIT = "src/base/ZqImageCheck";
constexpr int64 CHUNK = 1 << 20;
} // namespace

ZqImageCheck::ZqImageCheck(const SxString& path) : pathPrefix(ZqImageFolder::prefix(path)) {
    setThreadName("image check");
}

void ZqImageCheck::main() {
    const auto lock = ZqImageLock::take(pathPrefix, ZqImageLock::Shape, ZqImageLock::Shared, "image verify");
    startTime = ZqSysEnv::getSysTime();
    readRecords();
    const SxFileInfo idx(pathPrefix + ZqImageFiles::IDX), zqf(pathPrefix + ZqImageFiles::ZQF);
    sizeZqf = zqf.isFile() ? static_cast<uint64>(zqf.getSize()) : 0;
    sizeComplete = app.sizeZqf;
    hasPacked = SxFSAction::test_f(pathPrefix + ZqImageFiles::PACKED);
    setNTotal((idx.isFile() ? static_cast<uint64>(idx.getSize()) : 0) +
              (sizeZqf < sizeComplete ? 0 : sizeZqf) * (hasPacked ? 2 : 1));
    checkMap();
    checkPackedMap();
    checkFileTable();
    checkHints();
    checkZqf();
    checkPacked();
}

void ZqImageCheck::readRecords() {
    try {
        image = ZqImageParams(pathPrefix);
        haveImage = true;
    } catch (const SxException& e) {
        addFault(e.what());
    }
    try {
        app = ZqAppParams(pathPrefix);
        haveApp = true;
        app.requireKnownFormat();
    } catch (const SxException& e) {
        addFault(e.what());
    }
}

void ZqImageCheck::checkMap() {
    const SxString file = pathPrefix + ZqImageFiles::IDX;
    const SxFileInfo info(file);
    if (app.sizeIdx == 0) notes.append("img.idx: app.json gives no size");
    const uint64 size = info.isFile() ? static_cast<uint64>(info.getSize()) : 0;
    if (app.sizeIdx > 0 && size % 8 == 0 && size > 0 && size != app.sizeIdx) {
        addFault("'" + file + "' has " + size + " bytes, app.json says " + app.sizeIdx);
        // It may be of any size, so it isn't read into memory.
        if (size > app.sizeIdx) return;
    }
    SxArray<uint64> map;
    try {
        map = ZqImage(pathPrefix).getMap();
    } catch (const SxException& e) {
        addFault(e.what());
        return;
    }
    const auto nRaw = static_cast<uint64>(map.getSize());
    if (haveImage) {
        const auto sizeRaw = static_cast<uint64>(image.sizeRaw);
        const uint64 nExpected = sizeRaw / ZqBlocks::SIZE + (sizeRaw % ZqBlocks::SIZE != 0 ? 1 : 0);
        if (nExpected != nRaw) {
            addFault("'" + file + "' has " + nRaw + " entries, the RAW image of img.json has " + nExpected +
                     " blocks");
        }
    }
    checkEntries(map);
    SxString expected = app.checksumIdx;
    const SxString md5File = pathPrefix + ZqImageFiles::IDX_MD5;
    if (SxFSAction::test_f(md5File)) {
        try {
            expected = SxFileIO::readUtf8(md5File);
        } catch (const SxException& e) {
            addFault(e.what());
        }
    }
    if (expected.isEmpty() && !haveApp) {
        notes.append("img.idx: no digest to check against");
    } else if (expected.isEmpty()) {
        // A fault, since a mount refuses such a map. A ZqF file without a digest isn't refused, and is only
        // noted; see checkDigest().
        addFault("'" + file +
                 "': there is no digest, neither in img.idx.md5 nor in app.json; no mount takes it");
    } else {
        checkDigest(file, expected);
    }
}

void ZqImageCheck::checkHints() {
    const SxString file = pathPrefix + ZqImageFiles::HINTS;
    if (SxFSAction::isGone(file)) return;
    if (!haveApp) {
        notes.append("img.hints: not checked, since app.json can't be read");
        return;
    }
    try {
        const ZqOrderHints hints =
            ZqOrderHints::readFile(file, app.checksumIdx, ZqSeekTable::countFrames(sizeComplete));
        notes.append(SxString("img.hints: ") + static_cast<uint64>(hints.groups.size()) + " groups, " +
                     hints.countHot() + " hot stretches");
    } catch (const SxException& e) {
        addFault(e.what());
    }
}

void ZqImageCheck::checkPackedMap() {
    const SxString file = pathPrefix + ZqImageFiles::IDX_PACKED;
    if (!SxFSAction::test_f(file)) return;
    try {
        SxFileIO map(pathPrefix + ZqImageFiles::IDX, "rb", 0600), packed(file, "rb", 0600);
        SxArray<char> piece(CHUNK), right(ZqPackedMap::FRAME);
        ZqPackedMap::Decoder decoder(
            static_cast<uint64>(map.getSize()), app.checksumIdx, [&](const char* bytes, int64 n) {
                if (map.readBuffer(right.data(), n) == n &&
                    std::memcmp(right.data(), bytes, static_cast<size_t>(n)) == 0) {
                    return;
                }
                throw SxException("It wasn't packed of this img.idx", UNIT, __LINE__);
            });
        while (const int64 n = packed.readBuffer(piece.data(), CHUNK)) {
            if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
            decoder.take(piece.data(), n);
        }
        decoder.finish();
        notes.append(SxString(ZqImageFiles::IDX_PACKED) + ": packed of this img.idx");
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        addFault("'" + file + "': " + e.what() + "; pack the image again, or remove it");
    }
}

void ZqImageCheck::checkFileTable() {
    if (!haveApp || !haveImage || !ZqFileTable::exists(pathPrefix)) return;
    try {
        const auto sizeRaw = static_cast<uint64>(image.sizeRaw);
        const uint64 nRaw = sizeRaw / ZqBlocks::SIZE + (sizeRaw % ZqBlocks::SIZE != 0 ? 1 : 0);
        const ZqFileTable table = ZqFileTable::read(pathPrefix, app.checksumMnt, nRaw);
        notes.append(SxString(ZqImageFiles::FILES) + ": fits this build, " + table.getNFiles() + " files");
    } catch (const SxException& e) {
        addFault(SxString(e.what()) + "; remove it, and image order makes another");
    }
}

void ZqImageCheck::checkEntries(const SxArray<uint64>& map) {
    const SxString file = pathPrefix + ZqImageFiles::IDX;
    const auto nRaw = static_cast<uint64>(map.getSize());
    const uint64 nZqf = app.sizeZqf / ZqBlocks::SIZE + (app.sizeZqf % ZqBlocks::SIZE != 0 ? 1 : 0);
    std::vector<bool> taken(nRaw);
    uint64 nWrong = 0, nUsed = 0;
    const auto report = [&](uint64 rawIdx, uint64 zqfIdx, const char* what) {
        if (++nWrong <= MAX_LISTED) {
            addFault("'" + file + "': the entry of RAW block " + rawIdx + " is " + zqfIdx + ", " + what);
        }
    };
    for (uint64 rawIdx = 0; rawIdx < nRaw; ++rawIdx) {
        const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
        if (zqfIdx == ZqImage::NO_ENTRY) continue;
        if (zqfIdx >= nRaw) {
            report(rawIdx, zqfIdx, "which is out of range");
        } else if (taken[zqfIdx]) {
            report(rawIdx, zqfIdx, "which another block has already");
        } else {
            taken[zqfIdx] = true;
            nUsed = std::max(nUsed, zqfIdx + 1);
            if (app.sizeZqf > 0 && zqfIdx >= nZqf)
                report(rawIdx, zqfIdx, "beyond the end of the complete img.zqf");
        }
    }
    if (nWrong > MAX_LISTED)
        addFault(SxString("'") + file + "': " + (nWrong - MAX_LISTED) + " more wrong entries");
    if (nWrong == 0)
        notes.append("map: " + SxString(nRaw) + " entries, no ZqF block twice, none out of range");
    if (sizeComplete == 0) sizeComplete = nUsed * ZqBlocks::SIZE;
}

void ZqImageCheck::checkZqf() {
    const SxString file = pathPrefix + ZqImageFiles::ZQF;
    try {
        const ZqImage::SplitState storage = ZqImage(pathPrefix).getSplitState();
        partial = storage.split || sizeZqf < sizeComplete;
        if (storage.split) {
            ZqImage(pathPrefix).checkSplit();
            notes.append(storage.joining
                             ? "a join of img.zqf was cut off; join it again first"
                             : "img.zqf is split into parts, all there; what they hold shows after a join");
            return;
        }
        if (storage.partSize > 0) notes.append("a split record stands beside the whole img.zqf");
    } catch (const SxException& e) {
        addFault(e.what());
        return;
    }
    if (SxFileInfo(file).exists() && !SxFSAction::test_f(file))
        addFault("'" + file + "' is not a plain file");
    if (!haveApp) return;
    if (app.sizeZqf == 0) notes.append("img.zqf: app.json gives no size");
    if (app.sizeZqf > 0 && sizeZqf > app.sizeZqf) {
        addFault("'" + file + "' has " + sizeZqf + " bytes, app.json says " + app.sizeZqf);
    } else if (partial) {
        notes.append("img.zqf: partial, " + SxString(sizeZqf) + " of " + sizeComplete +
                     " bytes; its digest can't be checked yet");
    } else if (!SxFSAction::test_f(file)) {
        addFault("'" + file + "' is missing");
    } else {
        checkDigest(file, app.checksumZqf);
    }
}

void ZqImageCheck::checkPacked() {
    const SxString file = pathPrefix + ZqImageFiles::PACKED;
    if (!hasPacked) return;
    if (partial || sizeZqf != sizeComplete) {
        notes.append(ZqImageFiles::PACKED + SxString(": not checked, since img.zqf isn't as it should be"));
        return;
    }
    SxFileIO packed(file, "rb", 0600);
    // The file begins by saying of which img.zqf it was packed. That is looked at first, since with another
    // one all frames differ.
    SxArray<char> head(ZqPackedForm::ORIGIN_SIZE);
    const int64 n = packed.readBuffer(head.data(), head.getSize());
    const std::string origin(head.data(), static_cast<size_t>(n));
    const bool isOurs = app.checksumZqf.isEmpty() || origin == ZqPackedForm::origin(app.checksumZqf);
    std::string magic;
    ZqPackedForm::append(&magic, ZqPackedForm::ORIGIN_MAGIC);
    try {
        const SxPtr<ZqSeekTable> table = isOurs || !origin.starts_with(magic) ? readTable(&packed) : nullptr;
        if (!table || (!isOurs && table->getNFrames() > 0 && table->getFrame(0).offset > 0)) {
            addFault("'" + file + "' wasn't packed of this img.zqf; pack the image again, or remove it");
            return;
        }
        checkFrames(*table, &packed);
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        addFault("'" + file + "': " + e.what());
    }
}

SxPtr<ZqSeekTable> ZqImageCheck::readTable(SxFileIO* packed) const {
    const auto size = static_cast<uint64>(packed->getSize());
    SxArray<char> tail(static_cast<int64>(std::min(size, ZqSeekTable::maxTail(sizeZqf))));
    packed->seek(static_cast<int64>(size) - tail.getSize());
    if (packed->readBuffer(tail.data(), tail.getSize()) != tail.getSize()) {
        throw SxException(SxFileIO::fileReadErr(packed->getFilePath()), UNIT, __LINE__);
    }
    return SxPtr<ZqSeekTable>::create(tail.data(), static_cast<uint64>(tail.getSize()), size, sizeZqf);
}

void ZqImageCheck::checkFrames(const ZqSeekTable& table, SxFileIO* packed) {
    SxFileIO zqf(pathPrefix + ZqImageFiles::ZQF, "rb", 0600);
    zqf.adviseSequential();
    SxArray<char> frame(static_cast<int64>(ZqSeekTable::MAX_PACKED));
    SxArray<char> plain(static_cast<int64>(ZqBlocks::STRETCH)), decoded(plain.getSize());
    const auto read = [](SxFileIO* from, SxArray<char>* to, int64 n) {
        if (from->readBuffer(to->data(), n) == n) return;
        throw SxException(SxFileIO::fileReadErr(from->getFilePath()), UNIT, __LINE__);
    };
    if (table.getNFrames() > 0) packed->seek(static_cast<int64>(table.getFrame(0).offset));
    uint64 nWrong = 0;
    for (uint64 frameIdx = 0; frameIdx < table.getNFrames(); ++frameIdx) {
        if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        const ZqSeekTable::Frame& place = table.getFrame(frameIdx);
        const auto nPlain =
            static_cast<int64>(std::min(ZqBlocks::STRETCH, sizeZqf - frameIdx * ZqBlocks::STRETCH));
        read(packed, &frame, place.size);
        read(&zqf, &plain, nPlain);
        SxString wrong;
        try {
            const uint32 checksum = ZqFrameDecoder::decode(frame.data(), place.size, decoded.data(), nPlain);
            if (table.hasChecksums() && checksum != place.checksum) {
                wrong = "has another checksum than the seek table states";
            } else if (std::memcmp(decoded.data(), plain.data(), static_cast<size_t>(nPlain)) != 0) {
                wrong = "doesn't give the bytes of img.zqf";
            }
        } catch (const SxException& e) {
            wrong = SxString("can't be decoded: ") + e.what();
        }
        if (!wrong.isEmpty() && ++nWrong <= MAX_LISTED) {
            addFault("'" + packed->getFilePath() + "': frame " + SxString(frameIdx) + " " + wrong);
        }
        addNCurrent(static_cast<uint64>(nPlain));
        updateSpeed(startTime);
    }
    if (nWrong > MAX_LISTED) {
        addFault("'" + packed->getFilePath() + "': " + SxString(nWrong - MAX_LISTED) + " more wrong frames");
    } else if (nWrong == 0) {
        notes.append(SxString(ZqImageFiles::PACKED) + ": " + table.getNFrames() +
                     " frames, packed of this img.zqf");
    }
}

void ZqImageCheck::checkDigest(const SxString& file, const SxString& expected) {
    const SxString name = SxFileInfo(file).getName();
    if (expected.isEmpty()) {
        notes.append(name + ": no digest to check against");
        return;
    }
    SxFileIO input(file, "rb", 0600);
    const SxString digest = SxMd5::file(&input, [&](int64 n) {
        if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        addNCurrent(static_cast<uint64>(n));
        updateSpeed(startTime);
        return true;
    });
    if (expected == digest) {
        notes.append(name + ": digest " + expected + " is right");
    } else {
        addFault("'" + file + "': the digest is " + digest + ", expected was '" +
                 SxParserKit::excerpt(expected) + "'");
    }
}

void ZqImageCheck::addFault(const SxString& text) {
    faults.append(text);
}
