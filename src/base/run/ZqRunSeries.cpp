#include "ZqRunSeries.h"

#include <algorithm>

namespace {
constexpr size_t MOST_UNDERFLOWS = 256;
}

void ZqRunSeries::add(const Sample& sample) {
    followUnderflow(sample);
    if (isExtra) samples.pop_back();
    samples.push_back(sample);
    isExtra = sample.timeMs < dueMs;
    if (isExtra) return;
    if (samples.size() >= nMost) {
        for (size_t i = 0; 2 * i < samples.size(); ++i)
            samples[i] = samples[2 * i];
        samples.resize((samples.size() + 1) / 2);
        intervalMs *= 2;
        // Where that has dropped the newest sample, it stays as the last one all the same.
        if (samples.back().timeMs != sample.timeMs) {
            samples.push_back(sample);
            isExtra = true;
        }
    }
    dueMs = sample.timeMs + intervalMs;
}

void ZqRunSeries::shift(int64 ms) {
    dueMs += ms;
    for (Sample& sample : samples)
        sample.timeMs += ms;
    for (Underflow& underflow : underflows) {
        underflow.fromMs += ms;
        underflow.toMs += ms;
    }
}

void ZqRunSeries::followUnderflow(const Sample& sample) {
    if (isOpen) {
        Underflow& last = underflows.back();
        last.waitedMs += sample.timeMs - last.toMs;
        last.toMs = sample.timeMs;
    } else if (sample.isUnderflow) {
        underflows.push_back({sample.timeMs, sample.timeMs, 0, 1});
        if (underflows.size() > MOST_UNDERFLOWS) joinNearest();
    }
    isOpen = sample.isUnderflow;
}

void ZqRunSeries::joinNearest() {
    const auto gapBehind = [this](size_t i) { return underflows[i + 1].fromMs - underflows[i].toMs; };
    size_t nearest = 0;
    for (size_t i = 1; i + 1 < underflows.size(); ++i) {
        if (gapBehind(i) < gapBehind(nearest)) nearest = i;
    }
    Underflow& left = underflows[nearest];
    const Underflow& right = underflows[nearest + 1];
    left.toMs = right.toMs;
    left.waitedMs += right.waitedMs;
    left.n += right.n;
    underflows.erase(underflows.begin() + static_cast<std::ptrdiff_t>(nearest) + 1);
}
