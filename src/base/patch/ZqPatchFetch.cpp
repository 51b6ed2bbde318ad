#include "ZqPatchFetch.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqFileLock.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqPatchDownload.h"
#include "ZqPatchFiles.h"
#include "ZqPatchWork.h"
#include "ZqRunningTask.h"
#include "ZqSysEnv.h"

namespace {
constexpr const char* UNIT = "src/base/patch/ZqPatchFetch";
constexpr const char* LOCK = "fetch.lock";
constexpr int64 POLL_MS = 200;

/// The folder stays where it holds anything.
void removeEmpty(const ZqPatchWork& work) {
    SxOs::get().removeDir(SxOs::hostPath(work.getPath()));
}
} // namespace

ZqPatchFetch::ZqPatchFetch(const SxString& image_, const SxString& url_, const SxArray<SxString>& headers_,
                           const ZqNetAccess& access_)
    : image(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image_))),
      url(url_),
      headers(headers_),
      access(access_) {
    setThreadName("patch fetch");
}

void ZqPatchFetch::main() {
    const auto lock = ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, "patch fetch");
    const ZqPatchWork work(image);
    {
        const ZqFileLock alone(work.getPath() + LOCK,
                               "Another command fetches a patch of image '" + image + "' at the moment",
                               "Cannot lock the patch of image '" + image + "'");
        try {
            fetch(work);
        } catch (const SxException&) {
            work.removeStaged();
            if (!work.hasCopy()) work.clear();
            throw;
        }
    }
    removeEmpty(work);
}

void ZqPatchFetch::fetch(const ZqPatchWork& work) {
    const ZqStopTest stop = [this] { return stopRequested(); };
    ZqPatchDownload download(work, url, headers, access);
    const SxString record = download.fetchRecord(stop);
    const ZqPatchParams& params = download.readRecord(record);
    from = params.fromGUID;
    to = params.toGUID;
    const ZqAppParams app(image);
    alreadyNew = params.isMade(app);
    if (alreadyNew) {
        // What was fetched of it before is of no use any longer.
        if (work.hasCopyOf(SxMd5::get(record))) work.clear();
        return work.removeStaged();
    }
    if (!params.isFor(app))
        throw SxException("The provided patch is not for current version", UNIT, __LINE__);
    work.writeOrigin({url, false, SxMd5::get(record), params.toGUID, params.toMnt});
    download.fetchLists(stop);
    nParts = download.getParts().size();
    ZqImageFolder::requireSpace(image, download.getMissing());
    ZqRunningTask child(&download);
    while (download.isRunning()) {
        if (stopRequested()) download.stop();
        setNTotal(download.getNTotal());
        setNCurrent(download.getNCurrent());
        SxWait::pass(POLL_MS, [&] { return !download.isRunning() || stopRequested(); });
    }
    child.wait();
    nFetched = download.getNFetched();
    if (download.hasException()) throw download.getException();
    if (!(SxMd5::file(work.getCopy() + ZqPatchFiles::DATA) == params.hashData)) {
        SxFSAction::rm(work.getCopy() + ZqPatchFiles::DATA);
        throw SxException("'" + work.getCopy() + ZqPatchFiles::DATA +
                              "' hasn't had the digest that its patch.json says",
                          UNIT, __LINE__);
    }
    complete = true;
}
