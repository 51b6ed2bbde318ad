#include "RecordFile.h"
#include "ZqTrace.h"
#include "ZqTraceFormat.h"

#include <algorithm>
#include <set>

// img.trc: any bytes are items up to the last whole record, whichever way they are read; what was read
// survives being written.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("img.trc", data, size);
    ZqTrace trace;
    trace.read(file.prefix());
    const auto all = trace.getItems(false, true, true);
    SxFileIO open(file.prefix() + "img.trc", "rb");
    if (all->getSize() != static_cast<int64>(size / 16) || !(*all == *ZqTrace::readItems(&open)))
        std::abort();
    if (trace.getTraceDuration() != ZqTrace::getTraceDuration(file.prefix())) std::abort();
    std::set<uint64> blocks;
    for (const ZqTraceItem& item : *all)
        blocks.insert(item.block);
    if (trace.getNItems(true) != static_cast<int64>(blocks.size())) std::abort();
    trace.getPageSizeMB();
    trace.write(file.prefix());
    if (!(*all == *trace.getItems(false, true, true))) std::abort();
    trace.trim();
    ZqTraceParams().write(file.prefix());
    const auto nBlocks = static_cast<int64>(blocks.size());
    // A record of zeros may be what a power cut has left: then the whole is refused, and nothing else is.
    bool isRefused = false;
    try {
        if (nBlocks > 0 && ZqTrace::sequenceToTrace(trace.traceToSequence()).getSize() != nBlocks)
            std::abort();
    } catch (const SxException&) {
        isRefused = true;
    }
    if (isRefused != std::any_of(all->begin(), all->end(), ZqTraceFormat::isHole)) std::abort();
    try {
        auto both = SxPtr<SxArray<ZqTrace>>::create();
        both->append(trace);
        both->append(trace);
        ZqTrace::merge(file.prefix(), both);
        if (trace.getNItems(false) != nBlocks) std::abort();
    } catch (const SxException&) { // times that no record can hold
    }
    return 0;
}
