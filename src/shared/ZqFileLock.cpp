#include "ZqFileLock.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "SxTime.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* UNIT = "src/shared/ZqFileLock";

} // namespace

ZqFileLock::ZqFileLock(const SxString& file, const SxString& heldText, const SxString& failText, int64 waitMs)
    : host(SxOs::hostPath(file)) {
    SxFSAction::mkdir_p(SxFileInfo(file).getPath(), 0777);
    if (!SxWait::pass(waitMs, [&] { return take(failText); })) throw SxException(heldText, UNIT, __LINE__);
}

/// False where somebody else holds it.
bool ZqFileLock::take(const SxString& failText) {
    SxOs& os = SxOs::get();
    for (;;) {
        fd = os.open(host, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0666);
        const int result = fd < 0 ? fd : os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive);
        if (result == -ENOLCK || result == -EOPNOTSUPP || result == -ENOSYS) return true;
        // Where the file is gone its holder has ended, and others lock another one.
        const int named = result == 0 ? os.hasName(fd, host) : 0;
        if (named == 1) return true;
        if (named < 0) os.unlink(host);
        if (fd >= 0) os.close(fd);
        if (result == -EAGAIN) return false;
        if (result < 0 || named < 0) {
            throw SxException(SxException(SxOs::errorText(std::min(result, named)), UNIT, __LINE__), failText,
                              UNIT, __LINE__);
        }
    }
}

ZqFileLock::~ZqFileLock() {
    // While it is still locked: whoever opens it meanwhile finds that it is gone.
    SxOs::get().unlink(host);
    SxOs::get().close(fd);
}

bool ZqFileLock::isLocked(const SxString& file, int64 offset) {
    SxOs& os = SxOs::get();
    const int fd = os.open(SxOs::hostPath(file), SxOs::Read, 0);
    if (fd == -ENOENT || fd == -ENOTDIR) return false;
    int result = fd;
    if (fd >= 0) {
        result = os.isLocked(fd, offset, 1, SxOs::Lock::Exclusive);
        os.close(fd);
    }
    if (result >= 0) return result == 1;
    // A file system without locks has nobody who holds one.
    if (fd >= 0 && (result == -ENOLCK || result == -EOPNOTSUPP || result == -ENOSYS)) return false;
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__), "Cannot look at '" + file + "'",
                      UNIT, __LINE__);
}
