#include "ZqImageRecords.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxSystemThread.h"
#include "ZqFailurePolicy.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageMapFetch.h"
#include "ZqImageParams.h"
#include "ZqUrlText.h"

namespace {

constexpr const char* UNIT = "src/base/ZqImageRecords";
constexpr int64 MAX_RECORD = SxFileIO::MAX_TEXT;
constexpr uint64 MD5_SIZE = 32;
/// How long a start waits for the server's word where what is there can be played without.
constexpr int64 PATIENCE_NS = 4'000'000'000;
/// Name under which a record waits until it is checked.
constexpr const char* NEW = ".new";

int64 fileSize(const SxString& path) {
    const SxFileInfo file(path);
    return file.isFile() ? file.getSize() : -1;
}

bool areSame(const ZqAppParams& own, const ZqAppParams& server) {
    return own.sizeZqf == server.sizeZqf && own.checksumMnt == server.checksumMnt &&
           own.checksumIdx == server.checksumIdx;
}

} // namespace

/// Fetches one record on a thread of its own, so that a round trip is paid once for all.
class ZqImageRecords::Fetch : public SxSystemThread {
public:
    Fetch(SxPtr<ZqRemoteFile> file_, SxString path_, uint64 maxSize_, bool optional_, ZqStopTest stop_)
        : file(std::move(file_)),
          path(std::move(path_)),
          maxSize(maxSize_),
          optional(optional_),
          stop(std::move(stop_)) {
        if (optional) file->getFacts()->allowAbsence();
        setThreadName("record");
    }
    /// Waits for the end, and raises what went wrong.
    void finish() {
        wait();
        if (hasException()) throw getException();
    }

protected:
    void main() override {
        try {
            file->fetchTo(path, stop, maxSize);
        } catch (const SxException& e) {
            if (!optional || !e.hasTag(ZqNetLink::NOT_FOUND)) throw;
        }
    }

private:
    const SxPtr<ZqRemoteFile> file;
    const SxString path;
    const uint64 maxSize; ///< bytes
    const bool optional;
    const ZqStopTest stop;
};

ZqImageRecords::ZqImageRecords(const SxPtr<ZqNetLink>& link_, const SxString& image,
                               const SxString& folderUrl, const SxArray<SxString>& headers_)
    : link(link_),
      folder(ZqImageFolder::prefix(image)),
      address(folderUrl),
      url(ZqUrlText::of(folderUrl)),
      headers(headers_) {
}

bool ZqImageRecords::isComplete(const SxString& image) {
    if (!holdsPart(image)) return false;
    const SxString folder = ZqImageFolder::prefix(image);
    const ZqAppParams app(folder);
    return fileSize(folder + ZqImageFiles::ZQF) >= static_cast<int64>(app.sizeZqf);
}

bool ZqImageRecords::holdsPart(const SxString& image) {
    const SxString folder = ZqImageFolder::prefix(image);
    for (const char* name : {ZqImageFiles::APP_JSON, ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX}) {
        if (!SxFSAction::test_f(folder + name)) return false;
    }
    return fileSize(folder + ZqImageFiles::ZQF) > 0;
}

SxPtr<ZqRemoteFile> ZqImageRecords::remote(const char* name, uint64 expectedSize) const {
    auto file = SxPtr<ZqRemoteFile>::create(link, ZqRemoteFile::urlIn(address, name), headers, expectedSize);
    // Each is taken as one, of whichever mirror, and looked at as a whole.
    file->getFacts()->setSameTest([](const ZqStopTest&) { return true; });
    return file;
}

bool ZqImageRecords::hasBlocks() const {
    return fileSize(folder + ZqImageFiles::ZQF) > 0;
}

bool ZqImageRecords::hasMap(const ZqAppParams& app) const {
    const SxString idx = folder + ZqImageFiles::IDX;
    return fileSize(idx) == static_cast<int64>(app.sizeIdx) &&
           (app.checksumIdx.isEmpty() || SxMd5::file(idx) == app.checksumIdx);
}

void ZqImageRecords::requireSame(const ZqAppParams& own, const ZqAppParams& server) const {
    if (areSame(own, server)) return;
    const bool otherOrder = own.checksumMnt == server.checksumMnt;
    throw SxException(ZqFailurePolicy::OTHER_VERSION,
                      "The image at " + url + " has another " + (otherOrder ? "block order" : "version") +
                          " than that in '" + folder +
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

ZqAppParams ZqImageRecords::look(SxString* text, const ZqStopTest& stop, ZqTransfer::Kind kind) const {
    const SxArray<char> bytes = remote(ZqImageFiles::APP_JSON)->get(MAX_RECORD, stop, kind);
    *text = SxString(std::string_view(bytes.data(), static_cast<size_t>(bytes.getSize())));
    requireNoPage(*text, ZqImageFiles::APP_JSON);
    try {
        ZqAppParams server;
        server.readText(*text, ZqImageFiles::APP_JSON);
        server.requireKnownFormat();
        return server;
    } catch (const SxException& e) {
        // A page to log in to, say.
        throw SxException(e, "Cannot use '" + urlOf(ZqImageFiles::APP_JSON) + "'", UNIT, __LINE__)
            .tagged(ZqNetLink::WRONG);
    }
}

void ZqImageRecords::requireSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const {
    SxString text;
    requireSame(own, look(&text, stop));
}

bool ZqImageRecords::isSameOnServer(const ZqAppParams& own, const ZqStopTest& stop) const {
    SxString text;
    return areSame(own, look(&text, stop, ZqTransfer::Kind::OnDemand));
}

ZqAppParams ZqImageRecords::fetchApp(bool mayPlay, bool* isConfirmed, const ZqStopTest& stop) {
    *isConfirmed = true;
    const SxString file = folder + ZqImageFiles::APP_JSON;
    // An earlier run may have been killed ahead of the other records, which fetchRest() brings.
    const bool resumes = hasBlocks();
    if (resumes && !SxFSAction::test_f(file)) {
        throw SxException("'" + folder + "' holds an image without its app.json, which can't be completed",
                          UNIT, __LINE__);
    }
    ZqAppParams server;
    SxString text;
    const bool mayGoWithout = mayPlay && holdsPart(folder);
    const int64 endNs = SxClock::get().steadyNs() + PATIENCE_NS;
    bool isLate = false;
    try {
        server = look(&text, [&] {
            if (stop && stop()) return true;
            isLate = mayGoWithout && SxClock::get().steadyNs() >= endNs;
            return isLate;
        });
    } catch (const SxException& e) {
        // What is there can be played; the download waits for its server, and says so.
        const bool mayPass = isLate || ZqFailurePolicy::decide(e, true) != ZqFailurePolicy::End;
        if (!mayGoWithout || !mayPass) throw;
        *isConfirmed = false;
        return ZqAppParams(folder);
    }
    if (resumes) {
        ZqAppParams own(folder);
        requireSame(own, server);
        return own;
    }
    // That of another image would be taken for this one's, since no digest of it is known.
    const SxString params = folder + ZqImageFiles::IMAGE_JSON;
    if (SxFSAction::exists(params)) SxFSAction::rm(params);
    SxFileIO::writeAtomic(file, text);
    // The record has been checked; its folder is the image's now.
    return ZqAppParams(folder);
}

/// One that took its place would stay there: it isn't fetched again once there are blocks.
void ZqImageRecords::requireParams(const SxString& file, const ZqAppParams& app) const {
    constexpr uint64 BLOCK = 4096;
    try {
        requireNoPage(SxFileIO::readUtf8(file), ZqImageFiles::IMAGE_JSON);
        ZqImageParams server;
        server.readFile(file);
        const uint64 nBlocks = (static_cast<uint64>(server.sizeRaw) + BLOCK - 1) / BLOCK;
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

void ZqImageRecords::fetchRest(const ZqAppParams& app, const ZqStopTest& stop) {
    const SxString params = folder + ZqImageFiles::IMAGE_JSON;
    const SxString digest = folder + ZqImageFiles::IDX_MD5;
    const bool needsMap = !hasMap(app);
    const bool needsDigest = needsMap && app.checksumIdx.isEmpty();
    const bool needsParams = !SxFSAction::test_f(params);
    Fetch paramsFetch(remote(ZqImageFiles::IMAGE_JSON), params + NEW, MAX_RECORD, false, stop);
    ZqImageMapFetch mapFetch(link, folder, address, headers, app, stop);
    Fetch digestFetch(remote(ZqImageFiles::IDX_MD5, MD5_SIZE), digest, MD5_SIZE, true, stop);
    if (needsParams) paramsFetch.start();
    if (needsMap) {
        // What stands there belongs to another map, and would be believed ahead of app.json.
        if (SxFSAction::exists(digest)) SxFSAction::rm(digest);
        mapFetch.start();
    }
    if (needsDigest) digestFetch.start();
    paramsFetch.wait();
    mapFetch.wait();
    digestFetch.wait();
    paramsFetch.finish();
    mapFetch.finish();
    digestFetch.finish();
    if (needsParams) {
        requireParams(params + NEW, app);
        SxFSAction::mv(params + NEW, params);
    }
    if (!hasMap(app)) {
        throw SxException(ZqNetLink::WRONG,
                          "The map at " + urlOf(ZqImageFiles::IDX) + " isn't the one that app.json states",
                          UNIT, __LINE__);
    }
}
