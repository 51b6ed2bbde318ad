#include "ZqOrderCarry.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageOptimize.h"
#include "ZqImageRecords.h"
#include "ZqLog.h"
#include "ZqUrlText.h"

namespace {

constexpr const char* UNIT = "src/base/feed/ZqOrderCarry";
constexpr int64 POLL_MS = 100;

/// The folder for the server's order, in the image's; it goes at the end.
class IndexFolder {
public:
    explicit IndexFolder(const SxString& image)
        : path(ZqImageFolder::prefix(image) + ZqImageFiles::OPTIMIZE_INDEX) {
        SxFSAction::mkdir_p(path, 0755);
    }
    ~IndexFolder() {
        try {
            SxFSAction::rm_r(path);
        } catch (const SxException& e) {
            zqLogMsg("base", "ZqOrderCarry: " + e.toString(SxException::ShowMessage, ": "));
        }
    }
    IndexFolder(const IndexFolder&) = delete;
    IndexFolder& operator=(const IndexFolder&) = delete;

    const SxString path;
};

} // namespace

void ZqOrderCarry::removeRemains(const SxString& image) {
    const SxString path = ZqImageFolder::prefix(image) + ZqImageFiles::OPTIMIZE_INDEX;
    if (!SxFSAction::isGone(path)) SxFSAction::rm_r(path);
}

SxString ZqOrderCarry::run(const SxPtr<ZqNetLink>& link, const SxString& image, const SxString& url,
                           const SxArray<SxString>& headers, const ZqStopTest& stop) {
    removeRemains(image);
    const IndexFolder index(image);
    ZqImageRecords(link, index.path, url, headers).fetchIndex(stop);
    ZqImageOptimize job(image, index.path);
    job.keepIndex(ZqImageFolder::prefix(ZqUrlText::of(url)));
    job.start();
    while (!SxWait::pass(POLL_MS, [&] { return !job.isRunning(); })) {
        if (stop && stop()) job.stop();
    }
    job.wait();
    if (job.hasFailure()) throw job.getFailure();
    if (!job.isComplete()) throw SxException(SxException::STOPPED, "stopped", UNIT, __LINE__);
    const ZqImageOptimize::Result& result = job.getResult();
    const auto mib = [](uint64 nBlocks) {
        return SxString::sprintf("%.1f MiB", static_cast<double>(nBlocks * ZqBlocks::SIZE) / (1 << 20));
    };
    return "The server has another block order by now: " +
           mib(result.nMoved + result.nKept + result.nBeyond) + " of what was there are kept, " +
           mib(result.nLost) + " are downloaded again";
}
