#pragma once

#include "SxArray.h"
#include "ZqAppParams.h"
#include "ZqOrderHints.h"
#include "ZqRemoteFile.h"
#include "ZqUrlText.h"

#include <atomic>
#include <optional>

/// Brings the records of an image (all of its files but `img.zqf`) from its server into its folder. Each is
/// put in place as a whole. `app.json`, which the others are checked against, comes first; blocks come in
/// while the others are still on their way. A record that is wrong as a whole is fetched once more, over a
/// connection of its own and past caches. For one thread.
class ZqImageRecords {
public:
    /// `image`: the image folder, which exists. `folderUrl`: its address, see ZqRemoteFile::urlIn().
    ZqImageRecords(const SxPtr<ZqNetLink>& link_, const SxString& image, const SxString& folderUrl,
                   const SxArray<SxString>& headers_);

    /// Fetches `app.json` and gives it. A folder that holds bytes of `img.zqf` keeps its own, and must be of
    /// the same version and block order as the server's, since the two can't be mixed. Other records that a
    /// killed run didn't get to are fetched later; `app.json` alone can't be missing then. Where the server
    /// gives none within 4 s, however busy or silent it is, and the folder has all records, these will do if
    /// it is to be played (`mayPlay`); `*isConfirmed` tells whether the server has said so. The caller has
    /// the image's shape for itself alone.
    ZqAppParams fetchApp(bool mayPlay, bool* isConfirmed, const ZqStopTest& stop);
    /// The server's `app.json`, which is put nowhere. Raises with the tags of ZqNetLink, and says so where
    /// there is no image at the address.
    ZqAppParams getApp(const ZqStopTest& stop) const;
    /// Raises with the tag ZqFailurePolicy::OTHER_VERSION where the server's `app.json` is now that of
    /// another version or block order than `own`, and with those of ZqNetLink where it can't be told.
    void requireSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const;
    /// Fetches what else is missing or doesn't fit `app`: `img.json`, `img.idx`, its digest.
    void fetchRest(const ZqAppParams& app, const ZqStopTest& stop);
    /// Has the fetch of the map tell what is still to come, see ZqImageMapFetch::setLeft().
    void setMapLeft(std::atomic<uint64>* left) { mapLeft = left; }
    /// The hints of the block order of `app`: those in the folder, or else those that the server has, which
    /// are put there. What the folder has of another order goes. Nothing where the server has none, or where
    /// they can't be used, which is logged. Raises nothing: nobody depends on them. Safe from any thread, but
    /// not beside itself.
    std::optional<ZqOrderHints> fetchHints(const ZqAppParams& app, const ZqStopTest& stop) const;
    /// All of it, and the hints, for an index folder: one that holds nothing yet.
    void fetchIndex(const ZqStopTest& stop);

    /// Whether the server's `app.json` is still that of the version and block order of `own`. Raises where
    /// that can't be told now. Asks for it as for what an application waits for. Safe from any thread.
    bool isSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const;

private:
    /// A record's address as texts show it.
    SxString urlOf(const char* name) const { return ZqUrlText::of(ZqRemoteFile::urlIn(address, name)); }
    /// `isFresh`: past caches, since what came before was wrong.
    SxPtr<ZqRemoteFile> remote(const char* name, bool isFresh,
                               uint64 expectedSize = ZqRemoteFile::UNKNOWN) const;
    bool hasBlocks() const;
    /// Whether the map has that size, and that digest where it isn't empty.
    bool hasMap(const ZqAppParams& known) const;
    void fetchParams(const ZqAppParams& app, const ZqStopTest& stop) const;
    ZqOrderHints bringHints(const ZqAppParams& app, const ZqStopTest& stop) const;
    /// The map, and before it `img.idx.md5` with the digest that it is checked by, where `app` states none.
    void fetchMap(const ZqAppParams& app, const ZqStopTest& stop) const;
    void bringMap(const ZqAppParams& known, const ZqStopTest& stop) const;
    /// The map's digest where `app` states none. The map may come before it, but no mount takes it without.
    SxString awaitDigest(const ZqAppParams& app, const ZqStopTest& stop) const;
    /// Gives up with the tag TURN_ENDED where the map may come before it, with `isTurn`.
    SxString fetchDigest(bool isFresh, bool isTurn, const ZqStopTest& stop) const;
    /// Raises with the tag WRONG where what came as this record is a page for a browser.
    void requireNoPage(const SxString& text, const char* name) const;
    bool hasParams(const ZqAppParams& app) const;
    void requireParams(const SxString& file, const ZqAppParams& app) const;
    /// The server's `app.json`, and what it was read from. One that is of another version than `own`, where
    /// that is given, is asked for twice. Nothing is written, so a full disk is no matter.
    ZqAppParams look(const ZqAppParams* own, std::optional<SxString>* text, const ZqStopTest& stop,
                     ZqTransfer::Kind kind = ZqTransfer::Kind::Small) const;
    /// As look(), but says so where there is no image at the address.
    ZqAppParams lookAtAddress(const ZqAppParams* own, const ZqStopTest& stop) const;
    /// Raises `why` of look() again, and says so where there is no image; `text`: what came, if anything did.
    [[noreturn]] void raiseNoImage(const SxException& why, const std::optional<SxString>& text) const;
    ZqAppParams parseApp(const SxArray<char>& bytes, std::optional<SxString>* text) const;
    void requireSame(const ZqAppParams& own, const ZqAppParams& server) const;

    const SxPtr<ZqNetLink> link;
    const SxString folder;  ///< with a slash at the end
    const SxString address; ///< the folder's
    const SxString url;     ///< the same as texts show it
    const SxArray<SxString> headers;
    std::atomic<uint64>* mapLeft = nullptr;
};
