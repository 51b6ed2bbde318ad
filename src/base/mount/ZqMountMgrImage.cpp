// The operation of ZqMountMgr that turns an image folder into a running drive, with its checks and its guard.

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxSymbol.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqDriveMeans.h"
#include "ZqDriveStatus.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqLaunchCommand.h"
#include "ZqLaunchValues.h"
#include "ZqMountMgr.h"
#include "ZqRedirection.h"
#include "ZqStreamRecord.h"
#include "ZqTraceParams.h"
#include "ZqVolume.h"

#include <array>
#include <limits>

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";
constexpr int BLOCK_SHIFT = 12;         ///< a block has 4096 bytes
constexpr int64 CACHE_UNIT = 1'000'000; ///< bytes of one unit of `cacheSize` in app.json

/// Keeps the shape as it is over both mounts, so that nobody moves blocks between the check of the map and
/// the end of the mount; from then on the service's own lock keeps the image. A folder without an image has
/// no shape, and the next checks say what it lacks.
SxPtr<ZqImageLock> lockShape(const SxString& image) {
    if (!ZqImageFolder::holdsImage(image)) return nullptr;
    ZqImageLock::finishReplacement(image);
    return ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, "mount");
}

void checkSizes(const ZqAppParams& app, uint64 size, uint64 available) {
    if (size < app.sizeMnt) {
        throw SxException("Insufficient data for image mount available: is" + SxString(size) +
                              " bytes, expected " + app.sizeMnt + " bytes",
                          UNIT, __LINE__);
    }
    if (size < app.sizeZqf && size < available) {
        throw SxException("Image filesize does not satisfy available data: is" + SxString(size) +
                              " bytes, expected " + available + " bytes",
                          UNIT, __LINE__);
    }
}

/// Whether a drive in mode `rw` may come to write into the complete image. One whose file system takes no
/// writes is refused by the service, and stays as it was.
bool takesWrites(const SxString& image) {
    const SxString folder = ZqImageFolder::prefix(image);
    SxString type = ZqImageParams(folder).volume;
    if (type.isEmpty()) {
        std::array<char, ZqBlocks::SIZE> begin{};
        SxFileIO(folder + ZqImageFiles::ZQF, "rb").readBuffer(begin.data(), begin.size());
        type = ZqDriveMeans::typeOf({begin.data(), begin.size()});
    }
    return !(type == "erofs" || type == "squashfs");
}

template<class Read>
SxString readOrFail(const SxString& file, Read&& read) {
    try {
        return read();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read file " + file, UNIT, __LINE__);
    }
}

SxException corruptMap(const SxString& idx, const SxString& why) {
    return SxException(SxException("'" + idx + "' " + why, UNIT, __LINE__),
                       "Corrupt mapping information detected", UNIT, __LINE__);
}

void checkMap(const SxString& idx, const SxString& checksum) {
    const SxString md5File = idx + ".md5";
    const SxString actual = readOrFail(idx, [&] { return SxMd5::file(idx); });
    const SxString expected = SxFSAction::test_f(md5File)
                                  ? readOrFail(md5File, [&] { return SxFileIO::readUtf8(md5File); })
                                  : checksum;
    if (actual == expected) return;
    throw corruptMap(idx, "has the digest " + actual + ", expected was '" +
                              SxParserKit::excerpt(expected).makeVisible() + "'");
}

/// Units of app.json in bytes. In 64 bits and without overflow up to the check of setCacheSize(), so that a
/// large number fails there and doesn't become a small one.
int64 cacheBytes(int64 units) {
    constexpr int64 MAX = std::numeric_limits<int64>::max();
    return units > MAX / CACHE_UNIT ? MAX : units * CACHE_UNIT;
}

} // namespace

void ZqMountMgr::checkImage(const SxString& image, uint64 sizeRaw, uint64 cursor,
                            const SxString& traceFolder) const {
    const SxString zqf = image + "/" + ZqImageFiles::ZQF, idx = image + "/" + ZqImageFiles::IDX;
    if (!SxFSAction::test_f(idx)) throw SxException("Cannot find mapping file " + idx, UNIT, __LINE__);
    if (!SxFSAction::test_f(zqf)) throw SxException("Cannot find image file " + zqf, UNIT, __LINE__);
    checkSizes(*appParams, static_cast<uint64>(SxFileInfo(zqf).getSize()), cursor << BLOCK_SHIFT);
    if (!traceFolder.isEmpty()) {
        try {
            clearTraceFolder(image, traceFolder);
        } catch (const SxException& e) {
            throw SxException(e, "Cannot clean former trace data", UNIT, __LINE__);
        }
    }
    // A map of the wrong size is none, and may be too large to read.
    const uint64 nRaw = (sizeRaw + (uint64{1} << BLOCK_SHIFT) - 1) >> BLOCK_SHIFT;
    if (const int64 size = SxFileInfo(idx).getSize(); static_cast<uint64>(size) != nRaw * sizeof(uint64)) {
        throw corruptMap(idx, SxString("has ") + size + " bytes, expected were " + nRaw * sizeof(uint64));
    }
    checkMap(idx, appParams->checksumIdx);
    // A guard that answers with "no" has no reason to give.
    if (!guardPing()) ZqDriveStatus::require(-1, "ZqFM is not available", __LINE__);
}

void ZqMountMgr::prepareGuard(const SxString& image) {
    try {
        guardOn(image);
    } catch (const SxException& e) {
        umountAfterFailure(image);
        throw SxException(e, "Failed to activate guard on " + image + " image preparation mount", UNIT,
                          __LINE__);
    }
    umountImage(image, false);
}

void ZqMountMgr::equipDrive(const SxString& image, const SxString& traceFolder,
                            ZqTraceParams::Method traceMethod, const ZqRedirection& redirection) const {
    if (!traceFolder.isEmpty()) {
        ZqTraceParams trace;
        trace.method = traceMethod;
        trace.checksumMnt = appParams->checksumMnt;
        trace.write(ZqImageFolder::prefix(traceFolder));
    }
    try {
        guardOn(image);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to activate guard on " + image + " image after persistent mount", UNIT,
                          __LINE__);
    }
    try {
        setImageType(image, ZqFImage);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to set image type to ZqF for image " + image, UNIT, __LINE__);
    }
    if (!redirection.isEmpty()) redirect(image, redirection);
}

void ZqMountMgr::redirect(const SxString& image, const ZqRedirection& redirection) const {
    try {
        redirection.prepare(mntPoint);
        try {
            reparse(image, redirection.getNames(), redirection.getDirectory());
        } catch (const SxException& e) {
            throw SxException(e, "Cannot sent reparse instructions to ZqFM", UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Cannot prepare reparse points", UNIT, __LINE__);
    }
}

// NOLINTNEXTLINE(readability-function-size): the parameters of a mount, each of which every caller decides
SxString ZqMountMgr::mountImageZQF(MountMode mode, DeviceMode deviceMode, const SxString& image,
                                   uint64 sizeRaw, uint64 sectorSize, uint64 cursor, bool hostFlag,
                                   const SxString& traceFolder, const SxString& traceMethod) {
    return mountImageZQF({mode, deviceMode, image, traceFolder, sizeRaw, sectorSize, cursor, hostFlag},
                         traceMethod);
}

SxString ZqMountMgr::mountImageZQF(const MountRequest& request, const SxString& traceMethod) {
    const SxString &image = request.image, &traceFolder = request.traceFolder;
    if (!appParams) appParams = SxPtr<ZqAppParams>::create(ZqImageFolder::prefix(image));
    const SxList<SxString> access = request.noLaunchers ? SxList<SxString>() : appParams->access;
    MountRequest whole = request;
    whole.awaitFileSystem = true;
    const auto mount = [&] {
        try {
            mountImage(whole);
        } catch (const SxException& e) {
            throw SxException(e, "Failed to mount " + image + " image", UNIT, __LINE__);
        }
    };
    try {
        appParams->requireKnownFormat();
        // What a former mount has written for a launcher is worked out anew.
        if (!appParams->access.isEmpty()) ZqLaunchValues::originalOf(image, *appParams).applyTo(&*appParams);
        const ZqRedirection redirection(*appParams);
        const auto lock = lockShape(image);
        // A text that isn't known fails before a drive is made, and before the trace folder is emptied.
        const auto method =
            traceFolder.isEmpty() ? ZqTraceParams::Monitoring : ZqTraceParams::stringToMethod(traceMethod);
        checkImage(image, request.sizeRaw, request.cursor, traceFolder);
        // Before the mount, since a file system writes as soon as it comes up.
        if (request.mode == ReadWrite && ZqImageInfo::isComplete(image) && takesWrites(image))
            ZqStreamRecord::noteWrites(image);
        setCacheSize(0);
        mount();
        prepareGuard(image);
        if (appParams->cacheSize > 0) setCacheSize(cacheBytes(appParams->cacheSize));
        // The launcher and its title write beside each other on the drive.
        if (access.contains(ZqLaunchCommand::EPIC)) whole.mode = ReadTWLayer;
        mount();
        try {
            equipDrive(image, traceFolder, method, redirection);
            setUpLaunchers(access);
            ZqVolume::setReady(image);
        } catch (const SxException&) {
            umountAfterFailure(image);
            throw;
        }
        return mntPoint;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot mount ZqF image " + image, UNIT, __LINE__);
    }
}
