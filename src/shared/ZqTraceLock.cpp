#include "ZqTraceLock.h"

#include "ZqTraceFiles.h"

ZqTraceLock::ZqTraceLock(const SxString& path)
    : lock(path + ZqTraceFiles::LOCK, "Another command writes the trace '" + path + "' at the moment",
           "Cannot lock the trace '" + path + "'") {
}

bool ZqTraceLock::isHeld(const SxString& path) {
    return ZqFileLock::isLocked(path + ZqTraceFiles::LOCK);
}
