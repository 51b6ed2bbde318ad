#include "ZqImageCheck.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxSymbol.h"
#include "ZqAppParams.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqPackedForm.h"
#include "ZqSysEnv.h"

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
    setNTotal((idx.isFile() ? static_cast<uint64>(idx.getSize()) : 0) +
              (sizeZqf < sizeComplete ? 0 : sizeZqf));
    checkMap();
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
        // A file that may be of any size isn't read into memory.
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
        const uint64 nExpected = sizeRaw / ZqImage::BLOCK_SIZE + (sizeRaw % ZqImage::BLOCK_SIZE != 0 ? 1 : 0);
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
        addFault("'" + file +
                 "': there is no digest, neither in img.idx.md5 nor in app.json; no mount takes it");
    } else {
        checkDigest(file, expected);
    }
}

void ZqImageCheck::checkEntries(const SxArray<uint64>& map) {
    const SxString file = pathPrefix + ZqImageFiles::IDX;
    const auto nRaw = static_cast<uint64>(map.getSize());
    const uint64 nZqf = app.sizeZqf / ZqImage::BLOCK_SIZE + (app.sizeZqf % ZqImage::BLOCK_SIZE != 0 ? 1 : 0);
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
                report(rawIdx, zqfIdx, "behind the end of the complete img.zqf");
        }
    }
    if (nWrong > MAX_LISTED)
        addFault(SxString("'") + file + "': " + (nWrong - MAX_LISTED) + " more wrong entries");
    if (nWrong == 0)
        notes.append("map: " + SxString(nRaw) + " entries, no ZqF block twice, none out of range");
    if (sizeComplete == 0) sizeComplete = nUsed * ZqImage::BLOCK_SIZE;
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
                             : "img.zqf is split into parts, all there; what they hold shows behind a join");
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
    if (!SxFSAction::test_f(file) || partial || app.checksumZqf.isEmpty()) return;
    SxFileIO input(file, "rb", 0600);
    SxArray<char> origin(ZqPackedForm::ORIGIN_SIZE);
    const int64 n = input.readBuffer(origin.data(), origin.getSize());
    if (std::string(origin.data(), static_cast<size_t>(n)) == ZqPackedForm::origin(app.checksumZqf)) {
        notes.append(ZqImageFiles::PACKED + SxString(": packed of this img.zqf"));
    } else {
        addFault("'" + file + "' wasn't packed of this img.zqf; pack the image again, or remove it");
    }
}

void ZqImageCheck::checkDigest(const SxString& file, const SxString& expected) {
    const SxString name = SxFileInfo(file).getName();
    if (expected.isEmpty()) {
        notes.append(name + ": no digest to check against");
        return;
    }
    SxFileIO input(file, "rb", 0600);
    input.adviseSequential();
    SxArray<char> buffer(CHUNK);
    SxMd5 md5;
    md5.initialize();
    while (const int64 n = input.readBuffer(buffer.data(), CHUNK)) {
        if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        md5.update(buffer.data(), n, -1);
        addNCurrent(static_cast<uint64>(n));
        updateSpeed(startTime);
    }
    md5.finish();
    if (expected == md5.toString()) {
        notes.append(name + ": digest " + expected + " is right");
    } else {
        addFault("'" + file + "': the digest is " + md5.toString() + ", expected was '" +
                 SxParserKit::excerpt(expected) + "'");
    }
}

void ZqImageCheck::addFault(const SxString& text) {
    faults.append(text);
}
