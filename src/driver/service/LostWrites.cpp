#include "LostWrites.h"

#include "DriverLog.h"

void LostWrites::setHolds(bool holds_) {
    if (holds.exchange(holds_) == holds_) return;
    folder.noteWritten(holds_);
}

void LostWrites::note(const SxString& why) {
    if (!holds) return;
    const SxMutexBlock block(&mutex);
    if (!lost.isEmpty()) return;
    lost = "What programs wrote to the drive of image '" + image +
           "' is lost as far as they hadn't synced it: " + why;
    driverLog(lost);
}

SxString LostWrites::get() const {
    const SxMutexBlock block(&mutex);
    return lost;
}
