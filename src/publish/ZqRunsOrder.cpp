#include "ZqRunsOrder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageOrder.h"
#include "ZqTrace.h"
#include "ZqTraceParams.h"
#include "ZqTraceRecords.h"

namespace {
constexpr const char* UNIT = "src/publish/ZqRunsOrder";
constexpr int64 POLL_MS = 100;
} // namespace

ZqRunsOrder::ZqRunsOrder(const SxString& image_, const SxString& folder_)
    : image(ZqImageFolder::prefix(image_)),
      folder(ZqImageFolder::prefix(folder_)) {
    setThreadName("runs order");
}

void ZqRunsOrder::main() {
    const SxString trace = folder + "trace/";
    merge(trace);
    ZqImageOrder order(image, trace, getIndex());
    order.start();
    while (!SxWait::pass(POLL_MS, [&] { return !order.isRunning(); })) {
        if (stopRequested()) order.stop();
        setNTotal(order.getNTotal());
        setNCurrent(order.getNCurrent());
    }
    order.wait();
    if (order.hasException()) throw order.getException();
    complete = order.isComplete();
}

void ZqRunsOrder::merge(const SxString& to) {
    const ZqAppParams app(image);
    const SxString traces = image + ZqImageFiles::TRACES;
    const uint64 nRaw = static_cast<uint64>(SxFSAction::sizeOf(image + ZqImageFiles::IDX)) / sizeof(uint64);
    auto chosen = SxPtr<SxArray<ZqTrace>>::create();
    if (SxFSAction::test_d(traces)) {
        for (const SxDir& dir : SxFSAction::getDirs(traces)) {
            const SxString trace = ZqImageFolder::prefix(dir.getOrig());
            const SxString why = findObstacle(trace, app.checksumMnt, nRaw);
            if (why.isEmpty()) {
                chosen->append(ZqTrace(trace));
            } else {
                left.append({dir.getName(), why});
            }
        }
    }
    nTraces = chosen->getSize();
    if (nTraces > 0) return ZqTrace::merge(to, chosen);
    SxString text = "'" + traces + "' holds no trace of a run that the order could come from";
    for (const Left& one : left)
        text += "; '" + one.name + "' " + one.why;
    throw SxException(text, UNIT, __LINE__);
}

SxString ZqRunsOrder::findObstacle(const SxString& trace, const SxString& buildId, uint64 nRaw) const {
    try {
        const ZqTraceParams record(trace);
        if (record.isSeries()) return "was joined of several runs";
        if (!(record.checksumMnt == buildId)) return "is of another build";
        SxString mismatch = ZqTraceRecords::findMismatch(trace, record);
        if (!mismatch.isEmpty()) return mismatch;
        ZqTraceRecords::Reader reader(trace);
        if (reader.getN() == 0) return "is empty";
        ZqTraceItem item;
        while (reader.next(&item)) {
            if (item.block >= nRaw) return "names blocks that the image doesn't have";
        }
        return {};
    } catch (const SxException& e) {
        return "can't be read: " + SxString(e.what());
    }
}
