#include "ZqUnderflowFigures.h"

#include "SxClock.h"
#include "ZqLog.h"

#include <algorithm>

namespace {

constexpr int64 MAX_BATCH = 25;

void updateMean(int64* mean, int64 n, int64 value) {
    if (n > 0) *mean = ((n - 1) * *mean + value) / n;
}

int64 whole(double value) {
    return static_cast<int64>(value);
}

/// Takes the duration of one more underflow into the statistics, which count it already.
void addDuration(ZqRuntimeInfo* info, int64 ms) {
    info->maxUnderflowTime = std::max(info->maxUnderflowTime, ms);
    updateMean(&info->avgUnderflowTime, info->nUnderflows, ms);
}

} // namespace

ZqUnderflowFigures::ZqUnderflowFigures(ZqRuntimeInfo* record_) : record(record_) {
    batchTimes.resize(MAX_BATCH);
}

void ZqUnderflowFigures::begin(int64 size, int64 sinceMs) {
    const SxMutexBlock lock(&mutex);
    if (openMs != NONE) return;
    openMs = sinceMs;
    ++record->nUnderflows;
    record->maxUnderflowSize = std::max(record->maxUnderflowSize, size);
    updateMean(&record->avgUnderflowSize, record->nUnderflows, size);
}

void ZqUnderflowFigures::end() {
    const int64 nowMs = SxClock::get().steadyMs();
    const SxMutexBlock lock(&mutex);
    if (openMs != NONE) addDuration(record, nowMs - openMs);
    openMs = NONE;
}

bool ZqUnderflowFigures::isOpen() const {
    const SxMutexBlock lock(&mutex);
    return openMs != NONE;
}

ZqRuntimeInfo ZqUnderflowFigures::get() const {
    const int64 nowMs = SxClock::get().steadyMs();
    const SxMutexBlock lock(&mutex);
    ZqRuntimeInfo info = *record;
    if (openMs != NONE) addDuration(&info, nowMs - openMs);
    return info;
}

void ZqUnderflowFigures::noteQueue(uint64 length) {
    queueLengths.update(length);
    const SxMutexBlock lock(&mutex);
    record->avgOnDemandQueue = whole(queueLengths.getAverage());
    record->maxOnDemandQueue = whole(queueLengths.getMax());
}

void ZqUnderflowFigures::noteHints(int64 nBegun, int64 nUsed) {
    const SxMutexBlock lock(&mutex);
    record->nHinted = nBegun;
    record->nHintsUsed = nUsed;
}

void ZqUnderflowFigures::noteFetches(int64 n, int64 elapsedMs) {
    const double each = static_cast<double>(elapsedMs) / static_cast<double>(n);
    if (n < batchTimes.getSize()) batchTimes(n - 1).update(each);
    for (int64 i = 0; i < n; ++i)
        fetchTimes.update(each);
    const SxMutexBlock lock(&mutex);
    record->nOnDemandFetches = fetchTimes.getN();
    record->avgOnDemandTime = whole(fetchTimes.getAverage());
    record->maxOnDemandTime = whole(fetchTimes.getMax());
    record->avgOnDemandSize = whole(fetchSizes.getAverage());
    record->sumOnDemandSize = whole(static_cast<double>(fetchSizes.getN()) * fetchSizes.getAverage());
}

void ZqUnderflowFigures::logTotals(uint64 sizeZqf) const {
    for (int64 i = 0; i < batchTimes.getSize(); ++i) {
        const ZqAvg& times = batchTimes(i);
        if (times.getN() == 0) continue;
        zqLogMsg("base", SxString(i + 1) + " range requests (N = " + times.getN() + " ) took on avg " +
                             times.getAverage() + " ms (MAX: " + times.getMax() + " ms)");
    }
    zqLogMsg("base", SxString("Total ") + requestIndices.getN() + " requests.");
    const double size = sizeZqf > 0 ? static_cast<double>(sizeZqf) : 1;
    zqLogMsg("base", SxString("Avg request index: ") + requestIndices.getAverage() / size);
    zqLogMsg("base", SxString("Min request index: ") + requestIndices.getMin() / size);
    zqLogMsg("base", SxString("Max request index: ") + requestIndices.getMax() / size);
}
