#include "ZqTraceLock.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqTraceFiles.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/base/ZqTraceLock";

std::string lockFile(const SxString& path) {
    return SxOs::hostPath(path + ZqTraceFiles::LOCK);
}

/// Whether the file was removed since it was opened: its holder has ended, and others lock another one.
/// Raises where that can't be told.
bool isStale(int fd, const std::string& host) {
    SxStat held, named;
    const int result = SxOs::get().lstat(host, &named);
    if (result == -ENOENT) return true;
    const int own = result < 0 ? result : SxOs::get().statFd(fd, &held);
    if (own < 0) throw SxException(SxOs::errorText(own), UNIT, __LINE__);
    return held.inode != named.inode || held.device != named.device;
}

} // namespace

ZqTraceLock::ZqTraceLock(const SxString& path) : host(lockFile(path)) {
    SxFSAction::mkdir_p(SxFileInfo(path + ZqTraceFiles::LOCK).getPath(), 0777);
    SxOs& os = SxOs::get();
    for (;;) {
        fd = os.open(host, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0666);
        const int result = fd < 0 ? fd : os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive);
        if (result == -ENOLCK || result == -EOPNOTSUPP || result == -ENOSYS) return;
        try {
            if (result == 0 && !isStale(fd, host)) return;
        } catch (const SxException& e) {
            os.unlink(host);
            os.close(fd);
            throw SxException(e, "Cannot lock the trace '" + path + "'", UNIT, __LINE__);
        }
        if (fd >= 0) os.close(fd);
        if (result == -EAGAIN) {
            throw SxException("Another command writes the trace '" + path + "' at the moment", UNIT,
                              __LINE__);
        }
        if (result < 0) {
            throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                              "Cannot lock the trace '" + path + "'", UNIT, __LINE__);
        }
    }
}

ZqTraceLock::~ZqTraceLock() {
    // While it is still locked: whoever opens it meanwhile finds that it is gone.
    SxOs::get().unlink(host);
    SxOs::get().close(fd);
}

bool ZqTraceLock::isHeld(const SxString& path) {
    SxOs& os = SxOs::get();
    const int opened = os.open(lockFile(path), SxOs::Read | SxOs::NoFollow, 0);
    if (opened < 0) return false;
    const int locked = os.isLocked(opened, 0, 1, SxOs::Lock::Exclusive);
    os.close(opened);
    return locked == 1;
}
