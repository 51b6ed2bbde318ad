#include "ZqFirstFrame.h"

#include "SxClock.h"
#include "SxOs.h"

ZqFirstFrame::ZqFirstFrame(SxString file_, int64 beginNs_)
    : file(std::move(file_)),
      beginNs(beginNs_),
      oldMs(writtenMs()) {
}

void ZqFirstFrame::look() {
    if (isAwaited() && writtenMs() != oldMs) foundMs = (SxClock::get().steadyNs() - beginNs) / 1'000'000;
}

/// When the file was written last; -1 where there is none.
int64 ZqFirstFrame::writtenMs() const {
    SxStat info;
    if (file.isEmpty()) return -1;
    const int error = SxOs::get().stat(SxOs::hostPath(file), &info);
    return error == 0 ? info.modifiedMs : -1;
}
