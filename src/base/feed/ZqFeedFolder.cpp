#include "ZqFeedFolder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqFailurePolicy.h"
#include "ZqImageAddress.h"
#include "ZqImageContent.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageRecords.h"
#include "ZqLog.h"
#include "ZqOrderCarry.h"
#include "ZqRemoteFile.h"
#include "ZqSyncedSize.h"
#include "ZqVolume.h"

namespace {
constexpr const char* UNIT = "src/base/ZqFeedFolder";
} // namespace

SxString ZqFeedFolder::filePath(const char* name) const {
    return ZqImageFolder::prefix(settings.image) + name;
}

uint64 ZqFeedFolder::fileSize() const {
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    return zqf.isFile() ? static_cast<uint64>(zqf.getSize()) : 0;
}

void ZqFeedFolder::requireFolder() const {
    if (!settings.url.isEmpty()) ZqImageAddress::require(settings.url);
    if (settings.url.isEmpty() && !SxFSAction::exists(settings.image)) {
        throw SxException("Image folder '" + settings.image + "' not found, and no address is given", UNIT,
                          __LINE__);
    }
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    if (zqf.isLink() && !ZqImageInfo::isComplete(settings.image)) {
        throw SxException("'" + zqf.getOrig() + "' is a link, and a download goes only into its folder", UNIT,
                          __LINE__);
    }
}

bool ZqFeedFolder::take(const ZqStopTest& stop) {
    requireFolder();
    // What the image or the settings name may be wrong where nobody is asked.
    ZqNetAccess{
        settings.access.trustFile.value_or(SxString()), settings.access.proxy.value_or(SxString()), {}}
        .check();
    made = SxPtr<ZqNewFolder>::create(settings.image);
    growth = ZqImageLock::take(settings.image, ZqImageLock::Growth, ZqImageLock::Exclusive, settings.job);
    // Before anything looks at the size. A drive that is up has taken no more than can be believed either.
    ZqSyncedSize(filePath(ZqImageFiles::ZQF)).cutBack(stop);
    record.read(settings.image);
    url = settings.url.isEmpty() ? record.url : settings.url;
    access = ZqImageAccess(record, settings.access);
    hadAll = ZqImageInfo::holdsPart(settings.image);
    shape = ZqImageLock::take(settings.image, ZqImageLock::Shape,
                              hadAll ? ZqImageLock::Shared : ZqImageLock::Exclusive, settings.job);
    cutSurplus(stop);
    if (ZqImageInfo::isComplete(settings.image)) return true;
    access.get().check();
    if (!url.isEmpty()) return false;
    throw SxException("Image '" + settings.image +
                          "' isn't complete, and no address is known that it could be completed from",
                      UNIT, __LINE__);
}

/// Whether the kernel serves a drive from `img.zqf`, or a program has it open: a drive that is no longer one
/// may still be read.
bool ZqFeedFolder::isReadByKernel() const {
    try {
        ZqDiskStatus disk;
        if (ZqVolume::findDisk(settings.image, &disk)) return disk.isServedByKernel;
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        return true;
    }
    return ZqImageLock::isFileOpen(settings.image);
}

/// A file that is as large as the image though no download has made it so is the image, as its digest tells,
/// or another file, of which at most the beginning is right: that is cut back to what was noted.
void ZqFeedFolder::cutSurplus(const ZqStopTest& stop) const {
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    if (url.isEmpty() || record.isWritten || zqf.isLink() || !ZqImageInfo::isComplete(settings.image)) return;
    if (isReadByKernel()) return; // which would read zeros; the comparison with its digest tells later
    const ZqAppParams own(filePath(""));
    const auto cutTo = [&](uint64 size) {
        zqLogMsg("base", "'" + zqf.getOrig() + "' has " + SxString(fileSize()) + " bytes, and is cut to " +
                             SxString(size));
        SxFileIO(zqf.getOrig(), "r+b").truncate(static_cast<int64>(size));
    };
    try {
        if (fileSize() > own.sizeZqf) cutTo(own.sizeZqf);
        const auto left = static_cast<uint64>(record.left.size);
        if (record.left.size < 0 || left >= own.sizeZqf || own.checksumZqf.isEmpty()) return;
        if (!ZqSyncedSize(zqf.getOrig()).isWholeImage(own.sizeZqf, stop)) cutTo(left);
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        // The comparison with its digest tells later.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqFeedFolder::keep() {
    if (made) made->keep();
}

void ZqFeedFolder::removeNew() {
    if (!made || !made->isNew()) return;
    try {
        ZqImageContent(settings.image).remove();
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
    made = SxPtr<ZqNewFolder>();
}

void ZqFeedFolder::fetchBegin(const SxPtr<ZqNetLink>& link, char* bytes, uint64 n,
                              const ZqStopTest& stop) const {
    ZqRemoteFile(link, ZqRemoteFile::urlIn(url, ZqImageFiles::ZQF), settings.headers, getApp().sizeZqf)
        .read(0, n, bytes, stop);
}

bool ZqFeedFolder::openApp(const SxPtr<ZqNetLink>& link, const ZqStopTest& stop) {
    try {
        ZqOrderCarry::removeRemains(settings.image);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
    ZqAppParams app;
    bool isConfirmed = true;
    if (!link) {
        app = ZqAppParams(filePath(""));
        // A run plays without its server. Who only completes an image has no use for an address that gives
        // another one.
        if (settings.isDownloadOnly && !(url == record.url)) {
            access.get().check();
            ZqImageRecords(SxPtr<ZqNetLink>::create(getAccess()), settings.image, url, settings.headers)
                .requireSameOnServer(app, stop);
            hasAnswered = true;
        }
    } else {
        app = fetchApp(link, &isConfirmed, stop);
        hasAnswered = isConfirmed;
    }
    ZqFeedSettings found = settings;
    found.url = url;
    origin = ZqImageOrigin(found, getAccess(), app);
    app.requireKnownFormat();
    // What is downloaded from its beginning on has nothing of an earlier file.
    written = record.isWritten && fileSize() > 0;
    return isConfirmed;
}

ZqAppParams ZqFeedFolder::fetchApp(const SxPtr<ZqNetLink>& link, bool* isConfirmed, const ZqStopTest& stop) {
    ZqImageRecords records(link, settings.image, url, settings.headers);
    try {
        return records.fetchApp(!settings.isDownloadOnly, isConfirmed, stop);
    } catch (const SxException& e) {
        if (!e.hasTag(ZqFailurePolicy::OTHER_ORDER) || record.isWritten) throw;
    }
    // What moves blocks has the image for itself.
    shape = SxPtr<ZqImageLock>();
    carried = ZqOrderCarry::run(link, settings.image, url, settings.headers, stop);
    zqLogMsg("base", carried);
    hadAll = ZqImageInfo::holdsPart(settings.image);
    shape = ZqImageLock::take(settings.image, ZqImageLock::Shape,
                              hadAll ? ZqImageLock::Shared : ZqImageLock::Exclusive, settings.job);
    return records.fetchApp(!settings.isDownloadOnly, isConfirmed, stop);
}

/// What of the options is noted. No server has to answer for a note that is taken back.
ZqAccessWish ZqFeedFolder::notedWish() const {
    ZqAccessWish wish = settings.access;
    for (std::optional<SxString>* option : {&wish.trustFile, &wish.proxy}) {
        if (!hasAnswered && *option && !(*option)->isEmpty()) option->reset();
    }
    return wish;
}

void ZqFeedFolder::noteUse(bool isDownloaded) const {
    const bool isFresh = fileSize() == 0;
    const bool dropsDigest = isDownloaded && !record.verified.isEmpty();
    const bool dropsLeft = record.left.size >= 0;
    ZqStreamRecord noted = record;
    const ZqAccessWish wish = notedWish();
    const bool notesAccess = ZqImageAccess::note(&noted, wish);
    if (record.url == url && !notesAccess && !dropsDigest && !dropsLeft && record.isWritten == written)
        return;
    ZqStreamRecord::update(settings.image, [&](ZqStreamRecord* now) {
        now->url = url;
        ZqImageAccess::note(now, wish);
        // A kill must not leave what is written from now on as believed.
        now->left = ZqStreamRecord::Left();
        if (isDownloaded) now->verified = SxString();
        if (isFresh) now->isWritten = false;
    });
}

void ZqFeedFolder::openRest(const SxPtr<ZqNetLink>& link, std::atomic<uint64>* mapLeft,
                            const ZqStopTest& stop) {
    if (link) {
        ZqImageRecords records(link, settings.image, url, settings.headers);
        records.setMapLeft(mapLeft);
        records.fetchRest(getApp(), stop);
    }
    params = ZqImageParams(filePath(""));
    shape->lower();
}

SxPtr<const ZqOrderHints> ZqFeedFolder::fetchHints(const SxPtr<ZqNetLink>& link,
                                                   const ZqStopTest& stop) const {
    auto hints = ZqImageRecords(link, settings.image, url, settings.headers).fetchHints(getApp(), stop);
    return hints ? SxPtr<ZqOrderHints>::create(std::move(*hints)) : SxPtr<ZqOrderHints>();
}

bool ZqFeedFolder::isKnownAsRight() const {
    const SxString& stated = getApp().checksumZqf;
    return stated.isEmpty() || written || record.isVerified(settings.image, stated);
}
