#include "ZqImageRecords.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqBlocks.h"
#include "ZqFailurePolicy.h"
#include "ZqImageAddress.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageMapFetch.h"
#include "ZqImageParams.h"
#include "ZqJobsTogether.h"
#include "ZqLog.h"
#include "ZqSeekTable.h"
#include "ZqUrlText.h"

namespace {

constexpr const char* UNIT = "src/base/ZqImageRecords";
constexpr int64 MAX_RECORD = SxFileIO::MAX_TEXT;
constexpr uint64 MD5_SIZE = 32;
/// Requests in a row after which the map no longer waits for its digest.
constexpr int64 DIGEST_TRIES = 3;
/// How long a start waits for the server's word where what is there can be played without.
constexpr int64 PATIENCE_NS = 4'000'000'000;
/// Name under which a record waits until it is checked.
constexpr const char* NEW = ".new";

int64 fileSize(const SxString& path) {
    const SxFileInfo file(path);
    return file.isFile() ? file.getSize() : -1;
}

/// Whether the two records are of the same version and block order.
bool areSame(const ZqAppParams& own, const ZqAppParams& server) {
    // Either record may state no digest of `img.zqf`, which says nothing then.
    const bool areZqfsStated = !own.checksumZqf.isEmpty() && !server.checksumZqf.isEmpty();
    return own.sizeZqf == server.sizeZqf && own.checksumMnt == server.checksumMnt &&
           own.checksumIdx == server.checksumIdx && (!areZqfsStated || own.checksumZqf == server.checksumZqf);
}

/// Takes a record, and once more where it is wrong: past caches, and over a connection of its own.
template<class Take>
void takeRecord(const Take& take) {
    try {
        take(false);
        return;
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::WRONG)) throw;
        zqLogMsg("base", "ZqImageRecords: asks anew: " + e.toString(SxException::ShowMessage, ": "));
    }
    take(true);
}

} // namespace

ZqImageRecords::ZqImageRecords(const SxPtr<ZqNetLink>& link_, const SxString& image,
                               const SxString& folderUrl, const SxArray<SxString>& headers_)
    : link(link_),
      folder(ZqImageFolder::prefix(image)),
      address(folderUrl),
      url(ZqUrlText::of(folderUrl)),
      headers(headers_) {
}

SxPtr<ZqRemoteFile> ZqImageRecords::remote(const char* name, bool isFresh, uint64 expectedSize) const {
    auto file = SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(address, name), headers, expectedSize);
    if (isFresh) file->setFresh();
    // A record is taken in one piece, of whichever mirror, and checked as a whole.
    file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
    return file;
}

bool ZqImageRecords::hasBlocks() const {
    return fileSize(folder + ZqImageFiles::ZQF) > 0;
}

bool ZqImageRecords::hasMap(const ZqAppParams& known) const {
    const SxString idx = folder + ZqImageFiles::IDX;
    return fileSize(idx) == static_cast<int64>(known.sizeIdx) &&
           (known.checksumIdx.isEmpty() || SxMd5::file(idx) == known.checksumIdx);
}

void ZqImageRecords::requireSame(const ZqAppParams& own, const ZqAppParams& server) const {
    if (areSame(own, server)) return;
    if (own.checksumMnt == server.checksumMnt && own.checksumIdx != server.checksumIdx) {
        const SxException order(
            ZqFailurePolicy::OTHER_ORDER,
            "its version is the same; what is there comes to that order by: tavrin image optimize IMAGE URL",
            UNIT, __LINE__);
        throw SxException(order,
                          "The image at " + url + " has another block order than that in '" + folder + "'",
                          UNIT, __LINE__)
            .tagged(ZqFailurePolicy::OTHER_VERSION);
    }
    throw SxException(ZqFailurePolicy::OTHER_VERSION,
                      "The image at " + url + " has another version than that in '" + folder +
                          "', which can't be completed from it: start with an empty folder",
                      UNIT, __LINE__);
}

/// A portal answers whatever is asked for with its own page, and the parser's complaint tells nobody of that.
void ZqImageRecords::requireNoPage(const SxString& text, const char* name) const {
    const size_t begin = text.str().find_first_not_of("\xef\xbb\xbf \t\r\n");
    if (begin == std::string::npos || text.str()[begin] != '<') return;
    throw SxException(ZqNetLink::WRONG,
                      "the server answers with a web page instead of '" + urlOf(name) +
                          "', perhaps one to log in to",
                      UNIT, __LINE__);
}

ZqAppParams ZqImageRecords::look(const ZqAppParams* own, std::optional<SxString>* text,
                                 const ZqStopTest& stop, ZqTransfer::Kind kind) const {
    ZqAppParams server;
    takeRecord([&](bool isFresh) {
        server = parseApp(remote(ZqImageFiles::APP_JSON, isFresh)->get(MAX_RECORD, stop, kind), text);
        // A cache may still have that of a former version.
        if (own && !isFresh && !areSame(*own, server)) {
            throw SxException(ZqNetLink::WRONG,
                              "'" + urlOf(ZqImageFiles::APP_JSON) + "' seems to be of another version", UNIT,
                              __LINE__);
        }
    });
    return server;
}

ZqAppParams ZqImageRecords::parseApp(const SxArray<char>& bytes, std::optional<SxString>* text) const {
    *text = SxString(std::string_view(bytes.data(), static_cast<size_t>(bytes.getSize())));
    requireNoPage(**text, ZqImageFiles::APP_JSON);
    try {
        ZqAppParams server;
        server.readText(**text, ZqImageFiles::APP_JSON);
        server.requireKnownFormat();
        return server;
    } catch (const SxException& e) {
        // A page to log in to, say.
        throw SxException(e, "Cannot use '" + urlOf(ZqImageFiles::APP_JSON) + "'", UNIT, __LINE__)
            .tagged(ZqNetLink::WRONG);
    }
}

void ZqImageRecords::requireSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const {
    requireSame(own, lookAtAddress(&own, stop));
}

ZqAppParams ZqImageRecords::getApp(const ZqStopTest& stop) const {
    return lookAtAddress(nullptr, stop);
}

ZqAppParams ZqImageRecords::lookAtAddress(const ZqAppParams* own, const ZqStopTest& stop) const {
    std::optional<SxString> text;
    try {
        return look(own, &text, stop);
    } catch (const SxException& e) {
        raiseNoImage(e, text);
    }
}

void ZqImageRecords::raiseNoImage(const SxException& why, const std::optional<SxString>& text) const {
    if (why.hasTag(ZqNetLink::NOT_FOUND)) throw ZqImageAddress::absent(address, why);
    if (why.hasTag(ZqNetLink::UNAUTHORIZED)) {
        throw SxException(why, "Give the server what it asks for with --header", UNIT, __LINE__);
    }
    if (!why.hasTag(ZqNetLink::WRONG) || !text) throw SxException(why);
    throw ZqImageAddress::other(address, ZqImageAddress::kindOf(*text), why);
}

bool ZqImageRecords::isSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const {
    std::optional<SxString> text;
    return areSame(own, look(&own, &text, stop, ZqTransfer::Kind::OnDemand));
}

ZqAppParams ZqImageRecords::fetchApp(bool mayPlay, bool* isConfirmed, const ZqStopTest& stop) {
    *isConfirmed = true;
    const SxString file = folder + ZqImageFiles::APP_JSON;
    // An earlier run may have been killed before it had the other records, which fetchRest() brings.
    const bool resumes = hasBlocks();
    if (resumes && !SxFSAction::test_f(file)) {
        throw SxException("'" + folder + "' holds an image without its app.json, which can't be completed",
                          UNIT, __LINE__);
    }
    ZqAppParams server, own;
    if (resumes) own = ZqAppParams(folder);
    std::optional<SxString> text;
    const bool mayGoWithout = mayPlay && ZqImageInfo::holdsPart(folder);
    const int64 endNs = SxClock::get().steadyNs() + PATIENCE_NS;
    bool isLate = false;
    try {
        server = look(resumes ? &own : nullptr, &text, [&] {
            if (stop && stop()) return true;
            isLate = mayGoWithout && SxClock::get().steadyNs() >= endNs;
            return isLate;
        });
    } catch (const SxException& e) {
        // What is there can be played; the download waits for its server, and says so.
        const bool mayPass = isLate || ZqFailurePolicy::decide(e, true) != ZqFailurePolicy::End;
        if (!mayGoWithout || !mayPass) raiseNoImage(e, text);
        *isConfirmed = false;
        return own;
    }
    if (resumes) {
        requireSame(own, server);
        return own;
    }
    // Records of another image would be taken for this one's, since no digest of them is known.
    for (const char* name : {ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX_MD5}) {
        if (SxFSAction::exists(folder + name)) SxFSAction::rm(folder + name);
    }
    SxFileIO::writeAtomic(file, *text);
    // The record has been checked; its folder is the image's now.
    return ZqAppParams(folder);
}

/// A wrong `img.json` that took its place would stay there: it isn't fetched again once there are blocks.
void ZqImageRecords::requireParams(const SxString& file, const ZqAppParams& app) const {
    try {
        requireNoPage(SxFileIO::readUtf8(file), ZqImageFiles::IMAGE_JSON);
        ZqImageParams server;
        server.readFile(file);
        const uint64 nBlocks = (static_cast<uint64>(server.sizeRaw) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
        if (nBlocks * sizeof(uint64) != app.sizeIdx) {
            throw SxException("It states a disk of " + SxString(nBlocks) +
                                  " blocks, where app.json states a map of " +
                                  SxString(app.sizeIdx / sizeof(uint64)),
                              UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Cannot use '" + urlOf(ZqImageFiles::IMAGE_JSON) + "'", UNIT, __LINE__)
            .tagged(ZqNetLink::WRONG);
    }
}

/// A damaged `img.json` counts as missing, since the server has it, too.
bool ZqImageRecords::hasParams(const ZqAppParams& app) const {
    const SxString file = folder + ZqImageFiles::IMAGE_JSON;
    if (!SxFSAction::test_f(file)) return false;
    try {
        requireParams(file, app);
        return true;
    } catch (const SxException& e) {
        zqLogMsg("base", "'" + file + "' is fetched anew: " + e.toString(SxException::ShowMessage, ": "));
        return false;
    }
}

void ZqImageRecords::fetchRest(const ZqAppParams& app, const ZqStopTest& stop) {
    // Beside the map, so that a round trip is paid once for both.
    ZqJobsTogether fetches;
    if (!hasParams(app)) fetches.start("record", [&] { fetchParams(app, stop); });
    fetchMap(app, stop);
    fetches.wait();
}

void ZqImageRecords::fetchIndex(const ZqStopTest& stop) {
    bool isConfirmed = false;
    const ZqAppParams app = fetchApp(false, &isConfirmed, stop);
    app.requireKnownFormat();
    ZqJobsTogether fetches;
    fetches.start("hints", [&] { (void)fetchHints(app, stop); });
    fetchRest(app, stop);
    fetches.wait();
}

std::optional<ZqOrderHints> ZqImageRecords::fetchHints(const ZqAppParams& app, const ZqStopTest& stop) const {
    const SxString file = folder + ZqImageFiles::HINTS;
    try {
        auto known = ZqOrderHints::read(folder, app.checksumIdx, ZqSeekTable::countFrames(app.sizeZqf));
        if (known) return known;
        if (!SxFSAction::isGone(file)) SxFSAction::rm(file);
        // Nothing binds them to this order then.
        if (app.checksumIdx.isEmpty()) return std::nullopt;
        return bringHints(app, stop);
    } catch (const SxException& e) {
        // Most servers have none, and a stop is no failure.
        if (!e.hasTag(ZqNetLink::NOT_FOUND) && !e.hasTag(SxException::STOPPED))
            zqLogMsg("base", "Goes on without hints: " + e.toString(SxException::ShowMessage, ": "));
        return std::nullopt;
    }
}

ZqOrderHints ZqImageRecords::bringHints(const ZqAppParams& app, const ZqStopTest& stop) const {
    std::optional<ZqOrderHints> hints;
    SxArray<char> bytes;
    takeRecord([&](bool isFresh) {
        const SxPtr<ZqRemoteFile> server = remote(ZqImageFiles::HINTS, isFresh);
        server->getFacts()->allowAbsence();
        bytes = server->get(ZqOrderHints::MAX_SIZE, stop);
        try {
            hints = ZqOrderHints::parse({bytes.data(), static_cast<size_t>(bytes.getSize())}, app.checksumIdx,
                                        ZqSeekTable::countFrames(app.sizeZqf));
        } catch (const SxException& e) {
            throw SxException(e, "Cannot use '" + urlOf(ZqImageFiles::HINTS) + "'", UNIT, __LINE__)
                .tagged(ZqNetLink::WRONG);
        }
    });
    try {
        SxFileIO::writeAtomic(folder + ZqImageFiles::HINTS, [&](SxFileIO* file) { file->write(bytes); });
    } catch (const SxException& e) {
        // This run has them; the next one asks again.
        zqLogMsg("base", e.toString(SxException::ShowMessage, ": "));
    }
    return *hints;
}

void ZqImageRecords::fetchParams(const ZqAppParams& app, const ZqStopTest& stop) const {
    const SxString params = folder + ZqImageFiles::IMAGE_JSON;
    takeRecord([&](bool isFresh) {
        remote(ZqImageFiles::IMAGE_JSON, isFresh)->fetchTo(params + NEW, stop, MAX_RECORD);
        requireParams(params + NEW, app);
    });
    SxFSAction::mv(params + NEW, params);
}

void ZqImageRecords::fetchMap(const ZqAppParams& app, const ZqStopTest& stop) const {
    const SxString file = folder + ZqImageFiles::IDX_MD5;
    ZqAppParams known = app;
    const bool isStated = !app.checksumIdx.isEmpty();
    if (!isStated && fileSize(file) == static_cast<int64>(MD5_SIZE))
        known.checksumIdx = SxFileIO::readUtf8(file);
    if (!known.checksumIdx.isEmpty() && hasMap(known)) return;
    // What stands there belongs to another map, and would be believed rather than app.json.
    if (isStated && SxFSAction::exists(file)) SxFSAction::rm(file);
    if (!isStated) known.checksumIdx = awaitDigest(app, stop);
    try {
        bringMap(known, stop);
    } catch (const SxException& e) {
        if (isStated || !e.hasTag(ZqNetLink::WRONG)) throw;
        // Either the map or its digest may be the wrong one, and the map was asked for twice already.
        const SxString again = fetchDigest(true, false, stop);
        if (again == known.checksumIdx) throw;
        known.checksumIdx = again;
        bringMap(known, stop);
    }
}

void ZqImageRecords::bringMap(const ZqAppParams& known, const ZqStopTest& stop) const {
    if (hasMap(known)) return;
    ZqImageMapFetch fetch(link, folder, address, headers, known, stop);
    fetch.setLeft(mapLeft);
    fetch.start();
    fetch.finish();
}

/// Without a digest no mount takes the map, so it is waited for; but what comes of the map doesn't wait.
SxString ZqImageRecords::awaitDigest(const ZqAppParams& app, const ZqStopTest& stop) const {
    SxString digest;
    try {
        takeRecord([&](bool isFresh) { digest = fetchDigest(isFresh, true, stop); });
        return digest;
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetRetry::TURN_ENDED)) throw;
        zqLogMsg("base", "ZqImageRecords: " + e.toString(SxException::ShowMessage, ": "));
    }
    bringMap(app, stop);
    takeRecord([&](bool isFresh) { digest = fetchDigest(isFresh, false, stop); });
    return digest;
}

/// The text of `img.idx.md5`, which is put in place; empty where the server hasn't got it.
SxString ZqImageRecords::fetchDigest(bool isFresh, bool isTurn, const ZqStopTest& stop) const {
    const SxString file = folder + ZqImageFiles::IDX_MD5;
    const SxPtr<ZqRemoteFile> digest = remote(ZqImageFiles::IDX_MD5, isFresh, MD5_SIZE);
    digest->getFacts()->allowAbsence();
    const auto retry = SxPtr<ZqNetRetry>::create(link, link->getSettings().nStreamTries);
    if (isTurn) retry->beginTurn(DIGEST_TRIES, link->getSettings().stallMs / 2);
    digest->setRetry(retry);
    try {
        digest->fetchTo(file, stop, MD5_SIZE);
        return SxFileIO::readUtf8(file);
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::NOT_FOUND)) throw;
    }
    if (SxFSAction::exists(file)) SxFSAction::rm(file);
    return {};
}
