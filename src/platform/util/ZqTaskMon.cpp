#include "ZqTaskMon.h"

#include "SxClock.h"

uint64 ZqTaskMon::getNCurrent() const {
    SxMutexBlock lock(&counterMutex);
    return nCurrent;
}

uint64 ZqTaskMon::getNTotal() const {
    SxMutexBlock lock(&counterMutex);
    return nTotal;
}

uint64 ZqTaskMon::getSpeed() const {
    SxMutexBlock lock(&counterMutex);
    return speed;
}

uint64 ZqTaskMon::getETA() const {
    SxMutexBlock lock(&counterMutex);
    if (speed == 0 || nCurrent >= nTotal) return 0;
    return (nTotal - nCurrent + speed - 1) / speed;
}

void ZqTaskMon::setNCurrent(uint64 n) {
    SxMutexBlock lock(&counterMutex);
    nCurrent = n;
}

void ZqTaskMon::addNCurrent(uint64 n) {
    SxMutexBlock lock(&counterMutex);
    nCurrent += n;
}

void ZqTaskMon::setNTotal(uint64 n) {
    SxMutexBlock lock(&counterMutex);
    nTotal = n;
}

void ZqTaskMon::setSpeed(uint64 perSecond) {
    SxMutexBlock lock(&counterMutex);
    speed = perSecond;
}

void ZqTaskMon::updateSpeed(int64 t0) {
    const int64 seconds = (SxClock::get().systemMs() - t0) / 1000;
    const uint64 n = getNCurrent();
    setSpeed(seconds > 0 ? n / static_cast<uint64>(seconds) : n);
}

void ZqTaskMon::stop() {
    SxMutexBlock lock(&stopMutex);
    stopFlag = true;
}

bool ZqTaskMon::stopRequested() const {
    SxMutexBlock lock(&stopMutex);
    return stopFlag;
}
