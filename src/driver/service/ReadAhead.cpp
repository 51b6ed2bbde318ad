#include "ReadAhead.h"

#include "Helper.h"
#include "SxClock.h"
#include "SxException.h"

namespace {

/// How long one try to set it may take, and how many there are.
constexpr int64 LIMIT_MS = 3000;
constexpr int MAX_TRIES = 5;
constexpr int64 PASS_NS = 1'000'000'000;

} // namespace

const char* ReadAhead::valueOf(bool isHigh) {
    return isHigh ? "1024" : "16"; // KiB
}

void ReadAhead::begin(const SxString& setting_, bool isHigh) {
    const SxMutexBlock block(&mutex);
    setting = setting_;
    isSetHigh = isHigh;
}

bool ReadAhead::isHigh() const {
    const SxMutexBlock block(&mutex);
    return !setting.isEmpty() && isSetHigh;
}

/// Gives whether it is to be set now, and where.
bool ReadAhead::take(bool isHigh, SxString* setting_) {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock block(&mutex);
    if (setting.isEmpty()) return false;
    if (isHigh == isSetHigh || isHigh != isDueHigh) nTries = 0;
    if (isHigh == isSetHigh) return false;
    isDueHigh = isHigh;
    const bool isSoon = nTries > 0 && nowNs - triedNs < PASS_NS;
    if (isSoon || nTries >= MAX_TRIES) return false;
    ++nTries;
    triedNs = nowNs;
    *setting_ = setting;
    return true;
}

SxString ReadAhead::adjust() {
    const bool isHigh = isWanted();
    SxString where;
    if (!take(isHigh, &where)) return {};
    try {
        Helper::run({"readahead", where, valueOf(isHigh)}, LIMIT_MS, nullptr);
    } catch (const SxException& e) {
        return "its read-ahead can't be set: " + e.toString(SxException::ShowMessage, ": ");
    }
    nTries = 0;
    const SxMutexBlock block(&mutex);
    isSetHigh = isHigh;
    return {};
}
