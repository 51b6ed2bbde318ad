#include "TraceRecorder.h"

#include "DriverLog.h"
#include "SxClock.h"
#include "SxException.h"
#include "TraceRecord.h"
#include "ZqTraceFiles.h"
#include "ZqTraceFormat.h"

namespace {

constexpr const char* UNIT = "src/driver/TraceRecorder";
/// Records that may wait for the file: 64 MiB, which tell of 16 GiB of reads.
constexpr size_t MAX_GATHERED = 4 << 20;

} // namespace

void TraceRecorder::start(const SxString& folder) {
    stop();
    const SxMutexBlock turn(&writing);
    prefix = folder.endsWith("/") ? folder : folder + "/";
    file.open(SxOs::hostPath(prefix + ZqTraceFiles::ITEMS),
              SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
    // Tells whoever edits or joins traces that this one is still written. Where there are no locks, the
    // image's own have to do.
    SxOs::get().lockRange(file.getFd(), 0, 1, SxOs::Lock::Exclusive);
    end = 0;
    digest.initialize();
    const SxMutexBlock lock(&mutex);
    gathered.clear();
    failure = SxString();
    // From here on the steady clock counts, so that the records stay in order when the machine's clock is
    // set.
    startTime = (static_cast<uint64>(SxClock::get().systemMs()) + ZqTraceFormat::FROM_1601_TO_1970_MS) *
                ZqTraceFormat::UNITS_PER_MS;
    startNs = SxClock::get().steadyNs();
    on = true;
}

void TraceRecorder::stop() {
    const SxMutexBlock turn(&writing);
    if (!file.isOpen()) return;
    on = false;
    writeGathered();
    stateWhole();
    // Its lock goes with it. Until here that has kept others from both files of the trace.
    file.close();
}

/// States size and digest of the whole trace in its record, so that a trace that is cut off later can be
/// told. Where they can't be stated the trace is as good as one whose recorder was killed.
void TraceRecorder::stateWhole() {
    try {
        if (!getFailure().isEmpty()) return;
        // The file is synced first: after a power cut its record must not tell of more than it has.
        if (const int error = file.sync()) file.raise("Cannot write", error, UNIT, __LINE__);
        digest.finish();
        stateRecorded(prefix, end, digest.toString());
    } catch (const std::exception& e) {
        driverLog("can't state size and digest of the trace in " + prefix + ": " + e.what());
    }
}

void TraceRecorder::record(RawIdx first, uint64 n, bool write) {
    const SxMutexBlock lock(&mutex);
    if (!on) return;
    if (gathered.size() + n > MAX_GATHERED) {
        giveUp("The trace grows faster than it can be written");
        return;
    }
    const auto elapsed = static_cast<uint64>(SxClock::get().steadyNs() - startNs);
    const uint64 time = ZqTraceFormat::swapIfBig(startTime + elapsed / 100);
    for (uint64 i = 0; i < n; ++i)
        gathered.push_back(
            {ZqTraceFormat::swapIfBig((first + i).value | (write ? ZqTraceFormat::FLAG : 0)), time});
    event.store(true, std::memory_order_relaxed);
}

void TraceRecorder::flush() {
    const SxMutexBlock turn(&writing);
    if (file.isOpen()) writeGathered();
}

void TraceRecorder::writeGathered() {
    taken.clear();
    {
        const SxMutexBlock lock(&mutex);
        taken.swap(gathered);
    }
    if (taken.empty()) return;
    const uint64 size = taken.size() * sizeof(Record);
    const int error = file.writeAt(taken.data(), size, end);
    end += size;
    if (!error) return digest.update(taken.data(), static_cast<int64>(size));
    const SxMutexBlock lock(&mutex);
    giveUp("Cannot write the trace '" + SxString(file.getPath()) + "': " + SxOs::errorText(error));
}

void TraceRecorder::giveUp(const SxString& text) {
    on = false;
    gathered.clear();
    if (failure.isEmpty()) failure = text;
}

SxString TraceRecorder::getFailure() const {
    const SxMutexBlock lock(&mutex);
    return failure;
}
