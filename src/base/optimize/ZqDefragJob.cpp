#include "ZqDefragJob.h"

#include "ZqImageFolder.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"

namespace {
constexpr const char* UNIT = "src/base/optimize/ZqDefragJob";
constexpr double DONE = 100;
} // namespace

ZqDefragJob::ZqDefragJob(const SxString& image, const SxString& index)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      imagePath(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image))),
      indexPath(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(index))),
      indexName(indexPath) {
}

void ZqDefragJob::main() {
    try {
        run();
    } catch (...) {
        ended.set();
        throw;
    }
    ended.set();
}

void ZqDefragJob::run() {
    const SxTakeTime taken(Timer::ImageTimer::ZqfFromZqf);
    const int64 now = ZqSysEnv::getSysTime();
    {
        const SxMutexBlock lock(&progressMutex);
        progress = 0;
        startTime = static_cast<uint64>(now);
    }
    runtimeInfo->defragStats.begin(now);
    try {
        reorder();
        complete = true;
    } catch (const SxException& e) {
        if (!e.hasTag(SxException::STOPPED)) {
            runtimeInfo->defragStats.bytes = static_cast<int64>(written);
            throw SxException(e, "ZqF optimization failed.", UNIT, __LINE__);
        }
    }
    {
        const SxMutexBlock lock(&progressMutex);
        progress = DONE;
        iCurrent = nTotal;
    }
    runtimeInfo->defragStats.end(ZqSysEnv::getSysTime(), static_cast<int64>(written));
}

void ZqDefragJob::setTotal(uint64 bytes) {
    const SxMutexBlock lock(&progressMutex);
    nTotal = bytes;
}

void ZqDefragJob::setCurrent(uint64 bytes, double percent) {
    const SxMutexBlock lock(&progressMutex);
    iCurrent = bytes;
    progress = percent;
}

void ZqDefragJob::refuseStop() const {
    if (isStopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

double ZqDefragJob::getProgress() const {
    const SxMutexBlock lock(&progressMutex);
    return progress;
}

uint64 ZqDefragJob::getICurrent() const {
    const SxMutexBlock lock(&progressMutex);
    return iCurrent;
}

uint64 ZqDefragJob::getNTotal() const {
    const SxMutexBlock lock(&progressMutex);
    return nTotal;
}

uint64 ZqDefragJob::getBpS() const {
    const auto now = static_cast<uint64>(ZqSysEnv::getSysTime());
    const SxMutexBlock lock(&progressMutex);
    return now > startTime ? iCurrent * 1000 / (now - startTime) : 0;
}

uint64 ZqDefragJob::getETA() const {
    const uint64 speed = getBpS();
    const SxMutexBlock lock(&progressMutex);
    const uint64 rest = nTotal - iCurrent;
    return speed > 0 ? rest / speed : rest;
}
