#include "ZqImageMapFetch.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqPackedMap.h"
#include "ZqUrlText.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqImageMapFetch";
/// At the end of a file's name while it comes.
constexpr const char* NEW = ".new";
constexpr int64 PIECE = 1 << 20;
constexpr uint64 ENTRY = sizeof(uint64);
/// Requests in a row that a form may fail in while the other one may be there.
constexpr int64 TURN_TRIES = 3;

} // namespace

ZqImageMapFetch::ZqImageMapFetch(const SxPtr<ZqNetLink>& link_, const SxString& folder_, const SxString& url_,
                                 const SxArray<SxString>& headers_, const ZqAppParams& app,
                                 const ZqStopTest& stop_)
    : link(link_),
      folder(folder_),
      url(url_),
      headers(headers_),
      sizeIdx(app.sizeIdx),
      digest(app.checksumIdx),
      stop(stop_),
      retry(SxPtr<ZqNetRetry>::create(link, link->getSettings().nStreamTries)) {
    setThreadName("map");
}

void ZqImageMapFetch::finish() {
    wait();
    if (hasException()) throw getException();
}

void ZqImageMapFetch::main() {
    const Form plain = {ZqImageFiles::IDX, folder + ZqImageFiles::IDX + NEW, sizeIdx, false};
    const Form packed = {ZqImageFiles::IDX_PACKED, folder + ZqImageFiles::IDX_PACKED + NEW,
                         ZqPackedMap::maxSize(sizeIdx), true};
    bool hasPacked = sizeIdx > 0 && sizeIdx % ENTRY == 0, hasPlain = true;
    while (!tryForm(packed, &hasPacked, hasPlain) && !tryForm(plain, &hasPlain, hasPacked)) {
    }
    if (nLeft) nLeft->store(0);
    removePart(packed);
    removePart(plain);
}

/// False where that form isn't there, or not now, and the other one has its turn.
bool ZqImageMapFetch::tryForm(const Form& form, bool* mayCome, bool hasOther) {
    if (!*mayCome) return false;
    beginTurn(hasOther);
    try {
        fetch(form);
        return true;
    } catch (const SxException& e) {
        const bool isAway = e.hasTag(ZqNetRetry::TURN_ENDED);
        // A server may have the packed form alone, and is waited for with that; the plain one makes up for
        // whatever else is wrong with it.
        const bool isOfNoUse = form.isPacked
                                   ? !e.hasTag(SxException::STOPPED) && !e.hasTag(ZqNetLink::UNREACHABLE)
                                   : e.hasTag(ZqNetLink::NOT_FOUND) || e.hasTag(ZqNetLink::REFUSED);
        if (!hasOther || !(isAway || isOfNoUse)) throw;
        *mayCome = isAway;
        zqLogMsg("base", "ZqImageMapFetch: " + e.toString(SxException::ShowMessage, ": "));
        return false;
    }
}

/// A start waits for the map, and silence lasts as long as a request may.
void ZqImageMapFetch::beginTurn(bool hasOther) const {
    if (hasOther) {
        retry->beginTurn(TURN_TRIES, link->getSettings().stallMs / 2);
    } else {
        retry->endTurns();
    }
}

/// A map that is wrong is fetched once more as a whole, past caches. What an earlier run has left of it may
/// be of a file that the server no longer has, or not be on the device; what has just come may be of a stale
/// cache, or have been damaged on its way.
void ZqImageMapFetch::fetch(const Form& form) {
    // Without a digest nothing would tell that what an earlier run has left is wrong.
    if (digest.isEmpty()) removePart(form);
    for (bool isLast = false;; isLast = true) {
        const bool isAnew = !SxFSAction::exists(form.part);
        bool isMixed = false;
        try {
            download(form, isLast, &isMixed);
            take(form);
            return;
        } catch (const SxException& e) {
            for (const char* tag : {SxException::STOPPED, ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN}) {
                if (e.hasTag(tag)) throw;
            }
            removePart(form);
            const bool mayHelp = !isAnew || isMixed || e.hasTag(ZqNetLink::WRONG);
            if (isLast || !mayHelp || e.hasTag(ZqNetLink::NOT_FOUND) || e.hasTag(ZqNetLink::REFUSED)) throw;
            zqLogMsg("base", "ZqImageMapFetch: begins anew: " + e.toString(SxException::ShowMessage, ": "));
        }
    }
}

void ZqImageMapFetch::download(const Form& form, bool isFresh, bool* isMixed) const {
    const uint64 expected = form.isPacked ? ZqRemoteFile::UNKNOWN : form.maxSize;
    ZqRemoteFile remote(link, ZqRemoteFile::urlIn(url, form.name), headers, expected);
    if (isFresh) remote.setFresh();
    remote.setRetry(retry);
    remote.getFacts()->setSameTest([isMixed](const ZqStopTest&) {
        *isMixed = true;
        return true;
    });
    if (digest.isEmpty()) {
        remote.fetchTo(form.part, stop, form.maxSize);
        return;
    }
    const SxFileInfo there(form.part);
    const bool goesOn =
        there.isFile() && !there.isLink() && static_cast<uint64>(there.getSize()) <= form.maxSize;
    SxFileIO file;
    if (goesOn) {
        file.open(form.part, "ab");
    } else {
        file.create(form.part, 0644);
    }
    auto size = static_cast<uint64>(file.getSize());
    const auto sink = [&](const char* bytes, int64 n) {
        size += static_cast<uint64>(n);
        if (size > form.maxSize) {
            throw SxException(ZqNetLink::WRONG,
                              "'" + ZqUrlText::of(remote.getUrl()) + "' has more than " +
                                  SxString(form.maxSize) + " bytes",
                              UNIT, __LINE__);
        }
        file.writeBuffer(bytes, n);
        const uint64 total = remote.getSize();
        if (nLeft && total != ZqRemoteFile::UNKNOWN) nLeft->store(total - std::min(total, size));
        return true;
    };
    const bool isWhole = !form.isPacked && size == form.maxSize;
    if (!isWhole) remote.stream(size, sink, stop);
    file.sync();
}

/// Makes the map of what came, where that is right.
void ZqImageMapFetch::take(const Form& form) const {
    const SxString map = folder + ZqImageFiles::IDX;
    const SxString address = ZqUrlText::of(ZqRemoteFile::urlIn(url, form.name));
    if (form.isPacked) {
        try {
            decode(form.part);
        } catch (const SxException& e) {
            throw SxException(e, "Cannot use '" + address + "'", UNIT, __LINE__).tagged(ZqNetLink::WRONG);
        }
        return;
    }
    if (static_cast<uint64>(SxFileInfo(form.part).getSize()) != sizeIdx ||
        (!digest.isEmpty() && !(SxMd5::file(form.part) == digest))) {
        throw SxException(ZqNetLink::WRONG, "The map at " + address + " isn't that of this image", UNIT,
                          __LINE__);
    }
    SxFSAction::mv(form.part, map);
    SxFSAction::syncDir(folder);
}

void ZqImageMapFetch::decode(const SxString& packed) const {
    SxFileIO::writeAtomic(folder + ZqImageFiles::IDX, [&](SxFileIO* map) {
        ZqPackedMap::Decoder decoder(sizeIdx, digest,
                                     [&](const char* bytes, int64 n) { map->writeBuffer(bytes, n); });
        SxFileIO in(packed, "rb");
        SxArray<char> piece(PIECE);
        while (const int64 n = in.readBuffer(piece.data(), PIECE)) {
            link->checkStop(stop);
            decoder.take(piece.data(), n);
        }
        decoder.finish();
    });
}

void ZqImageMapFetch::removePart(const Form& form) const {
    if (SxFSAction::exists(form.part)) SxFSAction::rm(form.part);
}
